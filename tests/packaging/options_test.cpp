// The file of options and SIGHUP, the log of a service, and what completes the command line.
#include "service.h"

#include <csignal>
#include <gmock/gmock.h>
#include <map>
#include <regex>
#include <set>
#include <unistd.h>

namespace {

using namespace process_test;
using system_test::binary;
using system_test::child;
using testing::HasSubstr;
using testing::StartsWith;

class options_test : public service_test {
protected:
    /* Has it read the file again; true when it has written this line. */
    bool reload_says(const std::string &line) const
    {
        m_daemon->send_signal(SIGHUP);
        return eventually([&] { return m_daemon->err().find(line) != std::string::npos; });
    }
};

TEST_F(options_test, a_reload_changes_what_can_change_and_loses_no_link)
{
    const std::string file = m_dir.write("options", "max-acs = 10\n");
    const auto write = [&](const std::string &text) { m_dir.write("options", text); };
    start_without_sockets({"--config", file});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(status()["max_acs"], 10);
    raw_peer owner(owners(), 3);
    ASSERT_TRUE(owner.send(create(3, {1})));
    EXPECT_TRUE(system_test::eventually([&] { return status()["acs"] == 1; }));
    EXPECT_EQ(status()["auto_provision"], false);

    write("max-acs = 10\nauto-provision = true\n");
    EXPECT_TRUE(reload_says("notice: read the options again: auto-provision is on, verbose is off\n"));
    EXPECT_EQ(status()["auto_provision"], true);
    ASSERT_TRUE(owner.send(create(3, {2})));
    const std::optional<octets> provision = owner.receive();
    ASSERT_TRUE(provision && provision->size() > 20);
    EXPECT_EQ((*provision)[7], 7);  // a provision message
    EXPECT_EQ((*provision)[19], 2); // of the new AC alone
    EXPECT_THAT(m_daemon->err(), testing::Not(HasSubstr("other options")));

    write("max-acs = 20\nverbose = true\n");
    EXPECT_TRUE(reload_says("warning: other options have changed, and count from the next start on\n"));
    EXPECT_EQ(status()["max_acs"], 10);
    EXPECT_EQ(status()["auto_provision"], false);
    EXPECT_TRUE(system_test::eventually(
        [&] { return m_daemon->err().find("control: status") != std::string::npos; }));

    write("auto-provision = true\nmax-bcs = 20\n");
    EXPECT_TRUE(reload_says("error: nothing is changed: " + file + ":2: "));
    EXPECT_EQ(status()["auto_provision"], false);
    unlink(file.c_str());
    EXPECT_TRUE(
        reload_says("error: nothing is changed: --config: " + file + ": No such file or directory\n"));
    EXPECT_EQ(status()["auto_provision"], false);

    const json now = status();
    EXPECT_EQ(now["owners"], 1);
    EXPECT_EQ(now["acs"], 2);
    ASSERT_TRUE(owner.send(create(3, {3}))); // over the same link
    EXPECT_TRUE(system_test::eventually([&] { return status()["acs"] == 3; }));
    EXPECT_EQ(stop(), 0);
}

TEST_F(options_test, a_bad_file_of_options_ends_the_start_in_one_line)
{
    const std::string no_line = "this is no NAME = VALUE";
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"max-acs = many", "max-acs"},
        {"max-acs = 99999999999999999999", "max-acs"},
        {"mtu = 1", "mtu"},
        {"max-acs = 0x", "max-acs"},
        {"max-acs = -1", "max-acs"},
        {"max-acs = 100000001", "max-acs"},
        {"max-acs = 18446744073709551617", "max-acs"}, // which is 1, cut to 64 bits
        {"nodeid = 4294967296", "nodeid"},
        {"max-bcs = 1", "max-bcs"},
        {"config = options", "config"},
        {"log = nowhere", "log"},
        {"auto-provision = 99999999999999999999", "auto-provision"},
        {"verbose = 0x", "verbose"},
        {"verbose = 2", "verbose"},
        {"max-owners = 8", "max-owners"}, // a second time
        {"verbose", no_line},
        {"verbose = \"\"", no_line},
        {"group = \"open", no_line},
        {"[", no_line},
        {"[l2vpnd]", no_line},
        {"=", no_line},
        {"= 1", no_line},
        {"\"", no_line},
        {std::string("\0\x1b[2J\xff", 6), no_line},
    };
    const std::string file = m_dir.file("options");
    for (const auto &[line, wrong] : bad) {
        m_dir.write("options", "# a comment\n\nmax-owners = 7\n" + line + "\nverbose = true\n");
        start_without_sockets({"--config", file});
        EXPECT_EQ(m_daemon->wait(), 2) << line;
        EXPECT_EQ(m_daemon->out(), "");
        EXPECT_TRUE(is_one_line(m_daemon->err()));
        EXPECT_THAT(m_daemon->err(), StartsWith("l2vpnd: " + file + ":4: ")) << line;
        EXPECT_THAT(m_daemon->err(), HasSubstr(wrong)) << line;
    }
    start_without_sockets({"--config", m_dir.file("none")});
    EXPECT_EQ(m_daemon->wait(), 2);
    EXPECT_TRUE(is_one_line(m_daemon->err()));
    EXPECT_THAT(m_daemon->err(), HasSubstr(m_dir.file("none")));
}

TEST_F(options_test, takes_a_file_of_options_as_it_is_written_by_hand)
{
    const std::string file = m_dir.write("options", "; options\r\n  max-acs=0x10   # sixteen\n"
                                                    "max-owners = \"5\" # five\nauto-provision = yes");
    start_without_sockets({"--config", file});
    ASSERT_TRUE(serves()) << m_daemon->err();
    const json now = status();
    EXPECT_EQ(now["max_acs"], 16);
    EXPECT_EQ(now["max_owners"], 5);
    EXPECT_EQ(now["auto_provision"], true);
    EXPECT_EQ(stop(), 0);
}

TEST_F(options_test, a_leading_zero_makes_no_octal_number)
{
    const std::string file = m_dir.write("options", "max-acs = 0100\n");
    start_without_sockets({"--config", file, "--max-owners", "0010"});
    ASSERT_TRUE(serves()) << m_daemon->err();
    const json now = status();
    EXPECT_EQ(now["max_acs"], 100);
    EXPECT_EQ(now["max_owners"], 10);
    EXPECT_EQ(stop(), 0);
}

TEST_F(options_test, the_command_line_wins_over_the_file)
{
    start_without_sockets(
        {"--config", m_dir.write("options", "max-acs = 10\nmax-owners = 5\n"), "--max-acs", "11"});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(status()["max_acs"], 11);
    EXPECT_EQ(status()["max_owners"], 5);
    EXPECT_EQ(stop(), 0);
}

TEST_F(options_test, lines_have_their_level_where_they_go_to_the_journal)
{
    const std::string file = m_dir.write("options", "verbose = true\n");
    const auto start = [&](const std::string &stream) {
        const std::vector<std::string> arguments = {"-c",
                                                    R"(export JOURNAL_STREAM=)" + stream +
                                                        R"(; exec "$0" "$@")",
                                                    binary("l2vpnd"),
                                                    "--runtime-dir",
                                                    runtime_dir(),
                                                    "--nodeid",
                                                    "7",
                                                    "--config",
                                                    file};
        m_daemon = std::make_unique<child>("/bin/bash", arguments);
    };
    start("$(stat -L -c %d:%i /dev/fd/2)");
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_TRUE(reload_says("<5>l2vpnd: notice: read the options again"));
    m_dir.write("options", "garbage\n");
    EXPECT_TRUE(reload_says("<3>l2vpnd: error: nothing is changed: "));
    EXPECT_EQ(stop(), 0);
    EXPECT_THAT(m_daemon->err(), StartsWith("<"));
    EXPECT_THAT(m_daemon->err(), testing::Not(HasSubstr("\nl2vpnd")));

    start("$(stat -L -c %d:%i /dev/fd/2)");
    EXPECT_EQ(m_daemon->wait(), 2);
    EXPECT_THAT(m_daemon->err(), StartsWith("<3>l2vpnd: " + file + ":1: "));

    start("1:1"); // of a service that this was started from
    EXPECT_EQ(m_daemon->wait(), 2);
    EXPECT_THAT(m_daemon->err(), StartsWith("l2vpnd: " + file + ":1: "));
}

/* Each behind a pattern that says where one may stand. */
std::set<std::string> options_in(const std::string &text, const std::string &before)
{
    const std::regex option(before + "(--[a-z-]+)");
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

TEST(completion, offers_what_help_lists)
{
    const system_test::temp_dir dir;
    const std::map<std::string, std::string> files_behind = {
        {"l2vpnd", "--config"}, {"l2vpn-trace", "--json"}, {"l2vpn-owner", "--mstp"}};
    for (const auto &row : files_behind) {
        const std::string &program = row.first;
        const std::string script = L2VPN_COMPLETIONS + ("/" + program);
        const auto complete = [&](const std::string &before, const std::string &begun,
                                  const std::string &compopt = ":") {
            return system_test::run("/bin/bash", {"-c",
                                                  R"(source "$0"; COMP_WORDS=($1 "$2"); )"
                                                  R"(tell=$4; compopt() { $tell "$@"; }; )"
                                                  R"(COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); )"
                                                  R"($(complete -p "$3" | sed -E 's/.* -F ([^ ]+).*/\1/'); )"
                                                  R"(echo "${COMPREPLY[@]}")",
                                                  script, before, begun, program, compopt})
                .out;
        };
        EXPECT_EQ(options_in(complete(program, "--"), ""),
                  options_in(system_test::run(binary(program), {"--help"}).out, "\n  (?:-[a-z],)?"));
        EXPECT_EQ(complete(program, "--h"), "--help\n");
        const std::string file = dir.write("only.trace", "");
        EXPECT_EQ(complete(program, dir.file("on")), program != "l2vpn-trace" ? "\n" : file + "\n");
        const system_test::result how =
            system_test::run("/bin/bash", {"-c", "source \"$0\"; complete -p \"$1\"", script, program});
        EXPECT_EQ(how.out.find("filenames"), std::string::npos) << "a value would be one, too: " << how.out;
        EXPECT_THAT(complete(program + " " + row.second, "", "echo"), StartsWith("-o filenames\n"));
        const system_test::result full =
            system_test::run("/bin/sh", {"-c", "exec \"$0\" --help >/dev/full", binary(program)});
        EXPECT_EQ(full.status, 1) << program;
        EXPECT_TRUE(is_one_line(full.err)) << full.err;
        EXPECT_THAT(full.err, StartsWith(program + ": cannot write "));
        const system_test::result version = system_test::run(binary(program), {"--version"});
        EXPECT_EQ(version.status, 0);
        EXPECT_THAT(version.out, StartsWith(program + " 1."));
    }
}

} // namespace
