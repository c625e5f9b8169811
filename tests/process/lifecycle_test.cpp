/*
 * l2vpnd's beginning and end: what it leaves behind, what it refuses, and how it says so.
 */
#include "daemon.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace process_test;
namespace fs = std::filesystem;

namespace {

system_test::result run_daemon(const std::vector<std::string> &arguments)
{
    return system_test::run(system_test::binary("l2vpnd"), arguments);
}

/* Root as it is without its power over files, everybody else as they are. */
system_test::result run_without_power(const std::string &program, std::vector<std::string> arguments)
{
    if (geteuid() != 0)
        return system_test::run(program, arguments);
    arguments.insert(arguments.begin(), {"--bounding-set", "-dac_override,-dac_read_search", program});
    return system_test::run("/usr/bin/setpriv", arguments);
}

/* Sockets only: an empty folder is all that a clean end leaves. */
bool has_sockets(const std::string &dir)
{
    return fs::exists(dir + "/L2VPN.sock") || fs::exists(dir + "/L2VPN.ctl");
}

} // namespace

TEST_F(daemon_test, says_why_a_file_of_options_cannot_be_read)
{
    const std::string hidden = m_dir.write("hidden", "max-acs = 1\n");
    ASSERT_EQ(chmod(hidden.c_str(), 0), 0);
    for (const auto &[file, why] : {std::pair{m_dir.file("none"), "No such file or directory"},
                                    {hidden + "/none", "Not a directory"},
                                    {m_dir.path(), "Is a directory"},
                                    {hidden, "Permission denied"}}) {
        const system_test::result got = run_without_power(system_test::binary("l2vpnd"),
                                                          {"--runtime-dir", m_dir.path(), "--config", file});
        EXPECT_EQ(got.status, 2);
        EXPECT_EQ(got.out, "");
        EXPECT_EQ(got.err, "l2vpnd: --config: " + file + ": " + why + " (see l2vpnd --help)\n");
    }
}

TEST_F(daemon_test, ends_cleanly_on_sigterm)
{
    start();
    raw_peer owner = peer(3);
    EXPECT_TRUE(has_sockets(m_dir.path()));
    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(has_sockets(m_dir.path()));
    EXPECT_TRUE(owner.ended());
    EXPECT_EQ(m_daemon->err(), "");
}

TEST_F(daemon_test, ends_cleanly_on_sigint_and_when_its_terminal_goes)
{
    for (const int signal : {SIGINT, SIGHUP}) {
        start();
        m_daemon->send_signal(signal);
        EXPECT_EQ(m_daemon->wait(), 0);
        EXPECT_FALSE(has_sockets(m_dir.path()));
        EXPECT_EQ(m_daemon->err(), "");
    }
}

TEST_F(daemon_test, stays_on_sighup_where_there_is_a_file_to_read_again)
{
    start({"--config", m_dir.write("options", "")});
    m_daemon->send_signal(SIGHUP);
    EXPECT_TRUE(
        eventually([this] { return m_daemon->err().find("read the options again") != std::string::npos; }));
    EXPECT_EQ(ask({"status"})["nodeid"], 0x0a0b0c0d);
    EXPECT_EQ(stop(), 0);
}

TEST_F(daemon_test, takes_the_place_of_one_that_was_killed)
{
    start();
    m_daemon->send_signal(SIGKILL);
    EXPECT_EQ(m_daemon->wait(), -SIGKILL);
    EXPECT_TRUE(has_sockets(m_dir.path())) << "what this test is about";
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1})));
    EXPECT_TRUE(holds(1));
}

TEST_F(daemon_test, leaves_its_place_to_no_second_one)
{
    start();
    const system_test::result second = run_daemon({"--runtime-dir", m_dir.path(), "--nodeid", "1"});
    EXPECT_EQ(second.status, 3);
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(is_one_line(second.err));
    EXPECT_EQ(second.err.rfind("l2vpnd: ", 0), 0U);
    EXPECT_NE(second.err.find(socket_path()), std::string::npos);
    raw_peer owner = peer(3);
    EXPECT_EQ(ask({"status"})["nodeid"], 0x0a0b0c0d) << "the first one goes on, control socket and all";
}

TEST_F(daemon_test, obeys_its_options)
{
    start({"--mtu", "1000", "--max-acs", "3", "--max-owners", "1", "--max-mstp", "2"});
    raw_peer owner(socket_path(), 3, 7, 1000);
    const json status = ask({"status"});
    EXPECT_EQ(status["max_acs"], 3);
    EXPECT_EQ(status["max_owners"], 1);
    EXPECT_EQ(status["max_mstp"], 2);
    EXPECT_EQ(ask({"show", "clients"})["clients"][0]["mtu"], 1000);
    raw_peer second(socket_path());
    EXPECT_EQ(second.greet(3, 8, 1000), static_cast<uint32_t>(EUSERS));
    EXPECT_EQ(totals()["owners"]["refused"], 1);
}

TEST_F(daemon_test, refuses_class_15_and_what_is_no_class)
{
    start();
    for (const uint32_t class_id : {15U, 18U, 0xFFFFFFFFU}) {
        raw_peer owner(socket_path());
        EXPECT_EQ(owner.greet(class_id, 7, 65536), static_cast<uint32_t>(EINVAL)) << class_id;
        EXPECT_TRUE(owner.ended());
    }
    EXPECT_NE(m_daemon->err().find("no such class"), std::string::npos);
}

TEST(daemon_start, runs_in_a_folder_whose_name_is_no_utf8)
{
    const system_test::temp_dir dir;
    const std::string place = dir.file("caf\xe9");
    system_test::child daemon(system_test::binary("l2vpnd"), {"--runtime-dir", place, "--nodeid", "1"});
    ASSERT_TRUE(daemon.says("l2vpnd: ready on " + place + "/L2VPN.sock\n")) << daemon.err();
    for (const std::vector<std::string> &form : {std::vector<std::string>{}, {"--json"}}) {
        std::vector<std::string> arguments = {"status", "--runtime-dir", place};
        arguments.insert(arguments.end(), form.begin(), form.end());
        const system_test::result got = system_test::run(system_test::binary("l2vpnctl"), arguments);
        EXPECT_EQ(got.status, 0) << got.err;
    }
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(daemon_start, takes_a_relative_folder_as_it_is_meant)
{
    const system_test::temp_dir dir;
    const fs::path before = fs::current_path();
    fs::current_path(dir.path());
    system_test::child daemon(system_test::binary("l2vpnd"),
                              {"--runtime-dir", "run", "--nodeid", "1", "--capture-size", "64"});
    const bool ready = daemon.says("l2vpnd: ready on " + dir.path() + "/run/L2VPN.sock\n");
    const system_test::result asked =
        system_test::run(system_test::binary("l2vpnctl"), {"status", "--runtime-dir", "run"});
    fs::current_path(before);
    EXPECT_TRUE(ready) << daemon.out() << daemon.err();
    EXPECT_EQ(asked.status, 0) << asked.err;
    EXPECT_EQ(asked.err, "");
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(daemon.err(), "");
}

TEST(daemon_start, removes_nothing_but_a_socket)
{
    const system_test::temp_dir dir;
    const std::string file = dir.write("L2VPN.ctl", "somebody's");
    const std::vector<std::string> arguments = {"--runtime-dir", dir.path(), "--nodeid", "1"};
    const system_test::result got = run_daemon(arguments);
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, "");
    EXPECT_TRUE(is_one_line(got.err));
    EXPECT_NE(got.err.find(file), std::string::npos) << got.err;
    EXPECT_EQ(system_test::read_file(file), "somebody's");

    fs::remove(file);
    const std::string target = dir.write("target", "somebody's");
    fs::create_symlink(target, file);
    EXPECT_EQ(run_daemon(arguments).status, 1);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_EQ(system_test::read_file(target), "somebody's");
}

class bad_command_line : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(bad_command_line, of_l2vpnd_is_one_clear_line)
{
    const system_test::result got = run_daemon(GetParam());
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_TRUE(is_one_line(got.err));
    EXPECT_EQ(got.err.rfind("l2vpnd: ", 0), 0U) << got.err;
    EXPECT_NE(got.err.find(GetParam().front()), std::string::npos) << "it says what: " << got.err;
}

INSTANTIATE_TEST_SUITE_P(
    daemon, bad_command_line,
    testing::Values(std::vector<std::string>{"--unknown"}, std::vector<std::string>{"word"},
                    std::vector<std::string>{"--nodeid", "many"}, std::vector<std::string>{"--nodeid", "-1"},
                    std::vector<std::string>{"--nodeid", "4294967295"},
                    std::vector<std::string>{"--mtu", "15"}, std::vector<std::string>{"--mtu", "2000000"},
                    std::vector<std::string>{"--max-acs", "0"},
                    std::vector<std::string>{"--max-acs", "4294967296"},
                    std::vector<std::string>{"--max-owners", "x"}, std::vector<std::string>{"--log", "paper"},
                    std::vector<std::string>{"--runtime-dir"},
                    std::vector<std::string>{"--runtime-dir", ""}));

TEST(daemon_start, failures_say_what_and_where)
{
    const system_test::temp_dir dir;
    const std::string file = dir.write("file", "not a folder");
    const std::string blocked = dir.file("blocked");
    fs::create_directories(blocked + "/L2VPN.sock");
    const struct {
        std::vector<std::string> arguments;
        std::string where;
    } rows[] = {
        {{"--runtime-dir", file}, file},
        {{"--runtime-dir", file + "/below"}, file},
        {{"--runtime-dir", dir.path() + "/" + std::string(120, 'x')}, "xxx"},
        {{"--runtime-dir", blocked}, blocked},
        {{"--runtime-dir", dir.path(), "--group", "no-such-group-here"}, "no-such-group-here"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> arguments = row.arguments;
        arguments.insert(arguments.end(), {"--nodeid", "1"});
        const system_test::result got = run_daemon(arguments);
        EXPECT_EQ(got.status, 1) << row.arguments[1];
        EXPECT_EQ(got.out, "");
        EXPECT_TRUE(is_one_line(got.err));
        EXPECT_NE(got.err.find(row.where), std::string::npos) << got.err;
    }
}

TEST(daemon_start, without_permission_is_one_clear_line)
{
    /* /proc takes no folder, whoever asks. */
    const system_test::result got = run_daemon({"--runtime-dir", "/proc/l2vpn", "--nodeid", "1"});
    EXPECT_EQ(got.status, 1);
    EXPECT_TRUE(is_one_line(got.err));
    EXPECT_NE(got.err.find("/proc/l2vpn"), std::string::npos);
}

TEST(daemon_start, in_a_folder_that_may_not_be_written_is_one_clear_line)
{
    const system_test::temp_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0500), 0);
    const std::string place = dir.file("run");
    const std::pair<const char *, std::vector<std::string>> programs[] = {
        {"l2vpnd", {"--runtime-dir", place, "--nodeid", "1"}},
        {"l2vpnctl", {"--runtime-dir", place, "status"}},
    };
    for (const auto &[name, arguments] : programs) {
        const system_test::result got = run_without_power(system_test::binary(name), arguments);
        EXPECT_GT(got.status, 0) << name;
        EXPECT_TRUE(is_one_line(got.err)) << got.err;
        EXPECT_NE(got.err.find(place), std::string::npos) << got.err;
    }
    ASSERT_EQ(chmod(dir.path().c_str(), 0700), 0);
}

TEST(daemon_start, of_a_socket_that_may_not_be_opened_is_one_clear_line)
{
    const system_test::temp_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0), 0);
    const system_test::result got =
        run_without_power(system_test::binary("l2vpnctl"), {"--runtime-dir", dir.path(), "status"});
    ASSERT_EQ(chmod(dir.path().c_str(), 0700), 0);
    EXPECT_GT(got.status, 0);
    EXPECT_TRUE(is_one_line(got.err)) << got.err;
    EXPECT_NE(got.err.find("Permission denied"), std::string::npos) << got.err;
}

TEST(daemon_start, help_and_version)
{
    const system_test::result help = run_daemon({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *option : {"--runtime-dir", "--nodeid", "--mtu", "--auto-provision", "--max-acs",
                               "--max-owners", "--log", "--verbose", "--version"}) {
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    }
    const system_test::result version = run_daemon({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("l2vpnd ", 0), 0U);
}
