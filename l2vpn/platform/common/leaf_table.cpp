#include "common/leaf_table.h"

#include <limits>
#include <utility>

namespace l2vpn::platform_core {
namespace {

/* The parts of a handle. Where an address has 64 bits, both have 32; where it has 32, a quarter of a
 * million leaves can be there at once. */
constexpr unsigned index_bits = sizeof(std::uintptr_t) >= 8 ? 32 : 18;
constexpr std::uintptr_t index_mask = (std::uintptr_t{1} << index_bits) - 1;
constexpr std::uintptr_t last_generation = std::numeric_limits<std::uintptr_t>::max() >> index_bits;

std::uintptr_t number_of(const mgd_timer_leaf_t *handle) noexcept
{
    return reinterpret_cast<std::uintptr_t>(handle);
}

/* Generations begin at 1, so that no handle is null. */
mgd_timer_leaf_t *handle_of(std::uintptr_t index, std::uintptr_t generation) noexcept
{
    return reinterpret_cast<mgd_timer_leaf_t *>(generation << index_bits | index);
}

constexpr nanoseconds_t second = 1'000'000'000;
constexpr nanoseconds_t latest = std::numeric_limits<nanoseconds_t>::max();

} // namespace

nanoseconds_t length_of(const struct timespec &duration) noexcept
{
    if (duration.tv_sec < 0 || duration.tv_nsec < 0) {
        return 0;
    }
    if (duration.tv_sec >= latest / second) {
        return latest;
    }
    return later_by(nanoseconds_t{duration.tv_sec} * second, nanoseconds_t{duration.tv_nsec});
}

nanoseconds_t later_by(nanoseconds_t time, nanoseconds_t by) noexcept
{
    return time > latest - by ? latest : time + by;
}

mgd_timer_leaf_t *leaf_table::create(leaf_order &tree, void *arg, mgd_timer_fn_t context)
{
    std::set<expiry> workshop{expiry{}};
    auto place = workshop.extract(workshop.begin());

    std::uint32_t index = oldest_free_;
    if (index == no_slot) {
        if (slots_.size() >= index_mask) {
            return nullptr;
        }
        index = static_cast<std::uint32_t>(slots_.size());
        slots_.emplace_back();
    } else {
        oldest_free_ = slots_[index].next_free;
        if (oldest_free_ == no_slot) {
            newest_free_ = no_slot;
        }
    }
    slot &taken = slots_[index];
    taken.content.handle = handle_of(index, taken.generation);
    taken.content.tree = &tree;
    taken.content.context = context;
    taken.content.arg = arg;
    taken.content.parked = std::move(place);
    ++live_count_;
    return taken.content.handle;
}

leaf *leaf_table::find(const mgd_timer_leaf_t *handle) noexcept
{
    const std::uintptr_t index = number_of(handle) & index_mask;
    if (handle == nullptr || index >= slots_.size()) {
        return nullptr;
    }
    leaf &content = slots_[index].content;
    return content.handle == handle ? &content : nullptr;
}

const leaf *leaf_table::readable(const mgd_timer_leaf_t *handle) noexcept
{
    return find(handle);
}

leaf *leaf_table::live(const mgd_timer_leaf_t *handle) noexcept
{
    leaf *found = find(handle);
    return found != nullptr && !found->freed ? found : nullptr;
}

void leaf_table::release(leaf &leaf) noexcept
{
    const auto index = static_cast<std::uint32_t>(number_of(leaf.handle) & index_mask);
    slot &released = slots_[index];
    released.content = {};
    if (released.generation == last_generation) {
        return;
    }
    ++released.generation;
    released.next_free = no_slot;
    (newest_free_ == no_slot ? oldest_free_ : slots_[newest_free_].next_free) = index;
    newest_free_ = index;
}

void leaf_table::free(leaf &leaf) noexcept
{
    stop(leaf);
    --live_count_;
    if (leaf.tree->handed_out == leaf.handle) {
        leaf.freed = true;
    } else {
        release(leaf);
    }
}

void leaf_table::free_all(leaf_order &tree) noexcept
{
    tree.handed_out = nullptr;
    for (slot &any : slots_) {
        if (any.content.tree != &tree) {
            continue;
        }
        if (any.content.freed) {
            release(any.content);
        } else {
            free(any.content);
        }
    }
}

void leaf_table::start(leaf &leaf, nanoseconds_t when) noexcept
{
    stop(leaf);
    leaf.parked.value() = expiry{.when = when, .start = ++starts_, .leaf = leaf.handle};
    leaf.position = leaf.tree->running.insert(std::move(leaf.parked)).position;
}

void leaf_table::stop(leaf &leaf) noexcept
{
    if (leaf.running()) {
        leaf.parked = leaf.tree->running.extract(leaf.position);
    }
}

mgd_timer_leaf_t *leaf_table::first_expired(leaf_order &tree, nanoseconds_t now) noexcept
{
    const auto first = tree.running.begin();
    mgd_timer_leaf_t *next = first != tree.running.end() && first->when <= now ? first->leaf : nullptr;

    const mgd_timer_leaf_t *previous = std::exchange(tree.handed_out, next);
    if (leaf *left = find(previous); left != nullptr && left->freed) {
        release(*left);
    }
    return next;
}

} // namespace l2vpn::platform_core
