/*
 * What large allocations ask of the kernel. This program stands in front of madvise() and sysconf().
 */
#include <platform/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

struct advice {
    std::uintptr_t begin;
    std::size_t size;
    int kind;
};

std::vector<advice> *s_given;
bool s_refuses;
long s_page_size; /* 0: the machine's own */

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/* What was asked for while `bytes` bytes were allocated and written; that they were zeros at first. */
std::vector<advice> advice_for(std::size_t count, std::size_t size, std::uintptr_t &begin)
{
    std::vector<advice> given;
    s_given = &given;
    auto *const memory = static_cast<unsigned char *>(calloc_named(count, size, "test"));
    s_given = nullptr;
    EXPECT_NE(memory, nullptr);
    if (memory == nullptr)
        return given;
    begin = reinterpret_cast<std::uintptr_t>(memory);
    EXPECT_TRUE(std::all_of(memory, memory + count * size, [](unsigned char byte) { return byte == 0; }));
    std::fill_n(memory, count * size, 1);
    free(memory);
    return given;
}

} // namespace

/* The sanitizers' allocators end the program where there is no memory, if they are not told otherwise. */
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "allocator_may_return_null=1";
}

extern "C" __attribute__((visibility("default"))) int madvise(void *at, size_t size, int kind) noexcept
{
    if (s_given != nullptr)
        s_given->push_back({reinterpret_cast<std::uintptr_t>(at), size, kind});
    if (s_refuses) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

/* The C library's own, by its other name. */
extern "C" long __sysconf(int name) noexcept;

/* Also called before a sanitizer has begun its work, which it must not ask for then. */
extern "C" __attribute__((visibility("default"), no_sanitize("address", "undefined", "thread"))) long
sysconf(int name) noexcept
{
    return name == _SC_PAGESIZE && s_page_size != 0 ? s_page_size : __sysconf(name);
}

namespace {

void expect_whole_pages(std::size_t page)
{
    for (const std::size_t size : {4 * mebibyte, 4 * mebibyte + 1, 23 * mebibyte}) {
        SCOPED_TRACE(size);
        std::uintptr_t begin = 0;
        const std::vector<advice> given = advice_for(size, 1, begin);
        ASSERT_EQ(given.size(), 1u);
        EXPECT_EQ(given[0].kind, MADV_HUGEPAGE);
        EXPECT_EQ(given[0].begin % page, 0u) << "whole pages only";
        EXPECT_EQ(given[0].size % page, 0u) << "whole pages only";
        EXPECT_GE(given[0].begin, begin);
        EXPECT_LE(given[0].begin + given[0].size, begin + size) << "not of memory that is others'";
        EXPECT_GT(given[0].size, size - 2 * page) << "all of it";
    }
}

TEST(large_memory, asks_for_huge_pages_from_4_mebibytes_on)
{
    expect_whole_pages(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
}

/* As some processors have them. */
TEST(large_memory, asks_for_whole_pages_where_they_are_larger)
{
    for (const long page : {16L << 10, 64L << 10}) {
        SCOPED_TRACE(page);
        s_page_size = page;
        expect_whole_pages(static_cast<std::size_t>(page));
    }
    s_page_size = 0;
}

TEST(large_memory, counts_elements_times_their_size)
{
    std::uintptr_t begin = 0;
    EXPECT_EQ(advice_for(2 * mebibyte, 2, begin).size(), 1u);
    EXPECT_EQ(advice_for(4, mebibyte - 1, begin).size(), 0u);
}

TEST(large_memory, asks_for_nothing_below)
{
    std::uintptr_t begin = 0;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4096}, 4 * mebibyte - 1}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(advice_for(size, 1, begin).size(), 0u);
    }
}

TEST(large_memory, is_there_where_the_advice_is_refused)
{
    s_refuses = true;
    std::uintptr_t begin = 0;
    EXPECT_EQ(advice_for(5 * mebibyte, 1, begin).size(), 1u);
    s_refuses = false;
}

TEST(large_memory, that_is_not_there_is_null_and_nothing_is_asked_for)
{
    std::vector<advice> given;
    s_given = &given;
    EXPECT_EQ(calloc_named(SIZE_MAX / 2, 1, "test"), nullptr);
    s_given = nullptr;
    EXPECT_EQ(given.size(), 0u);
}

} // namespace
