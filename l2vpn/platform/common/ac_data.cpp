#include "common/core.h"

#include <algorithm>
#include <cerrno>
#include <span>

namespace l2vpn::platform_core {

qerrno sanitize(const l2vpn_ac_data_entry_t *entries, std::uint32_t count) noexcept
{
    if (count == 0) {
        return EOK;
    }
    if (entries == nullptr) {
        return EINVAL;
    }
    constexpr std::uint32_t no_handle = 0;
    constexpr std::uint32_t invalid_handle = 0xFFFFFFFF;
    const bool refused = std::ranges::any_of(std::span(entries, count), [](const auto &entry) {
        return entry.ifh == no_handle || entry.ifh == invalid_handle;
    });
    return refused ? EINVAL : EOK;
}

} // namespace l2vpn::platform_core
