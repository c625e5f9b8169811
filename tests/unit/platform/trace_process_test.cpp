/* The trace of processes that are killed, aborted and forked. */
#include "child.h"
#include "trace_file.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

namespace {

using l2vpn::trace_reader::contents;
using l2vpn::trace_reader::read_file;
using system_test::child;
using system_test::run;
using system_test::temp_dir;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class traced_process : public ::testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> traced() const { return {"L2VPN_TRACE=" + path}; }

    [[nodiscard]] std::string farewell(pid_t pid) const
    {
        return "l2vpn: the trace of platform_probe[" + std::to_string(pid) + "] is in " + path + "\n";
    }

    temp_dir place;
    std::string path = place.file("trace");
};

TEST_F(traced_process, killed_while_its_threads_write_leaves_whole_records)
{
    child writer(PROBE, {"trace-for-ever"}, traced());
    EXPECT_EQ(writer.line_after("ready "), path);
    const pid_t pid = writer.pid();
    writer.send_signal(SIGKILL);
    EXPECT_EQ(writer.wait(), -SIGKILL);
    const contents read = read_file(path);
    EXPECT_EQ(read.pid, static_cast<std::uint32_t>(pid));
    EXPECT_EQ(read.process, "platform_probe");
    EXPECT_GE(read.entries.size(), 100U);
    EXPECT_LE(read.damaged, 3U) << "at most one for each thread that was writing";
    for (const auto &each : read.entries) {
        EXPECT_THAT(each.text, EndsWith(" of the probe"));
    }
}

TEST_F(traced_process, on_means_a_file_in_the_runtime_directory)
{
    child writer(PROBE, {"trace-and-wait", "1"},
                 {"L2VPN_TRACE=on", "L2VPN_RUNTIME_DIR=" + place.file("run")});
    const std::string file = writer.line_after("ready ");
    EXPECT_EQ(file, place.file("run") + "/platform_probe-" + std::to_string(writer.pid()) + ".trace");
    EXPECT_EQ(read_file(file).entries.size(), 1U) << "it can be read while the process lives";
}

/* Of the dead ones, the newest four stay; what is alive, another's or no trace stays anyway. */
TEST_F(traced_process, on_removes_the_older_traces_of_dead_processes_of_its_name)
{
    namespace fs = std::filesystem;
    const std::string run = place.file("run");
    const std::vector<std::string> traced_on{"L2VPN_TRACE=on", "L2VPN_TRACE_SIZE=64",
                                             "L2VPN_RUNTIME_DIR=" + run};
    child living(PROBE, {"trace-and-wait", "1"}, traced_on);
    const std::string alive = living.line_after("ready ");
    std::vector<std::string> dead;
    auto made = fs::file_time_type::clock::now() - std::chrono::hours(1);
    for (int count = 0; count < 6; ++count) {
        child ended(PROBE, {"trace-and-wait", "1"}, traced_on);
        dead.push_back(ended.line_after("ready "));
        ended.send_signal(SIGKILL);
        ended.wait();
        // The order must not hang on the clock's resolution.
        fs::last_write_time(dead.back(), made += std::chrono::seconds(1));
    }
    fs::last_write_time(alive, made - std::chrono::hours(1));
    EXPECT_FALSE(fs::exists(dead[0])) << "the sixth found five";
    ASSERT_TRUE(fs::exists(dead[1]));
    std::vector<std::string> others;
    for (const char *name : {"another-2147483646.trace", "platform_probe-2147483646.trace.old",
                             "platform_probe-x.trace", "platform_probe-.trace"}) {
        others.push_back(run + "/" + name);
        fs::copy_file(dead[1], others.back());
    }
    others.push_back(run + "/platform_probe-2147483645.trace");
    std::ofstream(others.back()) << "no trace";
    child last(PROBE, {"trace-and-wait", "1"}, traced_on);
    EXPECT_TRUE(fs::exists(last.line_after("ready ")));
    EXPECT_FALSE(fs::exists(dead[1]));
    for (std::size_t index = 2; index < dead.size(); ++index) {
        EXPECT_TRUE(fs::exists(dead[index])) << index;
    }
    EXPECT_TRUE(fs::exists(alive));
    for (const std::string &other : others) {
        EXPECT_TRUE(fs::exists(other)) << other;
    }
}

TEST_F(traced_process, two_processes_do_not_share_a_file)
{
    child first(PROBE, {"trace-and-wait", "1"}, traced());
    first.line_after("ready ");
    child second(PROBE, {"trace-and-wait", "2"}, traced());
    EXPECT_EQ(second.line_after("ready "), "");
    second.send_signal(SIGKILL);
    second.wait();
    EXPECT_EQ(second.err(),
              "l2vpn: no trace: " + path + ": in use by process " + std::to_string(first.pid()) + "\n");
    EXPECT_EQ(read_file(path).entries.size(), 1U);
    first.send_signal(SIGKILL);
    first.wait();
    child third(PROBE, {"trace-and-wait", "3"}, traced());
    EXPECT_EQ(third.line_after("ready "), path) << "the trace of a dead process may be replaced";
    EXPECT_EQ(read_file(path).entries.size(), 3U);
}

TEST_F(traced_process, an_abort_names_the_file)
{
    child aborted(PROBE, {"abort"}, traced());
    const std::string expected = farewell(aborted.pid());
    EXPECT_EQ(aborted.wait(), -SIGABRT);
    EXPECT_EQ(aborted.err(), expected);
    EXPECT_EQ(read_file(path).entries.size(), 3U);
}

TEST_F(traced_process, a_raised_sigabrt_names_the_file_and_still_ends_the_process)
{
    child aborted(PROBE, {"abort", "killed"}, traced());
    const std::string expected = farewell(aborted.pid());
    EXPECT_EQ(aborted.wait(), -SIGABRT);
    EXPECT_EQ(aborted.err(), expected);
}

TEST_F(traced_process, an_abort_without_a_trace_says_nothing)
{
    const auto never = run(PROBE, {"abort"});
    EXPECT_EQ(never.status, -SIGABRT);
    EXPECT_THAT(never.err, IsEmpty());
    const auto no_more = run(PROBE, {"abort", "off"}, traced());
    EXPECT_EQ(no_more.status, -SIGABRT);
    EXPECT_THAT(no_more.err, IsEmpty());
}

TEST_F(traced_process, a_handler_that_is_there_stays)
{
    const auto result = run(PROBE, {"abort", "handled"}, traced());
    EXPECT_EQ(result.status, -SIGABRT);
    EXPECT_EQ(result.err, "mine\n");
}

TEST_F(traced_process, a_forked_child_does_not_write_into_its_parents_file)
{
    child parent(PROBE, {"fork", place.file("of-the-child")}, traced());
    EXPECT_EQ(parent.line_after("ready "), path);
    EXPECT_EQ(read_file(path).begun, 7U);
    const contents own = read_file(place.file("of-the-child"));
    EXPECT_EQ(own.begun, 5U);
    EXPECT_NE(own.pid, static_cast<std::uint32_t>(parent.pid()));
    EXPECT_EQ(own.entries.at(0).thread, own.pid);
}

TEST_F(traced_process, a_file_beyond_the_processs_limit_is_one_line_and_no_trace)
{
    child limited("/bin/sh", {"-c", "ulimit -f 195; exec " PROBE " trace-and-wait 3"}, traced());
    EXPECT_EQ(limited.line_after("ready "), "");
    limited.send_signal(SIGKILL);
    limited.wait();
    EXPECT_EQ(limited.err(), "l2vpn: no trace: " + path + ": File too large\n");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(traced_process, an_unusable_place_is_one_line_and_the_process_goes_on)
{
    child writer(PROBE, {"trace-and-wait", "3"}, {"L2VPN_TRACE=" + place.file("no/trace")});
    EXPECT_EQ(writer.line_after("ready "), "");
    writer.send_signal(SIGKILL);
    writer.wait();
    EXPECT_EQ(writer.err(), "l2vpn: no trace: " + place.file("no/trace") + ": No such file or directory\n");
}

TEST_F(traced_process, an_unusable_runtime_directory_is_named)
{
    child writer(PROBE, {"trace-and-wait", "3"},
                 {"L2VPN_TRACE=on", "L2VPN_RUNTIME_DIR=" + place.file("no/run")});
    EXPECT_EQ(writer.line_after("ready "), "");
    writer.send_signal(SIGKILL);
    writer.wait();
    EXPECT_THAT(writer.err(), HasSubstr("l2vpn: no trace: " + place.file("no/run") + ": "));
    EXPECT_THAT(writer.err(), Not(HasSubstr("\nl2vpn"))) << "one line";
}

} // namespace
