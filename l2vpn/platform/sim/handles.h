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

/* As much of a value as there is room for between two bits of a handle. */
template <unsigned begin, unsigned end>
constexpr std::uintptr_t part(std::uint64_t value)
{
    return static_cast<std::uintptr_t>(value) & ((std::uintptr_t{1} << (end - begin)) - 1);
}

/*
 * From the top: tag, generation, 4 bits of kind, number, 4 bits of zero. Where addresses have 32 bits there is
 * room for fewer worlds and things, and for a shorter tag.
 */
struct handle_parts {
    static constexpr bool wide = sizeof(std::uintptr_t) >= sizeof(std::uint64_t);
    static constexpr unsigned number_at = 4;
    static constexpr unsigned kind_at = wide ? 32 : 16;
    static constexpr unsigned generation_at = kind_at + 4;
    static constexpr unsigned tag_at = wide ? 56 : 28;
    static constexpr std::uintptr_t tag = wide ? 0x5a : 0x5;

    std::uint32_t generation;
    kind what;
    std::uint32_t number; /* from 1 */

    [[nodiscard]] constexpr std::uintptr_t packed() const
    {
        return tag << tag_at | part<generation_at, tag_at>(generation) << generation_at |
               static_cast<std::uintptr_t>(what) << kind_at | part<number_at, kind_at>(number) << number_at;
    }

    [[nodiscard]] static constexpr handle_parts unpacked(std::uint64_t value)
    {
        if (value >> tag_at != tag)
            return {0, kind::none, 0};
        return {static_cast<std::uint32_t>(part<generation_at, tag_at>(value >> generation_at)),
                static_cast<kind>(value >> kind_at & 0xFu),
                static_cast<std::uint32_t>(part<number_at, kind_at>(value >> number_at))};
    }
};
static_assert(handle_parts::unpacked(handle_parts{77, kind::leaf, 5}.packed()).number == 5);

} // namespace l2vpn::sim

#endif
