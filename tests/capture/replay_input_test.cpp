/*
 * l2vpnctl replay: what it is given to read, what it refuses, and its end.
 */
#include "pcapng_reader.h"
#include "pcapng_writer.h"
#include "replayed.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>

using namespace process_test;

namespace {

/* Writes a capture of the process again, each record as `change` leaves it; those that it refuses are left out. */
void write_again(const std::string &from, const std::string &to,
                 const std::function<bool(l2vpn::capture::captured &record, uint64_t &lost)> &change)
{
    std::ifstream file(from, std::ios::binary);
    l2vpn::capture::pcapng_reader reader(file);
    l2vpn::capture::pcapng_writer writer(to, false, "test");
    writer.add_interface("l2vpnd-1");
    l2vpn::capture::captured record{};
    for (uint64_t lost = 0; reader.next(record, lost);) {
        if (change(record, lost)) {
            writer.add(0, record, lost);
        }
    }
    writer.place();
}

} // namespace

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

/* As one has it that was put together of captures that overlap. */
TEST_F(replay, what_one_file_holds_twice_is_played_once)
{
    make_history();
    const std::string file = keep();
    const std::string content = system_test::read_file(file);
    const json once = told({file});
    EXPECT_EQ(told({m_dir.write("twice.pcapng", content + content)}), once);

    const std::string cut = m_dir.file("cut.pcapng");
    write_again(file, cut, [](auto &record, auto & /*lost*/) {
        record.message.resize(std::min<size_t>(record.message.size(), 20));
        return true;
    });
    const std::string cut_content = system_test::read_file(cut);
    EXPECT_EQ(told({m_dir.write("both.pcapng", cut_content + content)}), once) << "as far as it is there";
    EXPECT_EQ(told({m_dir.write("both.pcapng", content + cut_content)}), once);
}

TEST_F(replay, what_is_missing_is_told)
{
    start({"--capture-size", "64"});
    raw_peer owner = peer(3);
    for (uint32_t i = 0; i < 300; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(is_handled(300));
    const std::string file = keep();
    expect_same(file, "(45 records are missing in the capture: what they did is not told)\n");
    EXPECT_EQ(told({ring()})["lost"], 45);

    const std::string holey = m_dir.file("holey.pcapng");
    write_again(file, holey, [](auto &record, auto &lost) {
        lost = record.head.number == 105 ? 5 : lost;
        return record.head.number < 100 || record.head.number > 104;
    });
    EXPECT_EQ(told({holey})["lost"], 50);
    for (const auto &[path, missing] : {std::pair(file, 45), std::pair(holey, 50)}) {
        const std::string content = system_test::read_file(path);
        EXPECT_EQ(told({m_dir.write("twice.pcapng", content + content)})["lost"], missing) << "once";
    }
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
            /* An owner records what it has sent, so the process may be ahead of its ring. */
            ASSERT_TRUE(eventually([&] {
                uint64_t count = 0;
                for (const json &row : rows({"--read", path, "--type", "CREATE"})) {
                    count += row["records"].size();
                }
                return count == 300;
            }));
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
    expect_refused({file, "--against", m_dir.write("c.json", R"({"acs":[{"owner":1e99}]})")}, 4,
                   "c.json: a row of \"acs\" is not as l2vpnctl prints it");
    expect_refused({file, "--program", none}, 3, "could be started to replay into: " + none);
    expect_refused({file, "--option", "nonsense=1"}, 2, "--nonsense=1");
    expect_refused({file, "--option", "max-acs=0"}, 2, "max-acs");
    expect_refused({file, "--option", "version"}, 3, "it says something else than that it is ready");
    expect_refused({file, "--program", "/bin/true"}, 3, "it ended at once");
    expect_refused({file, "--option", "mtu=4095"}, 4, "takes messages of 4095 bytes at most, and ");
    expect_refused({file, "--bisect", "--running"}, 2, "--bisect");
    expect_refused({file, "--bisect", "--against", file}, 2, "--bisect");
    for (const char *speed : {"0", "nan", "inf", "x", "1e10"}) {
        expect_refused({file, "--speed", speed}, 2, "--speed");
    }
    expect_refused({}, 2, "file");
}

/* Status 1 says that the tables differ; whoever cannot read it anywhere is not told so. */
TEST_F(replay, output_that_cannot_be_written_is_no_difference)
{
    make_history();
    const std::string file = keep();
    for (const char *limit : {"max-acs=10", "max-acs=1"}) {
        ASSERT_EQ(play({file, "--option", limit}).status, limit == std::string("max-acs=1") ? 1 : 0);
        for (const char *form : {"--json", "--color=never"}) {
            std::vector<std::string> arguments = words({file, "--option", limit, form});
            arguments.insert(arguments.begin(),
                             {"-c", "exec \"$@\" >/dev/full", "sh", system_test::binary("l2vpnctl")});
            expect_one_line(system_test::run("/bin/sh", arguments, {"TMPDIR=" + m_folder}), 4,
                            "cannot write to standard output: No space left on device");
        }
    }
}

/* Which was too long for its link then, and would be for this one. */
TEST_F(replay, what_was_never_sent_is_not_played)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})) && owner.send(create(3, {0x12})));
    ASSERT_TRUE(is_handled(2));
    const std::string status_and_length("\0\0\0\132\0\21\0\0", 8); /* EMSGSIZE, 1,114,112 bytes */
    expect_same(edited(keep(), message_to_process, 40, status_and_length),
                "3 records of 1 link replayed: 1 AC, ");
}

/* Each client of a capture is a process only as long as it has links. */
TEST_F(replay, there_may_be_more_clients_than_descriptors)
{
    start({"--capture-size", "4096"});
    for (uint32_t i = 0; i < 80; i++) {
        raw_peer owner = peer(8);
        ASSERT_TRUE(owner.send(create(8, {0x11 + i})));
        ASSERT_TRUE(holds(1));
        owner.close();
        ASSERT_TRUE(holds(0));
    }
    std::string content = system_test::read_file(keep());
    const std::string by_process("\1\0\0\100", 4); /* which no ACs of this capture have in them */
    size_t heads = 0;
    for (size_t at = content.find(by_process); at != std::string::npos;
         at = content.find(by_process, at + 1)) {
        const size_t head = at - 4;
        if (content[head] == 0 && content[head + 1] == 1) {
            content.replace(head + pid_in_head, 4, content, head + link_in_head + 4, 4);
            heads++;
        }
    }
    EXPECT_EQ(heads, 240U);
    const std::string file = m_dir.write("many.pcapng", content);
    std::vector<std::string> arguments = words({file});
    arguments.insert(arguments.begin(),
                     {"-c", "ulimit -n 64; exec \"$@\"", "sh", system_test::binary("l2vpnctl")});
    const system_test::result done =
        system_test::run("/bin/sh", arguments, {"TMPDIR=" + m_folder, "SHELL=/bin/sh"});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_THAT(done.out, HasSubstr("240 records of 80 links replayed: 0 ACs, "));
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
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, 0}) {
        system_test::child played(system_test::binary("l2vpnctl"), words({file, "--speed", "1"}),
                                  {"TMPDIR=" + m_folder, "SHELL=/bin/sh"});
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
        ASSERT_TRUE(eventually([&] {
            const system_test::result now = status();
            return now.status == 0 && json::parse(now.out)["owners"] == 1;
        }));
        if (signal != 0) {
            played.send_signal(signal);
            EXPECT_EQ(played.wait(), 4);
            EXPECT_EQ(played.err(), "l2vpnctl: interrupted\n");
        } else {
            kill(json::parse(status().out)["pid"].get<pid_t>(), SIGKILL);
            EXPECT_EQ(played.wait(), 1) << played.err();
            EXPECT_THAT(played.out(), HasSubstr("l2vpnd was ended by signal 9\n"));
        }
        EXPECT_TRUE(fs::is_empty(m_folder));
    }
}

TEST_F(replay, long_work_shows_on_a_terminal_how_far_it_is_and_leaves_nothing_of_it)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    const std::string program = system_test::binary("l2vpnctl");
    const std::string runtime = " --runtime-dir " + m_dir.path();
    const std::pair<std::string, std::string> cases[] = {
        {program + " capture --history --count 3 -w " + file + runtime, "\r3 records\033[K"},
        {program + " replay " + path + runtime, "\rreplayed 100 %\033[K"},
    };
    for (const auto &[command, told] : cases) {
        const system_test::result done = system_test::run("/usr/bin/script", {"-qec", command, "/dev/null"},
                                                          {"TMPDIR=" + m_folder, "SHELL=/bin/sh"});
        EXPECT_EQ(done.status, 0) << done.out;
        EXPECT_THAT(done.out, HasSubstr(told)) << command;
        const size_t gone = done.out.find("\r\033[K", done.out.find(told) + 1);
        EXPECT_NE(gone, std::string::npos) << command;
        EXPECT_EQ(done.out.find("\033[K", gone + 4), std::string::npos) << command;
    }
}
