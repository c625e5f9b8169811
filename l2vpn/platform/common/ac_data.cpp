#include "common/core.h"

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
    // All of them, whatever is found: nearly always there is nothing, and without a way out of the loop the
    // compiler takes several at once.
    std::uint32_t refused = 0;
    for (const l2vpn_ac_data_entry_t &entry : std::span(entries, count)) {
        refused |= static_cast<std::uint32_t>(entry.ifh == no_handle || entry.ifh == invalid_handle);
    }
    return refused != 0 ? EINVAL : EOK;
}

} // namespace l2vpn::platform_core
