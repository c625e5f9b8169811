/*
 * Where large arenas stand: on whole huge pages, wherever the kernel has placed them, and nowhere when they are gone.
 * This program stands in front of madvise() and mmap().
 */
#include "slot_array.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr uint32_t slot_size = 636;
constexpr uint32_t slots = 300'000; /* arenas as large as they get */

struct range {
    std::uintptr_t begin;
    std::size_t size;

    bool has(const uint8_t *place, std::size_t bytes) const
    {
        const auto at = reinterpret_cast<std::uintptr_t>(place);
        return at >= begin && at + bytes <= begin + size;
    }
};

struct watched {
    std::vector<range> mapped;
    std::vector<range> advised;
};
watched *s_watched;
bool s_watches; /* large mappings; they begin a page behind a huge page's begin */

bool any_is_mapped(const range &of)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    unsigned char is_there = 0;
    for (std::size_t at = 0; at < of.size; at += page)
        if (mincore(reinterpret_cast<void *>(of.begin + at), page, &is_there) == 0)
            return true;
    return false;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int madvise(void *at, size_t size, int kind) noexcept
{
    if (s_watches && kind == MADV_HUGEPAGE)
        s_watched->advised.push_back({reinterpret_cast<std::uintptr_t>(at), size});
    return 0;
}

/* Also called before a sanitizer has begun its work, which it must not ask for then. */
extern "C" __attribute__((visibility("default"), no_sanitize("address", "undefined", "thread"))) void *
mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset) noexcept
{
    using function = void *(*)(void *, size_t, int, int, int, off_t);
    const auto next = reinterpret_cast<function>(dlsym(RTLD_NEXT, "mmap"));
    if (!s_watches || size < huge_page)
        return next(at, size, protection, flags, fd, offset);
    const auto aside = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void *const all = next(at, size + 2 * huge_page, protection, flags, fd, offset);
    if (all == MAP_FAILED)
        return all;
    const auto begin = reinterpret_cast<std::uintptr_t>(all);
    const std::uintptr_t given = (begin + huge_page - 1) / huge_page * huge_page + aside;
    munmap(all, given - begin);
    munmap(reinterpret_cast<void *>(given + size), begin + 2 * huge_page - given);
    s_watched->mapped.push_back({given, size});
    return reinterpret_cast<void *>(given);
}

namespace {

class large_arenas : public testing::Test {
protected:
    large_arenas()
    {
        seen.mapped.reserve(32);
        seen.advised.reserve(32);
        s_watched = &seen;
        s_watches = true;
        array.reserve(slots);
        s_watches = false;
    }

    watched seen;
    l2vpnd::slot_array array{slot_size};
};

TEST_F(large_arenas, stand_on_whole_huge_pages_wherever_the_kernel_has_placed_them)
{
    ASSERT_GT(seen.advised.size(), 2u);
    ASSERT_EQ(seen.advised.size(), seen.mapped.size());
    for (std::size_t i = 0; i < seen.advised.size(); i++) {
        const range &advised = seen.advised[i];
        EXPECT_EQ(advised.begin % huge_page, 0u);
        EXPECT_EQ(advised.size % huge_page, 0u);
        EXPECT_TRUE(seen.mapped[i].has(reinterpret_cast<const uint8_t *>(advised.begin), advised.size));
    }
    std::size_t inside = 0;
    for (uint32_t slot = 0; slot < slots; slot++) {
        if (slot % 512 == 0 || slot == slots - 1) /* some of them are written: all would be 190 MB */
            memset(array.at(slot), 0xac, slot_size);
        inside += std::ranges::any_of(seen.advised,
                                      [&](const range &of) { return of.has(array.at(slot), slot_size); });
    }
    EXPECT_GT(inside, slots - huge_page * 2 / slot_size) << "all but those of the small arenas";
}

TEST_F(large_arenas, are_given_back_whole)
{
    array.release();
    for (const range &of : seen.mapped)
        EXPECT_FALSE(any_is_mapped(of));
}

} // namespace
