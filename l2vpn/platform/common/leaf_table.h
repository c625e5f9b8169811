/*
 * Managed timers without a clock or a lock: the leaves of all trees, and the order in which they expire.
 *
 * A leaf's handle is a number dressed as a pointer: the index of its slot and the slot's generation, which
 * changes whenever the slot is freed. It is never dereferenced, so a handle that outlived its leaf is
 * simply found to name nothing. Slots are taken again oldest first, and one whose generations are used up
 * is taken no more: no handle ever comes twice.
 *
 * The leaf that a tree handed out last stays readable when it is freed (`freed` is set, it does not run),
 * until the tree hands out the next.
 *
 * Times are nanoseconds on the caller's clock. Calls on one table, and on the orders of its trees, must be
 * serialised by the caller.
 */
#ifndef PLATFORM_COMMON_LEAF_TABLE_H
#define PLATFORM_COMMON_LEAF_TABLE_H

#include <platform/mgd_timer.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>

namespace l2vpn::platform_core {

using nanoseconds_t = std::int64_t;

/* The length of a timespec, 0 for a negative one, the longest there is for one that does not fit. */
[[nodiscard]] nanoseconds_t length_of(const struct timespec &duration) noexcept;

/* Two times added, with the latest time there is for a sum that does not fit. */
[[nodiscard]] nanoseconds_t later_by(nanoseconds_t time, nanoseconds_t by) noexcept;

/* When a running leaf expires. Equal times come in the order of `start`, a number that counts up. */
struct expiry {
    nanoseconds_t when = 0;
    std::uint64_t start = 0;
    mgd_timer_leaf_t *leaf = nullptr;

    friend bool operator<(const expiry &first, const expiry &second) noexcept
    {
        return first.when != second.when ? first.when < second.when : first.start < second.start;
    }
};

/* What a tree of leaves is here: its running leaves in order, and the leaf handed out last. A platform's
 * tree embeds or derives from it. */
struct leaf_order {
    std::set<expiry> running;
    mgd_timer_leaf_t *handed_out = nullptr;
};

/* A leaf owns its place in the order from the beginning, parked while it is stopped: starting cannot fail. */
struct leaf {
    mgd_timer_leaf_t *handle = nullptr;
    leaf_order *tree = nullptr;
    mgd_timer_fn_t context = nullptr;
    void *arg = nullptr;
    std::array<void *, MGD_TIMER_ADDL_CONTEXTS> addl_context{};
    std::set<expiry>::node_type parked;
    std::set<expiry>::iterator position;
    bool freed = false;

    [[nodiscard]] bool running() const noexcept { return parked.empty(); }
};

class leaf_table {
public:
    /* A stopped leaf of `tree`; null when the table is full. Throws std::bad_alloc. */
    [[nodiscard]] mgd_timer_leaf_t *create(leaf_order &tree, void *arg, mgd_timer_fn_t context);

    /* Stops and frees a live leaf. */
    void free(leaf &leaf) noexcept;

    /* Frees all leaves of a tree, the one handed out too. */
    void free_all(leaf_order &tree) noexcept;

    /* The leaf that a handle names, for reading: a freed one too while it stays readable. Null for all
     * other handles. */
    [[nodiscard]] const leaf *readable(const mgd_timer_leaf_t *handle) noexcept;

    /* The leaf that a handle names, null when it was freed. */
    [[nodiscard]] leaf *live(const mgd_timer_leaf_t *handle) noexcept;

    /* Starts a live leaf, anew when it runs; stops one. */
    void start(leaf &leaf, nanoseconds_t when) noexcept;
    static void stop(leaf &leaf) noexcept;

    /* The leaf of `tree` that expired first, `now` or before; null when there is none. */
    [[nodiscard]] mgd_timer_leaf_t *first_expired(leaf_order &tree, nanoseconds_t now) noexcept;

    /* Leaves that are there, those that only stay readable not among them. */
    [[nodiscard]] std::size_t live_count() const noexcept { return live_count_; }

private:
    static constexpr std::uint32_t no_slot = 0xFFFFFFFF;

    struct slot {
        std::uintptr_t generation = 1;
        std::uint32_t next_free = no_slot;
        leaf content;
    };

    [[nodiscard]] leaf *find(const mgd_timer_leaf_t *handle) noexcept;
    void release(leaf &leaf) noexcept;

    std::deque<slot> slots_; /* only grows; a slot stays where it is */
    std::uint32_t oldest_free_ = no_slot;
    std::uint32_t newest_free_ = no_slot;
    std::size_t live_count_ = 0;
    std::uint64_t starts_ = 0;
};

} // namespace l2vpn::platform_core

#endif
