/*
 * Rings of processes: l2vpnd's, dead or alive, an owner's, and who follows them.
 */
#include "recorded.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>

using namespace process_test;
namespace fs = std::filesystem;

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
    EXPECT_EQ(rows({"--read", file}).front(), first);
    EXPECT_EQ(rows({"--read", file}).size(), 256 + 1U);
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

/* Its size alone asks for no ring. */
TEST_F(recorded, a_ring_is_made_on_a_full_disk_only_where_it_is_asked_for)
{
    const std::string file = m_dir.write("asks", "capture = on\n");
    struct {
        std::vector<std::string> options;
        bool asks;
    } const cases[] = {{{}, false}, {{"--capture=on"}, true}, {{"--config", file}, true}};
    for (const auto &[options, asks] : cases) {
        std::vector<std::string> arguments = {"--runtime-dir",  m_dir.path(), "--nodeid", "1",
                                              "--capture-size", "64"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        system_test::child daemon(system_test::binary("full_l2vpnd"), arguments);
        ASSERT_TRUE(daemon.says("l2vpnd: ready on ")) << daemon.err();
        EXPECT_EQ(ring().empty(), !asks);
        daemon.send_signal(SIGTERM);
        EXPECT_EQ(daemon.wait(), 0);
        EXPECT_EQ(daemon.err(), asks ? ""
                                     : "l2vpn: no capture ring: " + m_dir.path() +
                                           ": not 4 times the 64 KiB that it takes are free\n");
    }
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
