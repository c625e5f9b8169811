/*
 * Recorded messages as operators get them: l2vpnctl monitor and capture.
 */
#include "recorded.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>

using namespace process_test;
namespace fs = std::filesystem;

TEST_F(recorded, a_ring_becomes_a_pcapng_file_that_says_the_same)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    EXPECT_EQ(rows({"--read", file}), rows({"--read", path}));
    EXPECT_EQ(rows({"--read", file}), rows({"--history", "--count", "4"})) << "and so does the process";
}

TEST_F(recorded, a_beginning_that_is_lost_is_told_once)
{
    start({"--capture-size", "64"});
    raw_peer owner = peer(3);
    for (uint32_t i = 0; i < 300; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("JOIN", uint64_t{0}) == 300; }));
    const std::string path = ring();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    const std::vector<json> all = rows({"--read", path});
    ASSERT_EQ(all.size(), 257U);
    EXPECT_EQ(all[0], json({{"lost", 45}}));
    EXPECT_EQ(rows({"--read", file}), all);
    for (const std::string &from : {path, file}) {
        const json told = json::parse(ctl({"explain", "0x11", "--read", from, "--json"}).out);
        EXPECT_EQ(told["searched"][0]["overwritten"], 45) << from;
        EXPECT_EQ(told["searched"][0]["lost"], 0) << from;
    }
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
    EXPECT_EQ(both.size(), 6U) << "two are the same in either, and there are no losses";
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
    const auto overwritten = [&](const std::vector<std::string> &files) {
        std::vector<std::string> arguments = {"explain", "0x100", "--json"};
        for (const std::string &one : files) {
            arguments.insert(arguments.end(), {"--read", one});
        }
        std::vector<uint64_t> found;
        const json told = json::parse(ctl(arguments).out);
        for (const json &one : told["searched"]) {
            found.push_back(one["overwritten"]);
        }
        return found;
    };
    const uint64_t first = older.front()["number"];
    ASSERT_GT(first, 0U);
    EXPECT_EQ(overwritten({file}), std::vector<uint64_t>{newer.front()["number"]});
    EXPECT_EQ(overwritten({file, file + ".1"}), (std::vector<uint64_t>{0, first}))
        << "it is in the other part";

    const std::string full = m_dir.file("full.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", full, "--from-ring", ring(), "--size", "1", "--files", "1"}).status, 0);
    EXPECT_LE(fs::file_size(full), room);
    EXPECT_EQ(rows({"--read", full}).front()["number"], 0);
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

/* Of a pcapng file: where its packets begin. */
static std::vector<size_t> packets_in(const std::string &content)
{
    std::vector<size_t> found;
    for (size_t at = 0; at + 8 <= content.size();) {
        uint32_t block[2]{}; /* its type and its length */
        std::memcpy(block, &content[at], sizeof block);
        if (block[0] == 6) {
            found.push_back(at);
        }
        at += block[1];
    }
    return found;
}

TEST_F(recorded, what_is_sound_before_a_damaged_block_is_kept)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    const std::vector<json> all = rows({"--read", file});
    ASSERT_EQ(all.size(), 4U);
    std::string content = system_test::read_file(file);
    const std::vector<size_t> packets = packets_in(content);
    ASSERT_EQ(packets.size(), 4U);
    content[packets[3] - 1] ^= 1; /* the third one's second length */
    const std::string damaged = m_dir.write("damaged.pcapng", content);
    const std::string why =
        "damaged.pcapng: damaged: the block at byte " + std::to_string(packets[2]) + " has two lengths";

    const std::string kept = m_dir.file("kept.pcapng");
    expect_one_line(ctl({"capture", "-w", kept, "--from-ring", damaged}), 1, why);
    EXPECT_EQ(rows({"--read", kept}), std::vector<json>(all.begin(), all.begin() + 2));
    EXPECT_EQ(rows({"--read", damaged, "--count", "1"}), std::vector<json>(all.begin(), all.begin() + 1))
        << "what is behind it is no matter";
    const std::string both = m_dir.file("both.pcapng");
    expect_one_line(ctl({"capture", "-w", both, "--from-ring", damaged, "--from-ring", path}), 1, why);
    EXPECT_EQ(rows({"--read", both}).back(), all.back()) << "and all of the other one";

    content[packets[1] - 1] ^= 1;
    const std::string bad = m_dir.write("bad.pcapng", content);
    const std::string none = m_dir.file("none.pcapng");
    expect_one_line(ctl({"capture", "-w", none, "--from-ring", bad}), 1, "bad.pcapng: damaged: ");
    EXPECT_FALSE(fs::exists(none)) << "where nothing is sound nothing is made";
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

TEST_F(recorded, bad_input_has_one_clear_line)
{
    start();
    const std::string text = m_dir.write("text", "not a capture");
    const std::string there = m_dir.write("there.pcapng", "precious");
    const std::string no_folder = m_dir.file("no/x.pcapng");
    expect_one_line(monitor({"--read", m_dir.file("none")}), 1, m_dir.file("none") + ": No such file");
    expect_one_line(monitor({"--read", text}), 1, text + ": not a pcapng file");
    expect_one_line(monitor({"--read", m_dir.path()}), 1, m_dir.path() + ": Is a directory");
    const std::string pipe = m_dir.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    expect_one_line(monitor({"--read", pipe}), 1,
                    pipe +
                        ": not a file, and cannot be read more than once: write what comes from it to one");
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
