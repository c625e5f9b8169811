/*
 * Recorded messages as operators get them: l2vpnd's ring, dead or alive, an owner's ring, and l2vpnctl's verbs.
 */
#include "daemon.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace process_test;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

class recorded : public daemon_test {
protected:
    std::string ring() const { return ask({"status"}).value("capture", ""); }

    system_test::result monitor(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "monitor");
        return ctl(arguments);
    }

    /* The records, a JSON object each. */
    std::vector<json> rows(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--json", "-v"});
        const system_test::result done = monitor(arguments);
        EXPECT_EQ(done.status, 0) << done.err;
        return parsed(done.out);
    }

    static std::vector<json> parsed(const std::string &text)
    {
        std::vector<json> found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            found.push_back(json::parse(line));
        }
        return found;
    }

    /* For a file that is being made. */
    bool becomes_readable(const std::string &file, size_t count) const
    {
        return eventually([&] {
            const system_test::result done = monitor({"--read", file, "--json"});
            return done.status == 0 && parsed(done.out).size() == count;
        });
    }

    /* An owner of class 3 with two ACs, which are provisioned, and a message that is none. */
    std::string make_history()
    {
        start({"--auto-provision"});
        raw_peer &owner = m_owner.emplace(peer(3));
        EXPECT_TRUE(owner.send(create(3, {0x11, 0x12})));
        EXPECT_TRUE(owner.receive());
        EXPECT_TRUE(owner.send(header(99, 0, 0).bytes()));
        EXPECT_TRUE(has_dropped("type", 1));
        return ring();
    }

    void expect_one_line(const system_test::result &done, int status, const std::string &text)
    {
        EXPECT_EQ(done.status, status) << done.err;
        EXPECT_TRUE(is_one_line(done.err));
        EXPECT_THAT(done.err, HasSubstr(text));
        EXPECT_EQ(done.out, "");
    }

private:
    std::optional<raw_peer> m_owner; /* stays, or its going would be the last record */
};

} // namespace

TEST_F(recorded, everything_is_in_the_ring_of_a_process_that_was_killed)
{
    const std::string path = make_history();
    m_daemon->send_signal(SIGKILL);
    ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    const std::vector<json> found = rows({"--read", path});
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[0]["kind"], "up");
    EXPECT_EQ(found[1]["type"], "CREATE");
    EXPECT_EQ(found[1]["direction"], "to_process");
    EXPECT_EQ(found[1]["count"], 2);
    EXPECT_EQ(found[1]["flag_names"], json({"begin", "end"}));
    EXPECT_EQ(found[1]["length"], 16 + 2 * (4 + 616 + 16));
    EXPECT_EQ(found[1]["records"][1]["handle"], 0x12);
    EXPECT_TRUE(found[1]["records"][1].contains("definition"));
    EXPECT_EQ(found[2]["type"], "PROV");
    EXPECT_EQ(found[2]["direction"], "to_owner");
    EXPECT_EQ(found[2]["status"], 0);
    EXPECT_EQ(found[2]["records"][0]["data"]["common"][2], 0x11);
    EXPECT_EQ(found[3]["type"], 99);
    EXPECT_EQ(found[3]["malformed"], "unknown message type");
    for (size_t i = 0; i < found.size(); i++) {
        EXPECT_EQ(found[i]["number"], i);
        EXPECT_EQ(found[i]["owner"], 1);
        EXPECT_EQ(found[i]["class"], 3);
        EXPECT_EQ(found[i]["pid"], getpid());
    }
}

TEST_F(recorded, a_ring_becomes_a_pcapng_file_that_says_the_same)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    EXPECT_EQ(rows({"--read", file}), rows({"--read", path}));
    EXPECT_EQ(rows({"--read", file}), rows({"--history", "--count", "4"})) << "and so does the process";
}

TEST_F(recorded, lines_are_for_people)
{
    const std::string path = make_history();
    const std::string all = monitor({"--read", path}).out;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 4);
    EXPECT_THAT(all, HasSubstr(" class 3 UP\n"));
    EXPECT_THAT(all, HasSubstr(" class 3 -> CREATE 2 ACs [begin,end] 1288 bytes\n"));
    EXPECT_THAT(all, HasSubstr(" class 3 <- PROV 2 ACs 80 bytes\n"));
    EXPECT_THAT(all, HasSubstr(" class 3 -> type 99 16 bytes MALFORMED: unknown message type\n"));
    const std::string more = monitor({"--read", path, "-v", "-x", "--type", "prov"}).out;
    EXPECT_THAT(more, HasSubstr("    handle=0x00000011 data=(common=1:"));
    EXPECT_THAT(more, HasSubstr("    00000  00 00 00 03 00 00 00 07 00 00 00 02 00 00 00 00\n"));
}

TEST_F(recorded, records_are_chosen)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(4);
    ASSERT_TRUE(one.send(create(3, {0x11}, 3)));
    ASSERT_TRUE(other.send(create(4, {0x12}, 3)));
    ASSERT_TRUE(holds(2));
    ASSERT_TRUE(other.send(remove({0x12})));
    ASSERT_TRUE(holds(1));
    const std::string path = ring();
    const std::string name = acs()[0]["name"];
    const auto count = [&](const std::vector<std::string> &choice) {
        std::vector<std::string> arguments = {"--read", path};
        arguments.insert(arguments.end(), choice.begin(), choice.end());
        return rows(arguments).size();
    };
    EXPECT_EQ(count({}), 5U);
    EXPECT_EQ(count({"--owner", "2"}), 3U);
    EXPECT_EQ(count({"--class", "3"}), 2U);
    EXPECT_EQ(count({"--type", "DELETE"}), 1U);
    EXPECT_EQ(count({"--handle", "0x12"}), 2U);
    EXPECT_EQ(count({"--handle", "0x12", "--type", "CREATE"}), 1U);
    EXPECT_EQ(count({"--name", name, "--class", "3"}), 1U);
    EXPECT_EQ(count({"--name", "nobody*"}), 0U);
    EXPECT_EQ(count({"--count", "2"}), 2U);
}

TEST_F(recorded, a_running_process_is_followed)
{
    start();
    const std::string file = m_dir.file("live.pcapng");
    system_test::child seen(system_test::binary("l2vpnctl"),
                            {"monitor", "--runtime-dir", m_dir.path(), "--history", "--count", "3"});
    system_test::child kept(system_test::binary("l2vpnctl"),
                            {"capture", "--runtime-dir", m_dir.path(), "--history", "-w", file});
    raw_peer owner = peer(3);
    ASSERT_TRUE(seen.says(" class 3 UP\n"));
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    owner.close();
    EXPECT_EQ(seen.wait(), 0) << seen.err();
    EXPECT_THAT(seen.out(), HasSubstr("-> CREATE 1 AC "));
    EXPECT_THAT(seen.out(), HasSubstr(" class 3 DOWN\n"));
    ASSERT_TRUE(becomes_readable(file, 3));
    kept.send_signal(SIGINT);
    EXPECT_EQ(kept.wait(), 0) << kept.err();
    EXPECT_EQ(kept.err(), "") << "no progress is shown where there is no terminal";
    EXPECT_EQ(rows({"--read", file}).size(), 3U);
}

/* Two threads that record at once take numbers and places in the ring in different order; a clock is set back. */
TEST_F(recorded, order_is_that_of_the_numbers)
{
    const std::string path = make_history();
    m_daemon->send_signal(SIGKILL);
    ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    std::string content = system_test::read_file(path);
    const auto at = [](size_t slot) { return 4096 + slot * 256 + 16; };
    const auto number = [&](size_t slot) -> char & { return content.at(at(slot) + 16 + 32 + 7); };
    constexpr size_t third = 7; /* behind one slot of the first record and six of the second */
    constexpr size_t fourth = 8;
    ASSERT_EQ(number(third), 2);
    ASSERT_EQ(number(fourth), 3);
    std::swap(number(third), number(fourth));
    content.replace(at(third), 8, 8, '\0'); /* its time */
    const std::string swapped = m_dir.write("swapped.ring", content);
    const std::vector<json> found = rows({"--read", swapped});
    ASSERT_EQ(found.size(), 4U);
    for (size_t i = 0; i < found.size(); i++) {
        EXPECT_EQ(found[i]["number"], i);
    }
    EXPECT_THAT(found[3]["time"].get<std::string>(), HasSubstr("1970-"));
    const std::vector<json> both = rows({"--read", swapped, "--read", path});
    EXPECT_EQ(both.size(), 8U) << "and no losses";
}

TEST_F(recorded, records_and_protections_are_chosen_by_handle_and_name)
{
    start();
    raw_peer owner = peer(3);
    const octets state = header(11, 1, 3).u32(0x21).raw(octets(92)).bytes();
    const octets root = header(14, 1, 3).u32(0x22).raw(octets(4)).bytes();
    const octets protection = header(12, 0, 0).raw({'e', 'a', 's', 't'}).raw(octets(68)).bytes();
    for (const octets &message : {state, root, protection}) {
        ASSERT_TRUE(owner.send(message));
    }
    const std::string path = ring();
    ASSERT_TRUE(becomes_readable(path, 4));
    const auto types = [&](const std::string &option, const std::string &value) {
        std::string found;
        for (const json &row : rows({"--read", path, option, value})) {
            found += row["type"].get<std::string>() + " ";
        }
        return found;
    };
    EXPECT_EQ(types("--handle", "0x21"), "STATE ");
    EXPECT_EQ(types("--handle", "0x22"), "IS_ROOT ");
    EXPECT_EQ(types("--name", "ea*"), "PROTECTED ");
}

/* Nobody waits for a reader that has stopped, which is told what it has missed. */
TEST_F(recorded, a_reader_that_stops_holds_up_nobody)
{
    start({"--capture-size", "64"});
    system_test::child seen(system_test::binary("l2vpnctl"),
                            {"monitor", "--runtime-dir", m_dir.path(), "--history", "--json"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(seen.says("\"kind\":\"up\""));
    seen.send_signal(SIGSTOP);
    constexpr uint64_t messages = 2000;
    constexpr uint64_t slots = 256;
    for (uint64_t i = 0; i < messages; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("JOIN", uint64_t{0}) == messages; }));
    m_daemon->send_signal(SIGKILL);
    ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    seen.send_signal(SIGCONT);
    EXPECT_EQ(seen.wait(), 4) << seen.err();
    const std::vector<json> found = parsed(seen.out());
    ASSERT_EQ(found.size(), 1 + 1 + slots);
    EXPECT_EQ(found[1], json({{"lost", messages - slots}}));
    EXPECT_EQ(found.back()["number"], messages);
}

TEST_F(recorded, the_end_of_the_process_ends_what_follows_it)
{
    start();
    system_test::child seen(system_test::binary("l2vpnctl"),
                            {"monitor", "--runtime-dir", m_dir.path(), "--history"});
    const raw_peer owner = peer(3);
    ASSERT_TRUE(seen.says(" class 3 UP\n"));
    m_daemon->send_signal(SIGKILL);
    EXPECT_EQ(seen.wait(), 4);
    EXPECT_THAT(seen.err(), HasSubstr("the process that was followed has ended: l2vpnd-"));
}

TEST_F(recorded, captures_are_bounded)
{
    start({"--capture-size", "4096"});
    raw_peer owner = peer(8);
    const octets message = create(8, handles_from(0x100, 20));
    constexpr uint64_t messages = 50;
    for (uint64_t i = 0; i < messages; i++) {
        ASSERT_TRUE(owner.send(message));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("CREATE", uint64_t{0}) == messages; }));
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", ring(), "--size", "1", "--files", "2"}).status, 0);
    const uint64_t room = (1 << 20) + message.size() + 1024;
    EXPECT_LE(fs::file_size(file), room);
    EXPECT_LE(fs::file_size(file + ".1"), room);
    EXPECT_FALSE(fs::exists(file + ".2"));
    const std::vector<json> older = rows({"--read", file + ".1"});
    const std::vector<json> newer = rows({"--read", file});
    EXPECT_EQ(newer.back()["number"], messages);
    EXPECT_EQ(newer.front()["number"], older.back()["number"].get<uint64_t>() + 1);

    const std::string full = m_dir.file("full.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", full, "--from-ring", ring(), "--size", "1", "--files", "1"}).status, 0);
    EXPECT_LE(fs::file_size(full), room);
    EXPECT_EQ(rows({"--read", full}).front()["number"], 0);
}

TEST_F(recorded, the_ring_of_the_process_is_as_large_as_it_is_told)
{
    start({"--capture-size", "64"});
    const std::string path = ring();
    EXPECT_EQ(fs::file_size(path), 4096 + 64 * 1024);
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777U, 0640U);
    raw_peer owner = peer(3);
    for (uint64_t i = 0; i < 2000; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("JOIN", uint64_t{0}) == 2000; }));
    EXPECT_EQ(fs::file_size(path), 4096 + 64 * 1024);
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    const json first = rows({"--read", path}).front();
    EXPECT_EQ(first, json({{"lost", 2001 - 256}})) << "256 slots of 2001 records";
    EXPECT_EQ(rows({"--read", file}).back(), first) << "which the file tells at its end";
    EXPECT_EQ(rows({"--read", file}).size(), 256 + 1U);
}

/* What is read is never written over, and what cannot be replaced is kept. */
TEST_F(recorded, a_capture_destroys_nothing)
{
    const std::string path = make_history();
    const std::string precious = m_dir.write("precious", "precious");
    expect_one_line(ctl({"capture", "--force", "-w", precious, "--from-ring", m_dir.file("typo")}), 1,
                    "typo: No such file");
    EXPECT_EQ(system_test::read_file(precious), "precious");
    expect_one_line(ctl({"capture", "--force", "-w", path}), 1,
                    path + ": a capture ring, which is not replaced");
    expect_one_line(ctl({"capture", "--force", "-w", path, "--from-ring", precious}), 1,
                    path + ": a capture ring, which is not replaced");
    EXPECT_EQ(rows({"--read", path}).size(), 4U);

    const std::string file = m_dir.file("a.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    const std::string whole = system_test::read_file(file);
    expect_one_line(ctl({"capture", "--force", "-w", file, "--from-ring", file}), 1,
                    file + ": is to be read, and cannot be written at the same time");
    fs::create_hard_link(file, m_dir.file("b.pcapng.1"));
    expect_one_line(ctl({"capture", "--force", "-w", m_dir.file("b.pcapng"), "--from-ring", file}), 1,
                    "b.pcapng.1: is to be read");
    EXPECT_EQ(system_test::read_file(file), whole);
    EXPECT_EQ(ask({"status"}).value("capture", ""), path) << "the process lives";
}

TEST_F(recorded, an_orderly_end_of_the_process_ends_the_links)
{
    start();
    const raw_peer owner = peer(3);
    const std::string path = ring();
    EXPECT_EQ(stop(), 0);
    const std::vector<json> found = rows({"--read", path});
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[1]["kind"], "down");
    EXPECT_EQ(found[1]["status"], ECANCELED);
}

TEST_F(recorded, a_restart_with_the_same_path_keeps_what_the_dead_process_recorded)
{
    const std::string path = m_dir.file("its.ring");
    for (const size_t life : {0U, 1U, 2U, 3U}) {
        start({"--capture", path, "--capture-size", "64"});
        for (size_t i = 0; i <= life; i++) {
            peer(3);
        }
        ASSERT_TRUE(eventually([&] { return rows({"--read", path}).size() == 2 * (life + 1); }));
        m_daemon->send_signal(SIGKILL);
        ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    }
    EXPECT_EQ(rows({"--read", path}).size(), 8U);
    EXPECT_EQ(rows({"--read", path + ".1"}).size(), 6U);
    EXPECT_EQ(rows({"--read", path + ".2"}).size(), 4U);
    EXPECT_FALSE(fs::exists(path + ".3"));
}

TEST_F(recorded, operators_are_told_the_whole_path)
{
    const fs::path path = fs::relative(m_dir.file("relative.ring"));
    start({"--capture", path.string(), "--capture-size", "64"});
    EXPECT_EQ(fs::path(ring()).is_absolute(), true) << ring();
    EXPECT_TRUE(fs::equivalent(ring(), m_dir.file("relative.ring")));
    m_daemon->send_signal(SIGKILL);
    m_daemon->wait();
}

TEST_F(recorded, the_rings_of_two_dead_processes_are_kept)
{
    std::vector<std::string> paths;
    for (int life = 0; life < 4; life++) {
        start({"--capture-size", "64"});
        paths.push_back(ring());
        m_daemon->send_signal(SIGKILL);
        ASSERT_EQ(m_daemon->wait(), -SIGKILL);
        fs::last_write_time(paths.back(), fs::file_time_type::clock::now() - std::chrono::hours(10 - life));
    }
    EXPECT_FALSE(fs::exists(paths[0]));
    EXPECT_TRUE(fs::exists(paths[1]) && fs::exists(paths[2]) && fs::exists(paths[3]));
}

TEST_F(recorded, what_is_no_file_is_never_renamed)
{
    start({"--capture-size", "4096"});
    raw_peer owner = peer(8);
    const octets message = create(8, handles_from(0x100, 20));
    constexpr uint64_t messages = 50;
    for (uint64_t i = 0; i < messages; i++) {
        ASSERT_TRUE(owner.send(message));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("CREATE", uint64_t{0}) == messages; }));
    const std::string link = m_dir.file("link");
    fs::create_symlink("/dev/null", link);
    const system_test::result done =
        ctl({"capture", "--force", "-w", link, "--from-ring", ring(), "--size", "1"});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_FALSE(fs::exists(link + ".1"));
    fs::create_symlink("/dev/null", link + ".2");
    expect_one_line(ctl({"capture", "--force", "-w", link, "--from-ring", ring(), "--size", "1"}), 1,
                    link + ".2: there already and not a file");
}

TEST_F(recorded, output_that_cannot_be_written_has_one_line)
{
    const std::string path = make_history();
    const system_test::result done =
        system_test::run("/bin/sh", {"-c", "exec " + system_test::binary("l2vpnctl") + " monitor --read " +
                                               path + " >/dev/full"});
    expect_one_line(done, 1, "cannot write to standard output: No space left on device");
}

TEST_F(recorded, a_process_that_keeps_no_ring_says_so)
{
    start({"--capture", "off"});
    EXPECT_EQ(ring(), "");
    expect_one_line(monitor({}), 1, "the process keeps no ring of its messages");
    EXPECT_EQ(stop(), 0);
    expect_one_line(monitor({}), 3, "L2VPN.ctl");
}

TEST_F(recorded, a_ring_that_cannot_be_made_stops_nothing)
{
    start({"--capture", m_dir.file("no/ring")});
    EXPECT_EQ(ring(), "");
    EXPECT_EQ(m_daemon->err(),
              "l2vpn: no capture ring: " + m_dir.file("no/ring") + ": No such file or directory\n");
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1})));
    EXPECT_TRUE(holds(1));
}

TEST_F(recorded, bad_input_has_one_clear_line)
{
    start();
    const std::string text = m_dir.write("text", "not a capture");
    const std::string there = m_dir.write("there.pcapng", "precious");
    const std::string no_folder = m_dir.file("no/x.pcapng");
    expect_one_line(monitor({"--read", m_dir.file("none")}), 1, m_dir.file("none") + ": No such file");
    expect_one_line(monitor({"--read", text}), 1, text + ": not a pcapng file");
    expect_one_line(monitor({"--read", m_dir.path()}), 1, m_dir.path() + ": Is a directory");
    expect_one_line(monitor({"--type", "NONE"}), 2, "no message type 'NONE'");
    expect_one_line(monitor({"--class", "18"}), 2, "18");
    expect_one_line(monitor({"--history", "--read", text}), 2, "--history");
    expect_one_line(ctl({"capture"}), 2, "--write");
    expect_one_line(ctl({"capture", "-w", there}), 1, there + ": there already (--force replaces it)");
    EXPECT_EQ(system_test::read_file(there), "precious");
    expect_one_line(ctl({"capture", "-w", no_folder}), 1, no_folder + ": No such file or directory");
    expect_one_line(ctl({"capture", "-w", m_dir.file("y"), "--from-ring", m_dir.file("none")}), 1,
                    "none: No such");
    expect_one_line(ctl({"capture", "-w", "/dev/full", "--force", "--count", "1", "--from-ring", ring()}), 1,
                    "/dev/full: cannot write: No space left on device");
    EXPECT_FALSE(fs::exists(m_dir.file("y")));
    EXPECT_EQ(stop(), 0);
    expect_one_line(ctl({"capture", "-w", m_dir.file("y")}), 3, "L2VPN.ctl");
    EXPECT_FALSE(fs::exists(m_dir.file("y")));
}

TEST_F(recorded, an_owner_keeps_the_beginnings_of_its_messages)
{
    start({"--auto-provision"});
    const std::string path = m_dir.file("owner.ring");
    const system_test::result done =
        system_test::run(system_test::binary("l2vpn-owner"),
                         {"-i", L2VPN_EXAMPLES "/inventory.csv", "-r", m_dir.path(), "--once"},
                         {"L2VPN_CAPTURE=" + path, "L2VPN_CAPTURE_SIZE=64"});
    ASSERT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(fs::file_size(path), 4096 + 64 * 1024);
    const std::vector<json> found = rows({"--read", path, "--type", "CREATE"});
    ASSERT_GE(found.size(), 9U) << "one a class";
    for (const json &row : found) {
        EXPECT_EQ(row["observer"], "owner");
        EXPECT_EQ(row["program"], "l2vpn-owner");
        EXPECT_EQ(row["recorded"], 160);
        EXPECT_GT(row["length"], 160);
        EXPECT_FALSE(row.contains("malformed"));
        EXPECT_TRUE(row["records"][0].contains("handle"));
    }
}
