#include "common/core.h"

#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace l2vpn::platform_core {

namespace {

constexpr std::size_t huge_from = std::size_t{4} << 20;

// Large arrays are better off on huge pages: first touched a small page each, they cost more than what is written
// into them. Advice only: without such pages, or where it is refused, nothing changes.
void advise_huge_pages(void *memory, std::size_t bytes) noexcept
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE)); // 4 to 64 KiB
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t first = (begin + page - 1) / page * page;
    static_cast<void>(
        madvise(reinterpret_cast<void *>(first), (begin + bytes - first) / page * page, MADV_HUGEPAGE));
}

} // namespace

void *allocate(std::size_t count, std::size_t size) noexcept
{
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        return nullptr;
    }
    // calloc() may answer null for no bytes, which callers would read as failure.
    void *const memory = std::calloc(bytes != 0 ? bytes : 1, 1);
    if (memory != nullptr && bytes >= huge_from) {
        advise_huge_pages(memory, bytes);
    }
    return memory;
}

} // namespace l2vpn::platform_core
