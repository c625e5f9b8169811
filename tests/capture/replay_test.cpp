/*
 * l2vpnctl replay: the owners of a capture speak again, to a process of its own or to a running one.
 */
#include "recorded.h"

#include <csignal>
#include <cstring>
#include <filesystem>

using namespace process_test;
namespace fs = std::filesystem;

namespace {

constexpr const char *same = "the tables are the same\n";

/* What a record's head begins with, in files: its version, kind, direction, observer, a zero, its length. */
const std::string message_to_process("\0\1\1\1\1\0\0\100", 8);
const std::string message_to_owner("\0\1\1\2\1\0\0\100", 8);
constexpr size_t pid_in_head = 16;
constexpr size_t time_before_head = 16; /* the upper half, of nanoseconds, in this machine's byte order */

class replay : public recorded {
protected:
    void SetUp() override { fs::create_directory(m_folder); }
    void TearDown() override { EXPECT_TRUE(fs::is_empty(m_folder)) << "something of a replay is left"; }

    std::vector<std::string> words(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "replay");
        arguments.insert(arguments.end(), {"--runtime-dir", m_dir.path()});
        return arguments;
    }
    system_test::result play(const std::vector<std::string> &arguments) const
    {
        return system_test::run(system_test::binary("l2vpnctl"), words(arguments), {"TMPDIR=" + m_folder});
    }
    json told(std::vector<std::string> arguments, int status = 0) const
    {
        arguments.emplace_back("--json");
        const system_test::result done = play(arguments);
        EXPECT_EQ(done.status, status) << done.err;
        json document = json::parse(done.out, nullptr, false);
        EXPECT_TRUE(document.is_object()) << done.out;
        return document;
    }
    void expect_same(const std::string &file, const std::string &what) const
    {
        const system_test::result done = play({file});
        EXPECT_EQ(done.status, 0) << done.err << done.out;
        EXPECT_EQ(done.err, "") << "no progress is shown where there is no terminal";
        EXPECT_THAT(done.out, HasSubstr(what));
        EXPECT_THAT(done.out, HasSubstr(same));
    }
    void expect_refused(const std::vector<std::string> &arguments, int status, const std::string &text)
    {
        expect_one_line(play(arguments), status, text);
    }

    /* The process's ring as a file, while its owners are still there. */
    std::string keep(const std::string &name = "x.pcapng") const
    {
        const std::string file = m_dir.file(name);
        const system_test::result done = ctl({"capture", "-w", file, "--from-ring", ring()});
        EXPECT_EQ(done.status, 0) << done.err;
        return file;
    }
    /* A copy in which something stands elsewhere than in the first record that begins with `head`. */
    std::string edited(const std::string &file, const std::string &head, size_t offset,
                       const std::string &bytes) const
    {
        std::string content = system_test::read_file(file);
        const size_t found = content.find(head);
        EXPECT_NE(found, std::string::npos);
        content.replace(found + offset, bytes.size(), bytes);
        return m_dir.write("edited.pcapng", content);
    }
    bool is_handled(uint64_t messages) const
    {
        return eventually([&] {
            const json status = ask({"status"});
            return status["messages"].get<uint64_t>() + status["dropped"].get<uint64_t>() == messages;
        });
    }

    const std::string m_folder = m_dir.file("tmp");
};

octets mstp(uint32_t type, uint32_t flags, const std::vector<octets> &records)
{
    builder message = header(type, static_cast<uint32_t>(records.size()), flags);
    for (const octets &record : records) {
        message.raw(record);
    }
    return message.bytes();
}

octets vlan(uint16_t msti, uint16_t id)
{
    return builder().u16(msti).u16(id).bytes();
}

octets by_handle(uint32_t handle, size_t size, uint8_t value)
{
    return builder().u32(handle).raw(octets(size - 4, value)).bytes();
}

octets protection(const std::string &name)
{
    octets bytes(name.begin(), name.end());
    bytes.resize(72, 0);
    return bytes;
}

} // namespace

TEST_F(replay, tables_are_the_same_after_everything_that_owners_say)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(8);
    const std::vector<octets> said = {
        header(0, 0, 0).bytes(),
        create(3, {0x11, 0x12, 0x13}, 1),
        create(3, {0x14}, 2),
        update(3, {0x12}, 9),
        remove({0x13}),
        header(99, 0, 0).bytes(), /* no message */
        create(3, {0x15, 0}, 3),  /* no handle */
        update(3, {0x99}, 1),     /* no such AC */
        mstp(9, 3, {vlan(1, 10), vlan(2, 20)}),
        mstp(9, 0, {vlan(3, 10)}),
        mstp(9, 1, {vlan(4, 40)}), /* of a batch that stays open */
        mstp(11, 3, {by_handle(0x11, 96, 1), by_handle(0x12, 96, 2)}),
        mstp(14, 3, {by_handle(0x11, 8, 1), by_handle(0x11, 8, 2)}),
        mstp(12, 0, {protection("east")}),
    };
    for (const octets &message : said) {
        ASSERT_TRUE(one.send(message));
    }
    ASSERT_TRUE(is_handled(said.size()));
    ASSERT_TRUE(other.send(create(8, {0x21, 0x22}, 1))); /* so is this one */
    ASSERT_TRUE(is_handled(said.size() + 1));
    ASSERT_EQ(ctl({"provision", "--handle", "0x11", "--handle", "0x12"}).status, 0);
    ASSERT_EQ(ctl({"unprovision", "--handle", "0x12"}).status, 0);
    ASSERT_TRUE(one.receive() && one.receive());
    const std::string shown = m_dir.write("acs.json", ctl({"show", "acs", "--raw", "--json"}).out);
    const std::string trees = m_dir.write("mstp.json", ctl({"show", "mstp", "--json"}).out);
    const std::string batches = m_dir.write("batches.json", ctl({"show", "batches", "--json"}).out);
    const std::string file = keep();

    expect_same(file, "19 records of 2 links replayed: 5 ACs, 7 spanning-tree records, 2 open batches\n");
    EXPECT_EQ(play({file, "--against", shown, "--against", trees, "--against", batches}).status, 0)
        << "what the process showed then is what the messages make again";
    const json document = told({file});
    EXPECT_EQ(document["same"], true);
    EXPECT_EQ(document["records"], 19);
    EXPECT_EQ(document["acs"], 5);
    EXPECT_EQ(document["lost"], 0);
    EXPECT_EQ(document["differences"], json::array());
    expect_same(ring(), "5 ACs, 7 spanning-tree records");
}

TEST_F(replay, the_first_message_after_which_tables_differ_is_found)
{
    start();
    raw_peer owner = peer(3);
    for (uint32_t handle = 0x11; handle < 0x19; handle++) {
        ASSERT_TRUE(owner.send(create(3, {handle})));
    }
    ASSERT_TRUE(owner.send(update(3, {0x11}, 7)));
    ASSERT_TRUE(is_handled(9));
    const std::string file = keep();
    const std::vector<std::string> narrow = {file, "--option", "max-acs=5", "--bisect"};
    const system_test::result done = play(narrow);
    EXPECT_EQ(done.status, 1) << done.err;
    EXPECT_EQ(done.err, "");
    EXPECT_THAT(done.out, HasSubstr("AC 0x00000016 of class 3, node 7 is missing\n"));
    EXPECT_THAT(done.out, HasSubstr("\n3 differences\n"));
    const std::string shown = monitor({"--read", file}).out;
    std::istringstream lines(shown);
    std::string line;
    for (int i = 0; i <= 6; i++) { /* UP, and the sixth CREATE */
        ASSERT_TRUE(std::getline(lines, line));
    }
    EXPECT_THAT(done.out, HasSubstr("the first record that makes one, number 6:\n" + line + "\n"));
    const json document = told(narrow, 1);
    EXPECT_EQ(document["same"], false);
    EXPECT_EQ(document["first"]["number"], 6);
    EXPECT_EQ(document["first"]["records"][0]["handle"], 0x16);
    EXPECT_EQ(document["differences"].size(), 3U);
    EXPECT_EQ(document["differences"][0]["table"], "acs");
    EXPECT_EQ(document["differences"][0]["expected"]["handle"], 0x16);
    EXPECT_EQ(document["differences"][0]["found"], nullptr);
    EXPECT_FALSE(told({file, "--bisect"}).contains("first"));
}

TEST_F(replay, every_kind_of_difference_has_its_words)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11, 0x12})));
    ASSERT_TRUE(owner.send(create(3, {0x13}, 1)));
    ASSERT_TRUE(is_handled(2));
    const std::string file = keep();
    /* ACs that are complete are provisioned by this one, and were not. */
    const system_test::result state = play({file, "--option", "auto-provision", "--bisect"});
    EXPECT_EQ(state.status, 1);
    EXPECT_THAT(state.out,
                HasSubstr("AC 0x00000011 of class 3, node 7: state is \"provisioned\", not \"created\"\n"));
    EXPECT_THAT(state.out, HasSubstr("number 1:\n"));
    EXPECT_THAT(state.out, testing::Not(HasSubstr("0x00000013")));

    const std::string before = m_dir.write("acs.json", ctl({"show", "acs", "--raw", "--json"}).out);
    ASSERT_TRUE(owner.send(update(3, {0x12}, 0x77)));
    ASSERT_TRUE(owner.send(remove({0x11})));
    ASSERT_TRUE(owner.send(create(3, {0x14}, 0)));
    ASSERT_TRUE(is_handled(5));
    const system_test::result later = play({keep("later.pcapng"), "--against", before});
    EXPECT_EQ(later.status, 1);
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000011 of class 3, node 7 is missing\n"));
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000012 of class 3, node 7: info."));
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000014 of class 3, node 7 is there, and should not be\n"));
}

/* Whose an AC is is decided by whoever created it last: one link's message too early, and it is another's. */
TEST_F(replay, messages_of_all_links_keep_their_order)
{
    start({"--capture-size", "4096"});
    raw_peer one = peer(3);
    raw_peer other = peer(3);
    constexpr uint32_t rounds = 100;
    for (uint32_t i = 0; i < rounds; i++) {
        for (raw_peer *owner : {&one, &other}) {
            ASSERT_TRUE(owner->send(create(3, {0x100 + i, 0x101 + i})));
            ASSERT_TRUE(eventually(
                [&] { return totals()["received"]["CREATE"] == 2 * i + (owner == &one ? 1 : 2); }));
        }
    }
    ASSERT_TRUE(one.send(create(3, {0x100, 0x110, 0x120})));
    ASSERT_TRUE(is_handled(2 * rounds + 1));
    const std::string file = keep();
    expect_same(file, "203 records of 2 links replayed: 101 ACs, ");
    const std::string shown = m_dir.write("acs.json", ctl({"show", "acs", "--json"}).out);
    EXPECT_EQ(play({file, "--against", shown}).status, 0);
    EXPECT_THAT(shown.empty() ? "" : system_test::read_file(shown), HasSubstr("\"owner\":1"));
}

/* What ends a batch ends it on all links of the client, and on no other's. */
TEST_F(replay, clients_are_told_apart)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(4);
    ASSERT_TRUE(one.send(create(3, {0x11}, 1)));
    ASSERT_TRUE(is_handled(1));
    ASSERT_TRUE(other.send(create(4, {0x12}, 2)));
    ASSERT_TRUE(is_handled(2));
    const std::string file = keep();
    expect_same(file, "2 links replayed: 2 ACs, 0 spanning-tree records, 0 open batches\n");
    /* The link that began is another client's: its first record, and its CREATE. */
    const std::string link_up("\0\1\2\0\1\0\0\100", 8);
    std::string content = system_test::read_file(file);
    for (const std::string &head : {link_up, message_to_process}) {
        content.replace(content.find(head) + pid_in_head, 4, "\1\1\1\1");
    }
    const std::string strange = m_dir.write("strange.pcapng", content);
    expect_same(strange, "2 links replayed: 2 ACs, 0 spanning-tree records, 1 open batch\n");
    EXPECT_EQ(told({strange})["acs"], 2);
}

TEST_F(replay, links_that_end_take_what_they_said_with_them)
{
    start();
    raw_peer one = peer(3);
    ASSERT_TRUE(one.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    one.close();
    ASSERT_TRUE(holds(0));
    raw_peer other = peer(3);
    ASSERT_TRUE(other.send(create(3, {0x12})));
    ASSERT_TRUE(holds(1));
    const std::string file = keep();
    expect_same(file, "5 records of 2 links replayed: 1 AC, ");
    EXPECT_EQ(told({file, "--count", "2"})["acs"], 1);
    EXPECT_EQ(told({file, "--count", "3"})["acs"], 0);
}

TEST_F(replay, what_was_refused_is_a_difference)
{
    start();
    const raw_peer one = peer(3);
    const raw_peer other = peer(4);
    const std::string file = keep();
    const system_test::result done = play({file, "--option", "max-owners=1", "--bisect"});
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.out, HasSubstr("owner 2 (class 4, node 7) is refused: "));
    EXPECT_THAT(done.out, HasSubstr("number 1:\n"));
}

TEST_F(replay, a_running_process_gets_what_was_said_and_keeps_its_own)
{
    start();
    std::string file;
    {
        raw_peer owner = peer(3);
        ASSERT_TRUE(owner.send(create(3, {0x11, 0x12})));
        ASSERT_TRUE(holds(2));
        file = keep();
        expect_refused({file, "--running"}, 4, "the running process has owner 1 (class 3, node 7) already");
    }
    ASSERT_TRUE(holds(0));
    raw_peer mine = peer(4);
    ASSERT_TRUE(mine.send(create(4, {0x21})));
    ASSERT_TRUE(holds(1));
    const system_test::result done = play({file, "--running"});
    EXPECT_EQ(done.status, 0) << done.err << done.out;
    EXPECT_THAT(done.out, HasSubstr("2 records of 1 link replayed: 2 ACs, "));
    EXPECT_THAT(done.out, HasSubstr(same));
    EXPECT_EQ(totals()["received"]["CREATE"], 3) << "it was this process";
    ASSERT_TRUE(holds(1));
    EXPECT_EQ(acs()[0]["handle"], 0x21);
    stop();
    expect_refused({file, "--running"}, 3, "cannot reach l2vpnd at ");
}

TEST_F(replay, several_files_are_one_capture)
{
    start({"--capture-size", "4096"});
    raw_peer owner = peer(8);
    constexpr uint64_t messages = 40;
    for (uint64_t i = 0; i < messages; i++) {
        ASSERT_TRUE(owner.send(create(8, handles_from(static_cast<uint32_t>(0x100 + 10 * i), 20))));
    }
    ASSERT_TRUE(is_handled(messages));
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", ring(), "--size", "1"}).status, 0);
    ASSERT_TRUE(fs::exists(file + ".1"));
    for (const auto &files :
         {std::vector<std::string>{file, file + ".1", file + ".2"}, {file + ".2", file + ".1", file}}) {
        const json document = told(files);
        EXPECT_EQ(document["records"], messages + 1);
        EXPECT_EQ(document["acs"], 10 * messages + 10);
    }
    EXPECT_EQ(told({file, file})["records"], told({file})["records"]) << "what is there twice is played once";
    const system_test::result rest = play({file});
    EXPECT_THAT(rest.out, HasSubstr("(the capture begins with record "));
}

TEST_F(replay, what_is_missing_is_told)
{
    start({"--capture-size", "64"});
    raw_peer owner = peer(3);
    for (uint32_t i = 0; i < 300; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(is_handled(300));
    expect_same(keep(), "(45 records are missing in the capture: what they did is not told)\n");
    EXPECT_EQ(told({ring()})["lost"], 45);
}

/* An owner's ring keeps the beginnings of messages, unless it is told to keep more. */
TEST_F(replay, rings_of_owners_are_played_when_they_are_whole)
{
    start({"--capture-size", "4096"});
    for (const bool whole : {false, true}) {
        const std::string path = m_dir.file(whole ? "whole.ring" : "cut.ring");
        system_test::child owner(system_test::binary("l2vpn-owner"),
                                 {"--inventory", std::string(L2VPN_EXAMPLES) + "/inventory.csv"},
                                 {"L2VPN_RUNTIME_DIR=" + m_dir.path(), "L2VPN_CAPTURE=" + path,
                                  "L2VPN_CAPTURE_SIZE=4096",
                                  whole ? "L2VPN_CAPTURE_SNAP=65536" : "L2VPN_UNUSED=1"});
        ASSERT_TRUE(holds(300));
        if (whole) {
            expect_same(path, " of 9 links replayed: 300 ACs, ");
            const std::string both = ring();
            const json document = told({both, path});
            EXPECT_GT(document["left_out"], 0);
            EXPECT_EQ(document["acs"], 300);
        } else {
            expect_refused({path}, 4, " cannot be played: only 160 of its ");
        }
        owner.send_signal(SIGTERM);
        EXPECT_EQ(owner.wait(), 0) << owner.err();
        ASSERT_TRUE(holds(0));
    }
}

TEST_F(replay, every_bad_input_has_its_line)
{
    const std::string path = make_history();
    const std::string file = keep();
    const std::string none = m_dir.file("none.pcapng");
    expect_refused({none}, 4, none + ": No such file or directory");
    expect_refused({m_dir.path()}, 4, m_dir.path() + ": Is a directory");
    expect_refused({m_dir.write("text", "text")}, 4, "text: not a pcapng file");
    expect_refused({edited(file, message_to_process, 0, std::string("\0\7", 2))}, 4,
                   "edited.pcapng: has records of version 7; this program reads version 1");
    expect_refused({edited(file, message_to_process, 46, "\7")}, 4,
                   "record 1 cannot be played: only 1288 of its 1800 bytes were recorded (snap length)");
    expect_refused({edited(file, message_to_process, 39, "\2")}, 4,
                   "record 2 is there twice, of two processes");
    expect_refused({file, "--against", none}, 4, none + ": No such file or directory");
    expect_refused({file, "--against", m_dir.write("a.json", "{}")}, 4, "a.json: no table of ACs");
    expect_refused({file, "--against", m_dir.write("b.json", "{\"acs\":[{}]}")}, 4,
                   "b.json: a row of \"acs\" is not as l2vpnctl prints it");
    expect_refused({file, "--program", none}, 3, "could be started to replay into: " + none);
    expect_refused({file, "--option", "nonsense=1"}, 3, "--nonsense=1");
    expect_refused({file, "--option", "max-acs=0"}, 3, "max-acs");
    expect_refused({file, "--bisect", "--running"}, 2, "--bisect");
    expect_refused({file, "--bisect", "--against", file}, 2, "--bisect");
    expect_refused({file, "--speed", "0"}, 2, "--speed");
    expect_refused({}, 2, "file");
}

/* A replay at the capture's own pace waits between records that are hours from one another. */
TEST_F(replay, its_end_and_that_of_its_process_are_noticed_and_leave_nothing)
{
    make_history();
    std::string content = system_test::read_file(keep());
    uint32_t time = 0;
    char *const place = &content.at(content.find(message_to_process) - time_before_head);
    memcpy(&time, place, sizeof time);
    time += 1000; /* more than an hour */
    memcpy(place, &time, sizeof time);
    const std::string file = m_dir.write("slow.pcapng", content);
    for (const bool its_own : {true, false}) {
        system_test::child played(system_test::binary("l2vpnctl"), words({file, "--speed", "1"}),
                                  {"TMPDIR=" + m_folder});
        std::string folder;
        ASSERT_TRUE(eventually([&] {
            for (const auto &entry : fs::directory_iterator(m_folder)) {
                folder = entry.path();
            }
            return !folder.empty() && fs::exists(folder + "/L2VPN.ctl");
        }));
        const auto status = [&] {
            return system_test::run(system_test::binary("l2vpnctl"),
                                    {"status", "--json", "--runtime-dir", folder});
        };
        ASSERT_TRUE(eventually([&] { return status().status == 0; }));
        if (its_own) {
            played.send_signal(SIGINT);
            EXPECT_EQ(played.wait(), 4);
            EXPECT_EQ(played.err(), "l2vpnctl: interrupted\n");
        } else {
            ASSERT_TRUE(eventually([&] { return json::parse(status().out)["owners"] == 1; }));
            kill(json::parse(status().out)["pid"].get<pid_t>(), SIGKILL);
            EXPECT_EQ(played.wait(), 1) << played.err();
            EXPECT_THAT(played.out(), HasSubstr("l2vpnd was ended by signal 9\n"));
        }
        EXPECT_TRUE(fs::is_empty(m_folder));
    }
}
