/*
 * Handles of the platform's things: numbers dressed as pointers. The generation is that of the world, so
 * that a handle which outlived its world is refused by the next; the top byte makes an address that nothing
 * can lie at, so that whoever follows one stops at once.
 */
#ifndef L2VPN_SIM_HANDLES_H
#define L2VPN_SIM_HANDLES_H

#include <platform/event_loop.h>
#include <platform/platform.h>

#include <cstdint>

namespace l2vpn::sim {

enum class kind : std::uint8_t { none, event_mgr, tree, parent, leaf, client, debug_ctx };

template <class Handle>
inline constexpr kind kind_of = kind::none;
template <>
inline constexpr kind kind_of<event_mgr_p> = kind::event_mgr;
template <>
inline constexpr kind kind_of<mgd_timer_tree_t *> = kind::tree;
template <>
inline constexpr kind kind_of<mgd_timer_parent_t *> = kind::parent;
template <>
inline constexpr kind kind_of<mgd_timer_leaf_t *> = kind::leaf;
template <>
inline constexpr kind kind_of<l2vpn_ipc_client_t> = kind::client;
template <>
inline constexpr kind kind_of<l2vpn_debug_ctx_t *> = kind::debug_ctx;

/* From the top: 8 bits of tag, 20 of generation, 4 of kind, 28 of number, 4 of zero. */
struct handle_parts {
    static constexpr std::uint64_t tag = 0x5a;

    std::uint32_t generation;
    kind what;
    std::uint32_t number; /* from 1 */

    [[nodiscard]] constexpr std::uint64_t packed() const
    {
        return tag << 56 | static_cast<std::uint64_t>(generation & 0xFFFFFu) << 36 |
               static_cast<std::uint64_t>(what) << 32 | static_cast<std::uint64_t>(number & 0xFFFFFFFu) << 4;
    }

    [[nodiscard]] static constexpr handle_parts unpacked(std::uint64_t value)
    {
        if (value >> 56 != tag)
            return {0, kind::none, 0};
        return {static_cast<std::uint32_t>(value >> 36 & 0xFFFFFu), static_cast<kind>(value >> 32 & 0xFu),
                static_cast<std::uint32_t>(value >> 4 & 0xFFFFFFFu)};
    }
};
static_assert(sizeof(void *) == 8, "handles take 64 bits");
static_assert(handle_parts::unpacked(handle_parts{77, kind::leaf, 5}.packed()).number == 5);

} // namespace l2vpn::sim

#endif
