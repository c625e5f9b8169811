/*
 * l2vpnctl: what it prints, and how it fails.
 */
#include "ctl_test.h"
#include "table.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace process_test;

namespace {

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

/* In words of its own, and not those of a library. */
TEST(ctl, says_when_an_answer_is_not_as_it_should_be)
{
    for (const char *said :
         {R"({"ok":"yes","result":{}})", R"({"ok":null})", R"({"ok":false,"error":"no"})",
          R"({"ok":false,"error":{"code":1,"text":"no"}})", R"({"ok":false,"error":{"code":"no","text":1}})",
          R"({"ok":true,"result":"all is well"})", R"({"rows":1})", R"({"rows":["first"]})"}) {
        const system_test::temp_dir dir;
        const impostor other(dir.path(), std::string(said) + "\n", impostor::then::close);
        SCOPED_TRACE(said);
        expect_failure(run_ctl({"--runtime-dir", dir.path(), "show", "acs"}), 4,
                       dir.file("L2VPN.ctl") + ": its answer is not as it should be\n");
    }
}

/* Also where it is looked at later, by verbs that do more than print it. */
TEST(ctl, says_when_an_answer_lacks_something_or_has_it_otherwise)
{
    struct odd {
        std::vector<std::string> verb;
        std::string row;
        std::string result;
    };
    const std::vector<odd> all = {
        {{"status"}, "", R"({"uptime":"long"})"},
        {{"provision", "--all"}, "", "{}"},
        {{"show", "acs"}, R"({"owner":"me"})", "{}"},
        {{"monitor"}, "", R"({"capture":5})"},
        {{"capture", "-w", "none.pcapng"}, "", R"({"capture":[]})"},
        {{"explain", "some"}, R"({"name":"some"})", "{}"},
        {{"explain", "some"}, R"({"node":"1","class":3,"handle":1,"name":"some","owner":1})", "{}"},
        {{"top", "--once"}, R"({"owner":1,"changes":2})", "{}"},
        {{"top", "--once", "--json"}, R"({"owner":"one"})", "{}"},
    };
    for (const odd &one : all) {
        const system_test::temp_dir dir;
        const std::string rows = one.row.empty() ? "" : R"({"rows":[)" + one.row + "]}\n";
        const impostor other(dir.path(), rows + R"({"ok":true,"result":)" + one.result + "}\n",
                             impostor::then::close);
        SCOPED_TRACE(one.verb[0] + " " + one.row + one.result);
        std::vector<std::string> arguments = one.verb;
        arguments.insert(arguments.end(), {"--runtime-dir", dir.path()});
        expect_failure(run_ctl(arguments), 4,
                       "l2vpnd at " + dir.file("L2VPN.ctl") + ": its answer is not as it should be\n");
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
