#include "child.h"

#include <platform/config.h>
#include <platform/debug.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <gmock/gmock.h>
#include <mutex>
#include <syslog.h>
#include <utility>

/* Takes the C library's place: what goes to the system's log is collected here. */
namespace {
std::mutex log_lock;
std::vector<std::string> log_lines;

void log_line(int level, const char *format, va_list values)
{
    std::array<char, 2048> text{};
    std::vsnprintf(text.data(), text.size(), format, values);
    const std::lock_guard guard(log_lock);
    log_lines.push_back(std::to_string(level) + " " + text.data());
}

std::vector<std::string> take_log()
{
    const std::lock_guard guard(log_lock);
    return std::exchange(log_lines, {});
}
} // namespace

extern "C" __attribute__((visibility("default"))) void vsyslog(int level, const char *format, va_list values)
{
    log_line(level, format, values);
}

extern "C" __attribute__((visibility("default"))) void syslog(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_line(level, format, values);
    va_end(values);
}

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class debug_texts : public ::testing::Test {
protected:
    void SetUp() override { take_log(); }
    void TearDown() override { EXPECT_EQ(platform_debug_set_sink("off"), EOK); }

    static bool all(const gen_dbg_bitset_t *set, std::uint64_t word)
    {
        return std::ranges::all_of(set->words, [word](std::uint64_t each) { return each == word; });
    }

    /* What `function` writes to standard error. */
    template <typename Function>
    static std::string said_by(Function function)
    {
        ::testing::internal::CaptureStderr();
        function();
        return ::testing::internal::GetCapturedStderr();
    }
};

TEST_F(debug_texts, are_off_by_default_and_their_bits_clear)
{
    EXPECT_TRUE(all(gen_dbg_get_enabled_bitset(), 0));
    EXPECT_TRUE(all(gen_dbg_ltrace_get_dbg_bitset(), 0));
    EXPECT_EQ(said_by([] {
                  gen_format_debug_fmt(1094, "f", 1, "text");
                  gen_dbg_ltrace_ctx(1079, "f", 1, "text");
                  l2vpn_generic_gen_dbg_ltrace_ctx(nullptr, nullptr, 163, "f", 1, "text");
                  l2vpn_gen_assert_errmsg(1);
              }),
              "");
}

TEST_F(debug_texts, on_standard_error_are_a_line_each)
{
    ASSERT_EQ(platform_debug_set_sink("stderr"), EOK);
    EXPECT_TRUE(all(gen_dbg_get_enabled_bitset(), ~std::uint64_t{0}));
    EXPECT_TRUE(all(gen_dbg_ltrace_get_dbg_bitset(), ~std::uint64_t{0}));
    EXPECT_EQ(l2vpn_check_ltrace_buffer(L2VPN_LTRACE_KEY(1, 1)), 0) << "records are for the ring";
    EXPECT_THAT(said_by([] {
                    gen_format_debug_fmt(1094, "a_function", 7, "text %d", 5);
                    gen_ltrace(1079, "a record only");
                    l2vpn_ltrace(L2VPN_LTRACE_KEY(9, 1), "%u ", 3U);
                    gen_dbg_ltrace_ctx(1079, "a_function", 8, "entered");
                    l2vpn_generic_gen_dbg_ltrace_ctx(nullptr, nullptr, 163, "a_function", 9, "bad %s", "end");
                }),
                MatchesRegex("l2vpn\\[[0-9]+\\] debug 1094 a_function:7: text 5\n"
                             "l2vpn\\[[0-9]+\\] entry 1079 a_function:8: entered\n"
                             "l2vpn\\[[0-9]+\\] report 163 a_function:9: bad end\n"));
    EXPECT_THAT(said_by([] { l2vpn_gen_assert_errmsg(17); }), HasSubstr("17"));
}

TEST_F(debug_texts, to_syslog_are_of_level_debug)
{
    ASSERT_EQ(platform_debug_set_sink("syslog"), EOK);
    EXPECT_EQ(said_by([] { gen_format_debug_fmt(1094, "a_function", 7, "text %d", 5); }), "");
    EXPECT_THAT(take_log(), ElementsAre("7 debug 1094 a_function:7: text 5"));
}

TEST_F(debug_texts, a_long_text_is_cut_and_still_a_line)
{
    ASSERT_EQ(platform_debug_set_sink("stderr"), EOK);
    const std::string text(5000, 'x');
    const std::string function(5000, 'f');
    const std::string said = said_by([&] { gen_format_debug_fmt(1, "f", 1, "%s", text.c_str()); });
    EXPECT_EQ(std::ranges::count(said, '\n'), 1);
    EXPECT_GT(said.size(), 1000U);
    const std::string long_function = said_by([&] { gen_format_debug_fmt(1, function.c_str(), 1, "x"); });
    EXPECT_EQ(std::ranges::count(long_function, '\n'), 1);
    EXPECT_EQ(long_function.back(), '\n');
}

TEST_F(debug_texts, keep_errno_and_know_it)
{
    ASSERT_EQ(platform_debug_set_sink("stderr"), EOK);
    void (*const any_format)(std::uint32_t, const char *, std::uint32_t, const char *, ...) =
        gen_format_debug_fmt;
    EXPECT_THAT(said_by([&] {
                    errno = ENOENT;
                    any_format(1, "f", 1, "%m");
                    EXPECT_EQ(errno, ENOENT);
                }),
                HasSubstr(": No such file or directory\n"));
}

TEST_F(debug_texts, there_are_three_sinks)
{
    EXPECT_EQ(platform_debug_set_sink("loud"), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(platform_debug_set_sink(""), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(platform_debug_set_sink(nullptr), static_cast<qerrno>(EINVAL));
}

TEST_F(debug_texts, a_function_may_be_unknown)
{
    ASSERT_EQ(platform_debug_set_sink("stderr"), EOK);
    EXPECT_THAT(said_by([] { gen_format_debug_fmt(1, nullptr, 3, "text"); }), HasSubstr(" ?:3: text\n"));
}

TEST(system_log, gets_its_messages_whatever_is_traced)
{
    take_log();
    errno = EPROTO;
    vy_syslog(6, "type(0x%x) file %s", 0x11U, "name");
    EXPECT_EQ(errno, EPROTO);
    EXPECT_THAT(take_log(), ElementsAre("6 type(0x11) file name"));
}

/* The values of one message are given to everybody who wants it, texts among them. */
TEST_F(debug_texts, of_the_system_log_are_whole_in_every_sink)
{
    for (const char *const sink : {"off", "stderr", "syslog"}) {
        ASSERT_EQ(platform_debug_set_sink(sink), EOK);
        const std::string said = said_by([] { vy_syslog(6, "type(0x%x) file %s:%d", 0x11U, "name", 9); });
        const auto log = take_log();
        ASSERT_FALSE(log.empty()) << sink;
        EXPECT_EQ(log.back(), "6 type(0x11) file name:9") << sink;
        if (std::string_view(sink) == "stderr") {
            EXPECT_THAT(said, HasSubstr("type(0x11) file name:9\n"));
        } else {
            EXPECT_EQ(said, "") << sink;
        }
    }
}

TEST(debug_context, is_there_after_the_initialisation)
{
    EXPECT_EQ(l2vpn_debug_get_ctx(), nullptr);
    EXPECT_EQ(l2vpn_debug_get_enabled_bitset(), nullptr);
    EXPECT_EQ(l2vpn_debug_init(nullptr), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(l2vpn_debug_get_ctx(), nullptr);
    int somewhere = 0;
    auto *evm = reinterpret_cast<event_mgr_p>(&somewhere); // kept by nobody
    EXPECT_EQ(l2vpn_debug_init(evm), EOK);
    l2vpn_debug_ctx_t *context = l2vpn_debug_get_ctx();
    EXPECT_NE(context, nullptr);
    EXPECT_EQ(l2vpn_debug_init(evm), EOK);
    EXPECT_EQ(l2vpn_debug_get_ctx(), context);
    ASSERT_NE(l2vpn_debug_get_enabled_bitset(), nullptr);
    EXPECT_EQ(l2vpn_debug_get_enabled_bitset()->words[17], 0U);
}

TEST(debug_environment, opens_the_sink_at_the_first_text)
{
    const auto result = system_test::run(PROBE, {"debug"}, {"L2VPN_DEBUG=stderr"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, AllOf(HasSubstr("debug 1094 a_function:7: text 5\n"),
                                  HasSubstr("syslog 6 ?:0: to the log: 1f\n")));
    EXPECT_THAT(system_test::run(PROBE, {"debug"}).err, IsEmpty());
}

} // namespace
