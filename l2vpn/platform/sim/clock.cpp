/*
 * The clock, and the queue of what is due. Moving the clock puts what falls due into the queue: the codes
 * of timer trees, and what the test has scheduled. Everything here is under the lock, unless it says so.
 */
#include "core.h"

#include "common/leaf_table.h"

#include <algorithm>
#include <stdexcept>

namespace l2vpn::sim {

std::uint32_t core::new_event_manager()
{
    event_managers.try_emplace(++event_managers_made);
    return event_managers_made;
}

void core::free_event_manager(std::uint32_t evm)
{
    event_managers.erase(evm);
    std::erase_if(queue, [&](const delivery &item) {
        const auto *posted = std::get_if<posted_code>(&item.what);
        return posted != nullptr && posted->evm == evm;
    });
}

void core::enqueue(decltype(delivery::what) what)
{
    queue.push_back({++queued, std::move(what)});
}

std::optional<duration> core::next_due(std::optional<std::uint32_t> evm) const
{
    std::optional<duration> soonest;
    const auto consider = [&](duration due) { soonest = std::min(due, soonest.value_or(due)); };
    if (!scheduled.empty())
        consider(scheduled.begin()->first);
    for (const auto &[number, tree] : trees) {
        if (evm && tree.evm != *evm)
            continue;
        const auto waiting = std::ranges::find_if(
            tree.running, [&](const timer_key &key) { return !leaves.at(key.leaf).announced; });
        if (waiting != tree.running.end())
            consider(waiting->expiry);
    }
    return soonest;
}

/* Marks the leaves of a tree that have expired; tells when the first of them did. */
std::optional<duration> core::newly_expired(const timer_tree &tree)
{
    std::optional<duration> first;
    for (const timer_key &key : tree.running) {
        if (key.expiry > now)
            break;
        if (!std::exchange(leaves.at(key.leaf).announced, true))
            first = first.value_or(key.expiry);
    }
    return first;
}

void core::enqueue_due()
{
    std::vector<std::pair<duration, decltype(delivery::what)>> due;
    for (; !scheduled.empty() && scheduled.begin()->first <= now; scheduled.erase(scheduled.begin()))
        due.emplace_back(scheduled.begin()->first, scripted{std::move(scheduled.begin()->second)});
    for (auto &[number, tree] : trees) {
        const auto first = newly_expired(tree);
        if (first && !std::exchange(tree.posted, true))
            due.emplace_back(*first, posted_code{tree.evm, tree.code, number});
    }
    std::ranges::stable_sort(due, {}, [](const auto &entry) { return entry.first; });
    for (auto &[at, what] : due)
        enqueue(std::move(what));
}

void core::move_clock(duration to)
{
    now = std::max(now, to);
    enqueue_due();
}

void core::jump(duration by)
{
    const duration to = after(by);
    const std::lock_guard guard(lock);
    move_clock(to);
}

duration core::after(duration by)
{
    if (by < duration::zero())
        throw std::invalid_argument("the clock does not go back");
    const std::lock_guard guard(lock);
    return duration(platform_core::later_by(now.count(), by.count()));
}

} // namespace l2vpn::sim
