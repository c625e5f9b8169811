/*
 * l2vpnctl: what it prints, and how it fails.
 */
#include "daemon.h"
#include "table.h"

#include <algorithm>
#include <fcntl.h>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace process_test;

namespace {

system_test::result run_ctl(const std::vector<std::string> &arguments)
{
    return system_test::run(system_test::binary("l2vpnctl"), arguments);
}

void expect_failure(const system_test::result &got, int status, const std::string &text)
{
    EXPECT_EQ(got.status, status) << got.err;
    EXPECT_EQ(got.out, "");
    EXPECT_TRUE(is_one_line(got.err));
    EXPECT_EQ(got.err.rfind("l2vpnctl: ", 0), 0U) << got.err;
    EXPECT_NE(got.err.find(text), std::string::npos) << got.err;
}

/* Something at the control socket that is no l2vpnd: takes one connection, says `text`, and closes or waits. */
class impostor {
public:
    enum class then { close, wait, repeat };

    impostor(const std::string &dir, const std::string &text, then what)
        : m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (dir + "/L2VPN.ctl").copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(m_listener, 1) != 0) {
            throw std::runtime_error("cannot listen");
        }
        m_thread = std::thread([this, text, what] {
            const int fd = accept(m_listener, nullptr, nullptr);
            char request[4096];
            if (recv(fd, request, sizeof request, 0) > 0) {
                while (send(fd, text.data(), text.size(), MSG_NOSIGNAL) >= 0 && what == then::repeat) {
                }
            }
            while (what == then::wait && recv(fd, request, sizeof request, 0) > 0) {
            }
            ::close(fd);
        });
    }
    ~impostor()
    {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        ::close(m_listener);
    }
    impostor(const impostor &) = delete;
    impostor &operator=(const impostor &) = delete;

private:
    int m_listener;
    std::thread m_thread;
};

} // namespace

TEST(ctl, says_when_there_is_no_process)
{
    const system_test::temp_dir dir;
    expect_failure(run_ctl({"--runtime-dir", dir.path(), "status"}), 3, dir.file("L2VPN.ctl"));
    dir.write("L2VPN.ctl", "");
    expect_failure(run_ctl({"--runtime-dir", dir.path(), "status"}), 3, "Connection refused");
    expect_failure(run_ctl({"--runtime-dir", dir.path() + "/" + std::string(120, 'x'), "status"}), 1, "xxx");
}

TEST(ctl, says_what_is_wrong_with_the_command_line)
{
    const std::pair<std::vector<std::string>, const char *> rows[] = {
        {{}, "subcommand"},
        {{"frobnicate"}, "frobnicate"},
        {{"show"}, "subcommand"},
        {{"show", "everything"}, "everything"},
        {{"show", "acs", "--class", "18"}, "--class"},
        {{"show", "acs", "--class", "x"}, "--class"},
        {{"show", "acs", "--class", "15"}, "no class 15"},
        {{"show", "acs", "--class", "021"}, "no class 21"},
        {{"monitor", "--class", "15"}, "no class 15"},
        {{"explain", "--class", "15", "a"}, "no class 15"},
        {{"show", "acs", "--owner", "99999999999999999999"}, "--owner"},
        {{"show", "acs", "--owner", "18446744073709551616"}, "--owner"},
        {{"show", "acs", "--node", "0x100000000"}, "--node"},
        {{"show", "acs", "--node", "0x"}, "--node"},
        {{"show", "acs", "--node", "1e1"}, "--node"},
        {{"show", "acs", "--handle", "0b1"}, "--handle"},
        {{"notify", "bulk", "--all", "--record", "word=0x1ffffffff"}, "word=0x1ffffffff"},
        {{"capture", "-w", "x", "--files", "1001"}, "--files"},
        {{"capture", "-w", "x", "--size", "0"}, "--size"},
        {{"show", "acs", "--node", "-1"}, "--node"},
        {{"show", "acs", "--handle", "4294967296"}, "--handle"},
        {{"show", "acs", "--state", "asleep"}, "--state"},
        {{"show", "acs", "--unknown"}, "--unknown"},
        {{"show", "acs", "--name"}, "--name"},
        {{"status", "--timeout", "0"}, "--timeout"},
        {{"status", "--color", "pink"}, "--color"},
        {{"notify"}, "subcommand"},
        {{"notify", "bulk"}, "--record"},
        {{"notify", "bulk", "--all", "--record", "word"}, "word"},
        {{"notify", "bulk", "--all", "--record", "word=x"}, "word=x"},
        {{"notify", "bulk", "--all", "--record", "what=1"}, "what"},
        {{"notify", "bulk", "--all", "--record", "word=1,word=2"}, "twice"},
        {{"notify", "header", "--word2", "x"}, "--word2"},
    };
    for (const auto &[arguments, text] : rows) {
        expect_failure(run_ctl(arguments), 2, text);
    }
}

namespace {

using words = std::vector<std::string>;

std::string help_of(words verb)
{
    verb.emplace_back("--help");
    const system_test::result help = run_ctl(verb);
    EXPECT_EQ(help.status, 0) << help.err;
    EXPECT_EQ(help.err, "");
    return help.out;
}

/* Where `pattern` matches, its groups. */
std::vector<std::smatch> matches(const std::string &text, const std::regex &pattern)
{
    return {std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()};
}

std::set<std::string> verbs_in(const std::string &help)
{
    static const std::regex verb("\n  ([a-z][a-z-]*) ");
    std::set<std::string> found;
    const size_t list = help.find("\nSubcommands:\n");
    const std::string rest = list == std::string::npos ? "" : help.substr(list);
    for (const std::smatch &one : matches(rest, verb)) {
        found.insert(one[1]);
    }
    return found;
}

/* All that --help leads to, the program itself first. */
std::vector<words> every_verb(const words &above = {})
{
    std::vector<words> found = {above};
    for (const std::string &verb : verbs_in(help_of(above))) {
        words below = above;
        below.push_back(verb);
        const std::vector<words> more = every_verb(below);
        found.insert(found.end(), more.begin(), more.end());
    }
    return found;
}

std::string joined(const words &from)
{
    std::string out = "l2vpnctl";
    for (const std::string &word : from) {
        out += " " + word;
    }
    return out;
}

/* The long options in a text, each once. */
std::set<std::string> options_in(const std::string &text)
{
    static const std::regex option("(^|[ ,\n])(--[a-z0-9-]+)");
    std::set<std::string> found;
    for (const std::smatch &one : matches(text, option)) {
        found.insert(one[2]);
    }
    return found;
}

/* What is offered behind these words, in an empty folder. `compopt`: what it says when it is told options. */
std::set<std::string> completions_of(const std::string &line, const std::string &compopt = ":")
{
    const system_test::temp_dir dir;
    const system_test::result offered = system_test::run(
        "/bin/bash",
        {"-c",
         "cd \"$2\"; source \"$0\"; COMP_WORDS=($1 \"\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
         "tell=$3; compopt() { $tell \"$@\"; }; "
         "_l2vpnctl; echo \"${COMPREPLY[@]}\"",
         L2VPN_COMPLETION, line, dir.path(), compopt});
    EXPECT_EQ(offered.err, "");
    std::istringstream text(offered.out);
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
}

} // namespace

TEST(ctl, explains_every_verb)
{
    const std::vector<words> verbs = every_verb();
    EXPECT_GE(verbs.size(), 21U);
    for (const words &verb : verbs) {
        const std::string help = help_of(verb);
        EXPECT_NE(help.find("Usage: " + joined(verb) + " ["), std::string::npos) << help;
    }
}

TEST(ctl, completion_offers_what_help_lists)
{
    static const std::regex list("(--[a-z-]+) [A-Z]+:\\{([a-z,]+)\\}");
    const std::set<std::string> everywhere = options_in("--runtime-dir --json --color --timeout --help");
    for (const words &verb : every_verb()) {
        const std::string help = help_of(verb);
        std::set<std::string> expected = options_in(help);
        expected.insert(everywhere.begin(), everywhere.end());
        expected.merge(verbs_in(help));
        EXPECT_EQ(completions_of(joined(verb)), expected) << joined(verb);
        for (const std::smatch &one : matches(help, list)) {
            std::string values = one[2];
            std::replace(values.begin(), values.end(), ',', ' ');
            std::istringstream text(values);
            EXPECT_EQ(completions_of(joined(verb) + " " + one[1].str()),
                      std::set<std::string>(std::istream_iterator<std::string>(text), {}))
                << joined(verb) << one[1];
        }
    }
}

TEST(ctl, completion_offers_values_that_are_taken)
{
    const system_test::temp_dir dir;
    std::set<std::string> classes;
    for (int i = 0; i < 20; i++) {
        const std::string number = std::to_string(i);
        if (run_ctl({"--runtime-dir", dir.path(), "show", "acs", "--class", number}).status == 3) {
            classes.insert(number);
        }
    }
    EXPECT_EQ(completions_of("l2vpnctl show acs --class"), classes);
    std::set<std::string> types;
    for (uint32_t type = 0; type < l2vpnd::message_types; type++) {
        if (const char *name = l2vpnd::find_message(type)->name) {
            types.insert(name);
        }
    }
    EXPECT_EQ(completions_of("l2vpnctl monitor --type"), types);
}

/* Bash then quotes them, and adds a slash to a folder: as no verb or value may be changed. */
TEST(ctl, completion_says_which_are_names_of_files)
{
    const auto are_files = [](const std::string &line) {
        return completions_of(line, "echo").contains("filenames");
    };
    for (const char *line : {"monitor --read", "explain --also", "capture --write", "replay", "timeline",
                             "show acs --runtime-dir"}) {
        EXPECT_TRUE(are_files(std::string("l2vpnctl ") + line)) << line;
    }
    for (const char *line : {"", "show", "show acs --state", "monitor --type", "--color"}) {
        EXPECT_FALSE(are_files(std::string("l2vpnctl ") + line)) << line;
    }
    const system_test::result how =
        system_test::run("/bin/bash", {"-c", "source \"$0\"; complete -p l2vpnctl", L2VPN_COMPLETION});
    EXPECT_EQ(how.out, "complete -F _l2vpnctl l2vpnctl\n");
}

TEST(ctl, does_not_wait_for_ever)
{
    const system_test::temp_dir dir;
    const impostor mute(dir.path(), "", impostor::then::wait);
    expect_failure(run_ctl({"--runtime-dir", dir.path(), "--timeout", "200", "status"}), 4,
                   "no complete answer within 200 ms");
}

TEST(ctl, does_not_listen_for_ever)
{
    for (const char *said : {"{\"rows\":[]}\n", "{\"rows\":["}) {
        const system_test::temp_dir dir;
        const impostor talker(dir.path(), said, impostor::then::repeat);
        expect_failure(run_ctl({"--runtime-dir", dir.path(), "--timeout", "200", "status"}), 4,
                       "no complete answer within 200 ms");
    }
}

TEST(ctl, says_when_an_answer_breaks_off_or_is_none)
{
    for (const auto &[said, text] : {std::pair{"", "closed the connection"},
                                     {"{\"ok\":tr", "closed the connection"},
                                     {"hello\n", "no JSON object"},
                                     {"[1]\n", "no JSON object"}}) {
        const system_test::temp_dir dir;
        const impostor other(dir.path(), said, impostor::then::close);
        expect_failure(run_ctl({"--runtime-dir", dir.path(), "status"}), 4, text);
    }
}

TEST_F(daemon_test, ctl_prints_one_json_document_for_every_verb)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1}, 0x1)));
    ASSERT_TRUE(holds(1));
    for (const auto &[verb, rows, summary] : {std::tuple{"clients", "clients", "summary"},
                                              {"acs", "acs", "summary"},
                                              {"batches", "batches", "summary"},
                                              {"mstp", "mstp", "summary"},
                                              {"counters", "owners", "totals"}}) {
        const json document = ask({"show", verb});
        EXPECT_EQ(document.size(), 2U);
        EXPECT_TRUE(document[rows].is_array()) << verb;
        EXPECT_TRUE(document[summary].is_object()) << verb;
    }
    EXPECT_EQ(ask({"counters", "--owners"})["owners"].size(), 1U);
    const json status = ask({"status"});
    EXPECT_EQ(status["socket"], socket_path());
    EXPECT_EQ(status["control"], control_path());
    EXPECT_EQ(status["acs_by_class"], json({{"3", 1}}));
}

TEST_F(daemon_test, ctl_prints_tables_for_people)
{
    start();
    raw_peer owner = peer(3, 0x21);
    ASSERT_TRUE(owner.send(create(3, {1, 0xabcdef01}, 3, "eth")));
    ASSERT_TRUE(holds(2));
    const std::string table = ctl({"show", "acs"}).out;
    EXPECT_EQ(table.rfind("NODE        CLASS  HANDLE      NAME", 0), 0U) << table;
    EXPECT_NE(table.find("\n0x00000021      3  0xabcdef01  eth2882400001"), std::string::npos) << table;
    EXPECT_NE(table.find("\n2 ACs\n"), std::string::npos);
    EXPECT_EQ(table.find('\033'), std::string::npos) << "no colours where there is no terminal";
    EXPECT_NE(ctl({"show", "acs", "--color", "always"}).out.find("\033["), std::string::npos);
    EXPECT_NE(ctl({"show", "acs", "--raw"}).out.find("    info       0000  0102030405060708"),
              std::string::npos);
    EXPECT_EQ(ctl({"show", "clients"}).out.rfind("OWNER  NODE", 0), 0U);
    EXPECT_NE(ctl({"status"}).out.find("nodeid          0x0a0b0c0d\n"), std::string::npos);
    EXPECT_EQ(ctl({"show", "batches"}).out, "0 open batches\n");
    EXPECT_EQ(ctl({"provision", "--all"}).out, "2 ACs match: 2 accepted\n");
    EXPECT_EQ(ctl({"notify", "flags", "--all"}).out, "sent to 1 client\n");
    EXPECT_NE(ctl({"counters"}).out.find("created"), std::string::npos);
}

TEST_F(daemon_test, ctl_says_when_its_output_cannot_be_written)
{
    start();
    for (const char *format : {"--json", "--color=never"}) {
        const system_test::result got =
            system_test::run("/bin/sh", {"-c", "\"$0\" --runtime-dir \"$1\" \"$2\" status >/dev/full",
                                         system_test::binary("l2vpnctl"), m_dir.path(), format});
        EXPECT_EQ(got.status, 1);
        EXPECT_TRUE(is_one_line(got.err));
        EXPECT_NE(got.err.find("No space left"), std::string::npos) << got.err;
    }
}

/* A leading zero is nothing but a zero. */
TEST_F(daemon_test, ctl_takes_numbers_as_decimal_or_hexadecimal)
{
    start();
    raw_peer owner = peer(16, 10);
    ASSERT_TRUE(owner.send(create(16, {8, 10, 16})));
    ASSERT_TRUE(holds(3));
    for (const auto &[choice, expected] :
         {std::pair<std::vector<std::string>, std::vector<uint32_t>>{{"--handle", "010"}, {10}},
          {{"--handle", "0x10"}, {16}},
          {{"--handle", "0X0010"}, {16}},
          {{"--handle", "08"}, {8}},
          {{"--class", "016"}, {8, 10, 16}},
          {{"--class", "0x10"}, {8, 10, 16}},
          {{"--node", "0010"}, {8, 10, 16}},
          {{"--owner", "01"}, {8, 10, 16}}}) {
        words verb = {"show", "acs"};
        verb.insert(verb.end(), choice.begin(), choice.end());
        std::vector<uint32_t> found;
        const json document = ask(verb);
        for (const json &row : document["acs"]) {
            found.push_back(row["handle"]);
        }
        EXPECT_EQ(found, expected) << choice[0] << " " << choice[1];
    }
    EXPECT_EQ(ctl({"provision", "--handle", "010"}).status, 0);
    const json explained = ask({"explain", "010"});
    EXPECT_EQ(explained["ac"]["handle"], 10);
    EXPECT_TRUE(eventually([&] {
        return ask({"show", "acs", "--state", "provisioned"})["acs"].size() == 1;
    }));
    EXPECT_EQ(ask({"show", "acs", "--state", "provisioned"})["acs"][0]["handle"], 10);
    ASSERT_TRUE(owner.receive());
    ASSERT_EQ(ctl({"notify", "header", "--all", "--word2", "010", "--word3", "0x10"}).status, 0);
    const std::optional<octets> notice = owner.receive();
    ASSERT_TRUE(notice && notice->size() == 16);
    EXPECT_EQ((*notice)[11], 10);
    EXPECT_EQ((*notice)[15], 16);
}

TEST(table, keeps_within_the_width_where_it_can)
{
    l2vpnctl::table rows({{"A", true}, {"NAME", false, true}, {"B"}});
    rows.add({{"1"}, {std::string(40, 'n')}, {"end"}});
    rows.add({{"22"}, {"short"}, {"end"}});
    EXPECT_EQ(rows.print({false, 20}), " A  NAME         B\n"
                                       " 1  nnnnnnnnnn~  end\n"
                                       "22  short        end\n");
    EXPECT_EQ(rows.print({false, 5}), " A  NAME      B\n"
                                      " 1  nnnnnnn~  end\n"
                                      "22  short     end\n");
    EXPECT_NE(rows.print({false, 0}).find(std::string(40, 'n')), std::string::npos);
}

TEST_F(daemon_test, ctl_refuses_arguments_that_are_no_utf8)
{
    start();
    expect_failure(ctl({"show", "acs", "--name", "caf\xe9"}), 2, "\"name\" is not UTF-8");
    expect_failure(ctl({"notify", "bulk", "--all", "--record", "octets=\xff"}), 2, "not UTF-8");
    EXPECT_EQ(ctl({"show", "acs", "--name", "caf\xc3\xa9"}).status, 0);
}
