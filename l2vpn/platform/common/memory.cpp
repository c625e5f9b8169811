#include "common/core.h"

#include <cstdlib>

namespace l2vpn::platform_core {

void *allocate(std::size_t count, std::size_t size) noexcept
{
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        return nullptr;
    }
    // calloc() may answer null for no bytes, which callers would read as failure.
    return std::calloc(bytes != 0 ? bytes : 1, 1);
}

} // namespace l2vpn::platform_core
