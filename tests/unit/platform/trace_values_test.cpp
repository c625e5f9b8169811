#include "trace/values.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>

namespace {

using namespace l2vpn::trace;

struct kept {
    std::string text;
    bool cut;
};

/* A text as it comes out of `room` words. */
kept through(std::size_t room, const char *format, ...)
{
    std::array<std::uint64_t, 32> words{};
    va_list values;
    va_start(values, format);
    const encoded done = encode(std::span(words).first(room), format, ENOENT, values);
    va_end(values);
    EXPECT_LE(done.used, room);
    return {render(format, std::span(words).first(done.used)), done.cut};
}

/* What printf makes of it is what must come out. */
#define EXPECT_AS_PRINTF(...)                                                                                \
    do {                                                                                                     \
        std::array<char, 512> expected{};                                                                    \
        std::snprintf(expected.data(), expected.size(), __VA_ARGS__);                                        \
        const kept result = through(32, __VA_ARGS__);                                                        \
        EXPECT_EQ(result.text, expected.data());                                                             \
        EXPECT_FALSE(result.cut);                                                                            \
    } while (false)

TEST(trace_values, come_out_as_printf_prints_them)
{
    EXPECT_AS_PRINTF("no values at all");
    EXPECT_AS_PRINTF("100%% of %u", 7U);
    EXPECT_AS_PRINTF("%d %i %u %x %X %o %c", -1, 2, 3U, 0xabU, 0xCDU, 8U, 'z');
    EXPECT_AS_PRINTF("%ld %lu %lld %llu %zu %jd %td", -1L, 2UL, -3LL, 4ULL, std::size_t{5}, std::intmax_t{-6},
                     std::ptrdiff_t{7});
    EXPECT_AS_PRINTF("%lld %llu", std::numeric_limits<long long>::min(),
                     std::numeric_limits<unsigned long long>::max());
    EXPECT_AS_PRINTF("%5d|%-5d|%05d|%+d|% d|%#x|%#o", 42, 42, 42, 42, 42, 42U, 42U);
    EXPECT_AS_PRINTF("%*d|%-*d|%.*f|%*d", 6, 1, 6, 2, 3, 1.5, -6, 3);
    EXPECT_AS_PRINTF("%f %e %g %a %.2f %Lf", 1.25, 2.5e10, 0.1, 1.0, 3.14159, 2.5L);
    EXPECT_AS_PRINTF("%s and %10s|%-10s|%.3s|%.*s|%.0s", "one", "two", "three", "four", 2, "five", "six");
    EXPECT_AS_PRINTF("%p", static_cast<const void *>("x"));
    EXPECT_AS_PRINTF("%.3d|%.0d", 5, 7);
    EXPECT_AS_PRINTF("%s", "");
}

TEST(trace_values, are_printed_in_every_length)
{
    EXPECT_AS_PRINTF("%td %zd %ld %jd", std::ptrdiff_t{-1}, ssize_t{-2}, -3L, std::intmax_t{-5});
    EXPECT_AS_PRINTF("%tx %zx %lx %jx %llx", std::ptrdiff_t{1}, std::size_t{2}, 3UL, std::uintmax_t{5}, 6ULL);
    EXPECT_EQ(through(8, "%qd %qx", -4LL, 10ULL).text, "-4 a");
    EXPECT_AS_PRINTF("%.*f|%.*s|%.*d", -1, 1.5, -1, "all of it", -1, 7);
}

/* Words that end in the middle of a conversion: it comes out as it stands, and so does all behind it. */
TEST(trace_values, that_are_missing_leave_their_conversion_as_it_stands)
{
    const char *format = "%*d, %.*f and %d";
    const std::array<std::uint64_t, 5> words{6, 1, 2, std::bit_cast<std::uint64_t>(1.5), 3};
    EXPECT_EQ(render(format, words), "     1, 1.50 and 3");
    EXPECT_EQ(render(format, std::span(words).first(0)), format);
    EXPECT_EQ(render(format, std::span(words).first(1)), format);
    EXPECT_EQ(render(format, std::span(words).first(2)), "     1, %.*f and %d");
    EXPECT_EQ(render(format, std::span(words).first(3)), "     1, %.*f and %d");
    EXPECT_EQ(render(format, std::span(words).first(4)), "     1, 1.50 and %d");
}

/* However little room there is, what fits is told, and that the rest is cut. */
TEST(trace_values, of_stars_without_room_are_cut)
{
    EXPECT_TRUE(through(0, "%*d", 6, 1).cut);
    EXPECT_TRUE(through(1, "%*d", 6, 1).cut);
    EXPECT_TRUE(through(0, "%.*d", 6, 1).cut);
    EXPECT_TRUE(through(1, "%*.*d", 6, 3, 1).cut);
    EXPECT_FALSE(through(3, "%*.*d", 6, 3, 1).cut);
}

TEST(trace_values, short_types_keep_their_width)
{
    EXPECT_EQ(through(8, "%hhd %hhu %hd %hu", 300, 300, 70000, 70000).text, "44 44 4464 4464");
}

TEST(trace_values, the_error_number_is_that_of_the_call)
{
    EXPECT_EQ(through(4, "failed: %m").text, "failed: No such file or directory");
}

TEST(trace_values, a_null_string_is_told)
{
    const char *none = nullptr;
    EXPECT_EQ(through(4, "<%s>", none).text, "<(null)>");
}

TEST(trace_values, a_string_of_a_given_length_is_not_read_beyond_it)
{
    const std::array letters{'a', 'b', 'c'}; // not terminated
    EXPECT_EQ(through(8, "%.3s", letters.data()).text, "abc");
    EXPECT_EQ(through(8, "%.*s", 2, letters.data()).text, "ab");
}

TEST(trace_values, a_string_that_does_not_fit_is_cut)
{
    const kept result = through(3, "%s!", "0123456789abcdefghij");
    EXPECT_EQ(result.text, "0123456789abcdef!");
    EXPECT_TRUE(result.cut);
}

TEST(trace_values, values_without_room_come_out_as_their_conversions)
{
    const kept result = through(2, "%u %u %5u, end", 1U, 2U, 3U);
    EXPECT_EQ(result.text, "1 2 %5u, end");
    EXPECT_TRUE(result.cut);
    EXPECT_TRUE(through(0, "%s", "x").cut);
    EXPECT_EQ(through(0, "%s", "x").text, "%s");
}

TEST(trace_values, a_string_that_just_fits_is_whole)
{
    const kept result = through(2, "%s", "01234567");
    EXPECT_EQ(result.text, "01234567");
    EXPECT_FALSE(result.cut);
}

/* The reader's side trusts nothing. */
TEST(trace_values, damaged_formats_and_words_do_no_harm)
{
    const std::array<std::uint64_t, 3> words{std::uint64_t{1} << 40, ~std::uint64_t{0}, 5};
    EXPECT_EQ(render("%n%s", words), "%n\xff\xff\xff\xff\xff\xff\xff\xff\x05")
        << "a length beyond the words is cut to them";
    EXPECT_EQ(render("%", words), "%");
    EXPECT_EQ(render("%5", words), "%5");
    EXPECT_EQ(render("%ls %lc %1$d %y", words), "%ls %lc %1$d %y");
    EXPECT_LE(render("%*d", words).size(), 1024U);
    EXPECT_LE(render("%999999999999999999999d", words).size(), 1024U);
    EXPECT_LE(render("%.999999999f", words).size(), 1024U);
    EXPECT_EQ(render("", words), "");
}

} // namespace
