#include "child.h"
#include "trace_file.h"

#include <platform/config.h>
#include <platform/debug.h>
#include <platform/lock_monitor.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <thread>
#include <unistd.h>

/* Takes the C library's place, so that a test can have a full disk. */
namespace {
std::atomic<int> allocation_result{0};
}
extern "C" __attribute__((visibility("default"))) int posix_fallocate(int fd, off_t offset, off_t length)
{
    if (allocation_result != 0) {
        return allocation_result;
    }
    using function = int (*)(int, off_t, off_t);
    return reinterpret_cast<function>(::dlsym(RTLD_NEXT, "posix_fallocate"))(fd, offset, length);
}

namespace {

using namespace l2vpn::trace_reader;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class trace : public ::testing::Test {
protected:
    void TearDown() override
    {
        allocation_result = 0;
        EXPECT_EQ(platform_trace_set("off"), EOK);
    }

    void switch_on() const { ASSERT_EQ(platform_trace_set(path.c_str()), EOK); }

    /* platform_trace_set() with what it says on standard error. */
    static qerrno set(const std::string &where, std::string &said)
    {
        ::testing::internal::CaptureStderr();
        const qerrno status = platform_trace_set(where.c_str());
        said = ::testing::internal::GetCapturedStderr();
        return status;
    }

    [[nodiscard]] std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto &each : std::filesystem::directory_iterator(place.path())) {
            names.push_back(each.path().filename());
        }
        return names;
    }

    system_test::temp_dir place;
    std::string path = place.file("trace");
};

TEST_F(trace, is_off_by_default)
{
    EXPECT_STREQ(platform_trace_path(), "");
    EXPECT_EQ(l2vpn_check_ltrace_buffer(L2VPN_LTRACE_KEY(1, 1)), 0);
    EXPECT_EQ(platform_trace_set("off"), EOK);
}

TEST_F(trace, keeps_records_with_all_they_say)
{
    switch_on();
    EXPECT_EQ(platform_trace_path(), path);
    EXPECT_NE(l2vpn_check_ltrace_buffer(L2VPN_LTRACE_KEY(1, 1)), 0);
    gen_ltrace(1079, "bulk %u of class %d", 300U, 4);
    l2vpn_ltrace(L2VPN_LTRACE_KEY(77, 2), "%u%u", 12U, 34U);
    gen_format_debug_fmt(1094, "l2vpn_ac_create", 321, "failed: %s", "no such client");
    l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_get_ctx(), nullptr, 163, "a_function", 7, "report");
    l2vpn_gen_assert_errmsg(1);

    const contents read = read_file(path);
    EXPECT_EQ(read.process, program_invocation_short_name);
    EXPECT_EQ(read.pid, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(read.begun, 5U);
    EXPECT_EQ(read.lost, 0U);
    EXPECT_EQ(read.damaged, 0U);
    ASSERT_EQ(read.entries.size(), 5U);

    const entry &first = read.entries[0];
    EXPECT_EQ(first.kind, "entry");
    EXPECT_EQ(first.id, 1079U);
    EXPECT_EQ(first.text, "bulk 300 of class 4");
    EXPECT_EQ(first.thread, static_cast<std::uint32_t>(::gettid()));
    EXPECT_GE(first.wall, read.started);
    EXPECT_EQ(read.entries[1].kind, "error");
    EXPECT_EQ(read.entries[1].id, 77U);
    EXPECT_EQ(read.entries[1].text, "1234");
    EXPECT_EQ(read.entries[2].kind, "debug");
    EXPECT_EQ(read.entries[2].id, 1094U);
    EXPECT_EQ(read.entries[2].function, "l2vpn_ac_create");
    EXPECT_EQ(read.entries[2].line, 321U);
    EXPECT_EQ(read.entries[2].text, "failed: no such client");
    EXPECT_EQ(read.entries[3].kind, "report");
    EXPECT_EQ(read.entries[3].id, 163U);
    EXPECT_EQ(read.entries[4].kind, "assertion");
}

TEST_F(trace, nothing_is_written_once_it_is_off)
{
    switch_on();
    gen_ltrace(1, "kept");
    ASSERT_EQ(platform_trace_set("off"), EOK);
    EXPECT_STREQ(platform_trace_path(), "");
    gen_ltrace(1, "not kept");
    EXPECT_EQ(read_file(path).begun, 1U);
}

TEST_F(trace, keeps_the_latest_when_the_ring_is_full)
{
    switch_on();
    constexpr unsigned count = 20'000; // the ring of 1 MiB has 8,192
    for (unsigned number = 0; number < count; ++number) {
        gen_ltrace(1, "%u", number);
    }
    const contents read = read_file(path);
    EXPECT_EQ(read.begun, count);
    ASSERT_EQ(read.entries.size(), 8192U);
    EXPECT_EQ(read.entries.front().text, std::to_string(count - 8192));
    EXPECT_EQ(read.entries.back().text, std::to_string(count - 1));
}

TEST_F(trace, a_tracing_call_keeps_errno)
{
    switch_on();
    errno = ENOTCONN;
    gen_ltrace(1, "x");
    gen_format_debug_fmt(1, "f", 1, "x");
    l2vpn_gen_assert_errmsg(1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(trace, more_texts_than_fit_the_table_lose_their_texts_and_not_their_records)
{
    switch_on();
    constexpr unsigned count = 2000;
    for (unsigned number = 0; number < count; ++number) {
        const std::string format = "format " + std::to_string(number);
        // The format is not a constant on purpose; it has no conversions.
        void (*const any_format)(std::uint32_t, const char *, ...) = gen_ltrace;
        any_format(1, format.c_str());
    }
    const contents read = read_file(path);
    ASSERT_EQ(read.entries.size(), count);
    EXPECT_EQ(read.entries[0].text, "format 0");
    std::size_t known = 0;
    for (std::size_t number = 0; number < count; ++number) {
        const bool right = read.entries[number].text == "format " + std::to_string(number);
        known += right ? 1 : 0;
        ASSERT_TRUE(right || read.entries[number].text == "(format not known)");
    }
    EXPECT_GT(known, 400U);
}

TEST_F(trace, records_of_many_threads_are_all_counted_and_none_is_mixed)
{
    switch_on();
    constexpr unsigned thread_count = 4;
    constexpr unsigned per_thread = 10'000;
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([thread] {
            for (unsigned number = 0; number < per_thread; ++number) {
                gen_ltrace(thread, "%u %u %u", thread, number, thread ^ number);
            }
        });
    }
    // A reader that looks meanwhile finds whole records only.
    const auto check = [](const contents &read) {
        for (const entry &each : read.entries) {
            unsigned thread = 0;
            unsigned number = 0;
            unsigned both = 0;
            ASSERT_EQ(std::sscanf(each.text.c_str(), "%u %u %u", &thread, &number, &both), 3) << each.text;
            ASSERT_EQ(both, thread ^ number);
            ASSERT_EQ(each.id, thread);
        }
    };
    check(read_file(path));
    check(read_file(path));
    for (std::thread &thread : threads) {
        thread.join();
    }
    const contents read = read_file(path);
    check(read);
    EXPECT_EQ(read.begun, thread_count * per_thread);
    EXPECT_EQ(read.damaged, 0U);
    // What was lost left an older record in its slot, or nothing.
    EXPECT_GE(read.entries.size() + read.lost, 8192U);
}

TEST_F(trace, switching_while_others_write)
{
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&] {
            while (!over) {
                gen_ltrace(1, "%s", "text");
                static_cast<void>(gen_dbg_get_enabled_bitset()->words[3]);
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(platform_trace_set(place.file(std::to_string(round % 3)).c_str()), EOK);
        EXPECT_EQ(platform_trace_set("off"), EOK);
    }
    over = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(read_file(place.file("0")).damaged, 0U);
}

TEST_F(trace, shows_where_threads_wait_for_locks)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ptd_set_mutex_block(&mutex, "before_the_trace", 5);
    ptd_unset_mutex_block();
    switch_on();
    ptd_set_mutex_block(&mutex, "during_the_trace", 6);
    const contents read = read_file(path);
    ptd_unset_mutex_block();
    std::set<std::string> places;
    for (const lock_row &row : read.locks) {
        places.insert(row.function + ":" + std::to_string(row.line) + " " + std::to_string(row.count) + " " +
                      std::to_string(row.waiting));
    }
    EXPECT_TRUE(places.contains("before_the_trace:5 1 0"));
    EXPECT_TRUE(places.contains("during_the_trace:6 0 1"));
}

TEST_F(trace, a_full_disk_is_one_line_and_no_trace)
{
    allocation_result = ENOSPC;
    std::string said;
    EXPECT_EQ(set(path, said), static_cast<qerrno>(ENOSPC));
    EXPECT_EQ(said, "l2vpn: no trace: " + path + ": No space left on device\n");
    EXPECT_STREQ(platform_trace_path(), "");
    gen_ltrace(1, "goes on");
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(trace, a_directory_that_is_not_there_is_one_line_and_no_trace)
{
    std::string said;
    EXPECT_EQ(set(place.file("no/trace"), said), static_cast<qerrno>(ENOENT));
    EXPECT_EQ(said, "l2vpn: no trace: " + place.file("no/trace") + ": No such file or directory\n");
}

TEST_F(trace, a_failure_leaves_the_ring_in_use)
{
    switch_on();
    std::string said;
    EXPECT_EQ(set(place.file("no/trace"), said), static_cast<qerrno>(ENOENT));
    EXPECT_EQ(platform_trace_path(), path);
    gen_ltrace(1, "goes on");
    EXPECT_EQ(read_file(path).begun, 1U);
}

TEST_F(trace, what_is_no_trace_file_is_not_replaced)
{
    std::string said;
    const auto write_file = [&](const std::string &text) {
        const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    };
    write_file("somebody's letters");
    EXPECT_EQ(set(path, said), static_cast<qerrno>(EEXIST));
    EXPECT_THAT(said, HasSubstr(path + ": there already and not a trace file"));
    EXPECT_THAT(files(), ElementsAre("trace"));
    write_file("");
    EXPECT_EQ(set(path, said), EOK) << "an empty file may be replaced";
}

TEST_F(trace, a_directory_and_a_link_are_not_replaced)
{
    std::string said;
    EXPECT_EQ(set(place.path(), said), static_cast<qerrno>(EEXIST));
    ASSERT_EQ(::symlink("/etc/passwd", path.c_str()), 0);
    EXPECT_EQ(set(path, said), static_cast<qerrno>(ELOOP));
}

TEST_F(trace, the_file_that_is_in_use_is_not_replaced)
{
    switch_on();
    std::string said;
    EXPECT_EQ(set(path, said), static_cast<qerrno>(EBUSY));
    EXPECT_THAT(said, HasSubstr("in use by process " + std::to_string(::getpid())));
    ASSERT_EQ(platform_trace_set("off"), EOK);
    EXPECT_EQ(set(path, said), EOK) << "the trace of before may be replaced";
    EXPECT_EQ(read_file(path).begun, 0U);
}

TEST_F(trace, a_word_without_a_slash_is_no_path)
{
    std::string said;
    EXPECT_EQ(set("yes", said), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(set("", said), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(platform_trace_set(nullptr), static_cast<qerrno>(EINVAL));
}

TEST_F(trace, its_file_is_its_owners_alone)
{
    switch_on();
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_THAT(files(), ElementsAre("trace"));
}

} // namespace
