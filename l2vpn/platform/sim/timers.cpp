/*
 * Managed timers. A tree keeps its running leaves in the order of their expiry; the clock (clock.cpp)
 * posts a tree's code when leaves of it have expired.
 */
#include "calls.h"

#include "common/leaf_table.h"

namespace l2vpn::sim {

leaf *core::live_leaf(const mgd_timer_leaf_t *handle)
{
    const auto found = leaves.find(number_of(const_cast<mgd_timer_leaf_t *>(handle)));
    return found == leaves.end() || found->second.freed ? nullptr : &found->second;
}

const leaf *core::readable_leaf(const mgd_timer_leaf_t *handle) const
{
    const auto found = leaves.find(number_of(const_cast<mgd_timer_leaf_t *>(handle)));
    return found == leaves.end() ? nullptr : &found->second;
}

void core::start_leaf(std::uint32_t number, leaf &timer, duration after)
{
    stop_leaf(timer);
    const std::uint64_t rank = set.shuffle_equal_timers ? random() : ++timer_starts;
    timer.running = timer_key{duration(platform_core::later_by(now.count(), after.count())), rank, number};
    timer.announced = false;
    trees.at(timer.tree).running.insert(*timer.running);
}

void core::stop_leaf(leaf &timer)
{
    if (timer.running)
        trees.at(timer.tree).running.erase(*timer.running);
    timer.running.reset();
}

void core::free_leaf(std::uint32_t number)
{
    leaf &timer = leaves.at(number);
    stop_leaf(timer);
    if (trees.at(timer.tree).handed_out == number)
        timer.freed = true;
    else
        leaves.erase(number);
}

void core::take_back_leaf(timer_tree &tree)
{
    const auto found = leaves.find(std::exchange(tree.handed_out, 0));
    if (found != leaves.end() && found->second.freed)
        leaves.erase(found);
}

mgd_timer_leaf_t *core::first_expired(timer_tree &tree)
{
    take_back_leaf(tree);
    if (tree.running.empty() || tree.running.begin()->expiry > now)
        return nullptr;
    tree.handed_out = tree.running.begin()->leaf;
    return handle_of<mgd_timer_leaf_t *>(tree.handed_out);
}

} // namespace l2vpn::sim

using namespace l2vpn::sim;

mgd_timer_tree_t *mgd_timer_tree_new(const event_context_t *event, uint32_t count)
{
    const auto work = [&](core &world) -> mgd_timer_tree_t * {
        const std::uint32_t evm = event == nullptr ? 0 : world.number_of(event->evm);
        if (!world.event_managers.contains(evm))
            return nullptr;
        world.trees.emplace(++world.trees_made, timer_tree{evm, event->code});
        return world.handle_of<mgd_timer_tree_t *>(world.trees_made);
    };
    return invoke<mgd_timer_tree_t *>(fn::mgd_timer_tree_new, arguments(event, count), nullptr, work);
}

void mgd_timer_tree_free(mgd_timer_tree_t *tree)
{
    invoke<nothing>(fn::mgd_timer_tree_free, arguments(tree), {}, [&](core &world) {
        const std::uint32_t number = world.number_of(tree);
        const auto found = world.trees.find(number);
        if (found != world.trees.end()) {
            std::erase_if(world.leaves, [&](const auto &entry) { return entry.second.tree == number; });
            world.trees.erase(found);
        }
        return nothing{};
    });
}

mgd_timer_parent_t *mgd_timer_parent_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent)
{
    const auto work = [&](core &world) -> mgd_timer_parent_t * {
        if (!world.trees.contains(world.number_of(tree)) ||
            (parent != nullptr && !world.parents.contains(world.number_of(parent))))
            return nullptr;
        world.parents.insert(++world.parents_made);
        return world.handle_of<mgd_timer_parent_t *>(world.parents_made);
    };
    return invoke<mgd_timer_parent_t *>(fn::mgd_timer_parent_new, arguments(tree, parent), nullptr, work);
}

void mgd_timer_parent_free(mgd_timer_parent_t *parent)
{
    invoke<nothing>(fn::mgd_timer_parent_free, arguments(parent), {}, [&](core &world) {
        world.parents.erase(world.number_of(parent));
        return nothing{};
    });
}

mgd_timer_leaf_t *mgd_timer_leaf_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent, void *arg,
                                     mgd_timer_fn_t context)
{
    const auto work = [&](core &world) -> mgd_timer_leaf_t * {
        const std::uint32_t number = world.number_of(tree);
        if (!world.trees.contains(number) || !world.parents.contains(world.number_of(parent)))
            return nullptr;
        world.leaves.emplace(++world.leaves_made, leaf{number, context});
        return world.handle_of<mgd_timer_leaf_t *>(world.leaves_made);
    };
    return invoke<mgd_timer_leaf_t *>(fn::mgd_timer_leaf_new, arguments(tree, parent, arg, context), nullptr,
                                      work);
}

void mgd_timer_leaf_free(mgd_timer_leaf_t *leaf)
{
    invoke<nothing>(fn::mgd_timer_leaf_free, arguments(leaf), {}, [&](core &world) {
        if (world.live_leaf(leaf) != nullptr)
            world.free_leaf(world.number_of(leaf));
        return nothing{};
    });
}

mgd_timer_fn_t mgd_timer_leaf_get_context(const mgd_timer_leaf_t *leaf)
{
    const auto work = [&](core &world) -> mgd_timer_fn_t {
        const auto *found = world.readable_leaf(leaf);
        return found == nullptr ? nullptr : found->function;
    };
    return invoke<mgd_timer_fn_t>(fn::mgd_timer_leaf_get_context, arguments(leaf), nullptr, work);
}

int mgd_timer_leaf_set_addl_context(mgd_timer_leaf_t *leaf, uint32_t index, void *context)
{
    const auto work = [&](core &world) {
        auto *found = world.live_leaf(leaf);
        if (found == nullptr || index >= MGD_TIMER_ADDL_CONTEXTS) {
            errno = EINVAL;
            return -1;
        }
        found->contexts.at(index) = context;
        return 0;
    };
    return invoke<int>(fn::mgd_timer_leaf_set_addl_context, arguments(leaf, index, context), -1, work);
}

void *mgd_timer_leaf_get_addl_context(const mgd_timer_leaf_t *leaf, uint32_t index)
{
    const auto work = [&](core &world) -> void * {
        const auto *found = world.readable_leaf(leaf);
        return found == nullptr || index >= MGD_TIMER_ADDL_CONTEXTS ? nullptr : found->contexts.at(index);
    };
    return invoke<void *>(fn::mgd_timer_leaf_get_addl_context, arguments(leaf, index), nullptr, work);
}

int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf)
{
    return invoke<int>(fn::mgd_timer_leaf_running, arguments(leaf), 0, [&](core &world) {
        const auto *found = world.live_leaf(leaf);
        return found != nullptr && found->running ? 1 : 0;
    });
}

void mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *length)
{
    const duration after(length == nullptr ? 0 : l2vpn::platform_core::length_of(*length));
    invoke<nothing>(fn::mgd_timer_leaf_start, arguments(leaf, after.count()), {}, [&](core &world) {
        auto *found = world.live_leaf(leaf);
        if (found != nullptr && length != nullptr)
            world.start_leaf(world.number_of(leaf), *found, after);
        return nothing{};
    });
}

void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf)
{
    invoke<nothing>(fn::mgd_timer_leaf_stop, arguments(leaf), {}, [&](core &world) {
        if (auto *found = world.live_leaf(leaf))
            world.stop_leaf(*found);
        return nothing{};
    });
}

mgd_timer_leaf_t *mgd_timer_tree_first_expired(mgd_timer_tree_t *tree)
{
    const auto work = [&](core &world) -> mgd_timer_leaf_t * {
        const auto found = world.trees.find(world.number_of(tree));
        return found == world.trees.end() ? nullptr : world.first_expired(found->second);
    };
    return invoke<mgd_timer_leaf_t *>(fn::mgd_timer_tree_first_expired, arguments(tree), nullptr, work);
}
