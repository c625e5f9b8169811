/*
 * Managed timers on timerfd: the order of expiry is leaf_table's, the clock and the posting are here.
 *
 * Threads. One mutex guards the leaves of all trees, because a leaf function is given nothing but a handle
 * that may name a leaf of any tree or none. The event manager's lock is taken inside it, never around it.
 *
 * A tree's timerfd is set to the earliest leaf whose expiry was not announced yet. When it fires, one post
 * announces all leaves that have expired by then, `announced` moves on to that moment, and the timerfd to
 * the first leaf after it. Every start lands after `announced`, so that no expiry can slip past. Asking for
 * expired leaves announces nothing and takes nothing away: a post too many finds no leaf, which is harmless;
 * a post too few would lose a timer.
 *
 * The timerfd's handler may be on its way while another thread frees the tree. So it is given the tree's
 * address but looks it up among the living, and does only what the timers' state asks for: even a new tree
 * at an old address cannot be told anything wrong.
 */
#include "common/leaf_table.h"
#include "event_mgr_internal.h"
#include "timer_fd.h"

#include <platform/mgd_timer.h>

#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <sys/timerfd.h>

using namespace l2vpn::platform_core;
using l2vpn::platform_posix::unique_fd;

struct mgd_timer_tree : leaf_order {
    event_mgr_p evm = nullptr;
    int code = 0;
    unique_fd clock;
    event_fd_watch_t *watch = nullptr;
    nanoseconds_t announced = 0;
    nanoseconds_t set_to = 0; /* what the timerfd is set to, 0: nothing */
};

/* Parents group leaves for whoever reads the calling code. Nothing depends on them. */
struct mgd_timer_parent {};

namespace {

struct timers {
    std::mutex lock;
    leaf_table leaves;
    std::set<mgd_timer_tree_t *> trees;
};

/* Never destroyed: threads may still use timers while the process exits. */
timers &all()
{
    static timers &only = *new timers;
    return only;
}

nanoseconds_t now()
{
    struct timespec time {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return length_of(time);
}

/* Sets the timerfd to the first expiry that is not announced. */
void set_clock(mgd_timer_tree_t &tree)
{
    constexpr auto last_start = std::numeric_limits<std::uint64_t>::max();
    const auto next = tree.running.upper_bound(expiry{.when = tree.announced, .start = last_start});
    const nanoseconds_t wanted = next == tree.running.end() ? 0 : next->when;
    if (wanted == tree.set_to) {
        return;
    }
    using clock = std::chrono::steady_clock;
    l2vpn::platform_posix::set_timer(tree.clock, wanted == 0
                                                     ? clock::time_point::max()
                                                     : clock::time_point(std::chrono::nanoseconds(wanted)));
    tree.set_to = wanted;
}

void on_clock(event_fd_watch_t *, int, uint32_t, void *arg)
{
    const std::lock_guard guard(all().lock);
    const auto found = all().trees.find(static_cast<mgd_timer_tree_t *>(arg));
    if (found == all().trees.end()) {
        return;
    }
    mgd_timer_tree_t &tree = **found;
    const nanoseconds_t moment = now();
    if (tree.set_to == 0 || tree.set_to > moment) {
        return; // stopped or restarted while the event was on its way
    }
    if (event_async_post(tree.evm, tree.code) == 0) {
        tree.announced = moment;
        set_clock(tree);
    } // else the timerfd stays readable and the post is tried again
}

} // namespace

mgd_timer_tree_t *mgd_timer_tree_new(const event_context_t *event, uint32_t)
{
    if (event == nullptr || event->evm == nullptr || event->handler == nullptr) {
        return nullptr;
    }
    try {
        auto tree = std::make_unique<mgd_timer_tree_t>();
        tree->evm = event->evm;
        tree->code = event->code;
        tree->clock.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!tree->clock) {
            return nullptr;
        }
        const std::lock_guard guard(all().lock);
        const auto [place, added] = all().trees.insert(tree.get());
        tree->watch = l2vpn::platform_posix::watch_uncounted(event->evm, tree->clock.get(), EVENT_FD_READ,
                                                             on_clock, tree.get());
        if (tree->watch == nullptr) {
            all().trees.erase(place);
            return nullptr;
        }
        return tree.release();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void mgd_timer_tree_free(mgd_timer_tree_t *tree)
{
    if (tree == nullptr) {
        return;
    }
    const std::unique_ptr<mgd_timer_tree_t> freed(tree);
    const std::lock_guard guard(all().lock);
    all().trees.erase(tree);
    all().leaves.free_all(*tree);
    event_fd_unwatch(tree->watch);
}

mgd_timer_parent_t *mgd_timer_parent_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *)
{
    return tree == nullptr ? nullptr : new (std::nothrow) mgd_timer_parent_t;
}

void mgd_timer_parent_free(mgd_timer_parent_t *parent)
{
    delete parent;
}

mgd_timer_leaf_t *mgd_timer_leaf_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent, void *arg,
                                     mgd_timer_fn_t context)
{
    if (tree == nullptr || parent == nullptr) {
        return nullptr;
    }
    try {
        const std::lock_guard guard(all().lock);
        return all().leaves.create(*tree, arg, context);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void mgd_timer_leaf_free(mgd_timer_leaf_t *leaf)
{
    const std::lock_guard guard(all().lock);
    if (auto *found = all().leaves.live(leaf); found != nullptr) {
        auto &tree = static_cast<mgd_timer_tree_t &>(*found->tree);
        all().leaves.free(*found);
        set_clock(tree);
    }
}

mgd_timer_fn_t mgd_timer_leaf_get_context(const mgd_timer_leaf_t *leaf)
{
    const std::lock_guard guard(all().lock);
    const auto *found = all().leaves.readable(leaf);
    return found == nullptr ? nullptr : found->context;
}

int mgd_timer_leaf_set_addl_context(mgd_timer_leaf_t *leaf, uint32_t index, void *context)
{
    const std::lock_guard guard(all().lock);
    auto *found = all().leaves.live(leaf);
    if (found == nullptr || index >= found->addl_context.size()) {
        errno = EINVAL;
        return -1;
    }
    found->addl_context[index] = context;
    return 0;
}

void *mgd_timer_leaf_get_addl_context(const mgd_timer_leaf_t *leaf, uint32_t index)
{
    const std::lock_guard guard(all().lock);
    const auto *found = all().leaves.readable(leaf);
    return found == nullptr || index >= found->addl_context.size() ? nullptr : found->addl_context[index];
}

int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf)
{
    const std::lock_guard guard(all().lock);
    const auto *found = all().leaves.live(leaf);
    return found != nullptr && found->running() ? 1 : 0;
}

void mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *duration)
{
    const std::lock_guard guard(all().lock);
    auto *found = all().leaves.live(leaf);
    if (found == nullptr || duration == nullptr) {
        return;
    }
    auto &tree = static_cast<mgd_timer_tree_t &>(*found->tree);
    const nanoseconds_t when = later_by(now(), length_of(*duration));
    all().leaves.start(*found, when > tree.announced ? when : tree.announced + 1);
    set_clock(tree);
}

void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf)
{
    const std::lock_guard guard(all().lock);
    if (auto *found = all().leaves.live(leaf); found != nullptr) {
        leaf_table::stop(*found);
        set_clock(static_cast<mgd_timer_tree_t &>(*found->tree));
    }
}

mgd_timer_leaf_t *mgd_timer_tree_first_expired(mgd_timer_tree_t *tree)
{
    if (tree == nullptr) {
        return nullptr;
    }
    const std::lock_guard guard(all().lock);
    return all().leaves.first_expired(*tree, now());
}
