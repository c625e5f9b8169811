/*
 * Managed timers on one thread. Where the order of moments matters the monotonic clock is held: this program
 * stands in front of clock_gettime().
 */
#include "timer_support.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <dlfcn.h>
#include <limits>
#include <vector>

namespace {

std::atomic<std::int64_t> s_held{0}; /* what the monotonic clock shows, in nanoseconds; 0: it runs */

} // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    const std::int64_t held = s_held;
    if (clock != CLOCK_MONOTONIC || held == 0) {
        return reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"))(clock, time);
    }
    *time = timer_test::span_of(std::chrono::nanoseconds(held));
    return 0;
}

namespace {

using namespace timer_test;
using timers = timer_test::timers;

/* Holds the monotonic clock. The kernel's timers run on. */
class held_clock {
public:
    held_clock() { s_held = std::chrono::steady_clock::now().time_since_epoch() / 1ns; }
    held_clock(const held_clock &) = delete;
    held_clock &operator=(const held_clock &) = delete;
    ~held_clock() { s_held = 0; }

    void advance(std::chrono::nanoseconds by) { s_held += by / 1ns; }
};

TEST_F(timers, a_leaf_expires_once_and_not_early)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    const auto begin = std::chrono::steady_clock::now();
    {
        held_clock clock;
        start(leaf, 20ms);
        clock.advance(20ms - 1ns);
        EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
    }
    wait_for_event();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf) << "it stays the first until it is stopped";
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0) << "an expired leaf runs until it is stopped";
    mgd_timer_leaf_stop(leaf);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
    EXPECT_EQ(event_mgr_dispatch(evm, 30), 0) << "no second event for one expiry";
}

TEST_F(timers, an_expired_leaf_that_is_left_running_is_announced_once)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    start(leaf, 1ms);
    wait_for_event();
    EXPECT_EQ(event_mgr_dispatch(evm, 30), 0);
    EXPECT_EQ(events, 1);
}

/* The first one is never stopped; the second must be announced all the same. */
TEST_F(timers, a_later_leaf_is_announced_behind_an_expired_one)
{
    mgd_timer_leaf_t *first = new_leaf();
    mgd_timer_leaf_t *second = new_leaf();
    {
        held_clock clock;
        start(first, 1ms);
        start(second, 40ms);
        clock.advance(1ms);
        wait_for_event();
    }
    wait_for_event();
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), first);
    mgd_timer_leaf_stop(first);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), second);
}

TEST_F(timers, leaves_come_in_the_order_of_their_expiry)
{
    const std::vector leaves{new_leaf(), new_leaf(), new_leaf()};
    {
        const held_clock clock;
        start(leaves[0], 6ms);
        start(leaves[1], 2ms);
        start(leaves[2], 4ms);
    }
    std::vector<mgd_timer_leaf_t *> order;
    while (order.size() < leaves.size()) {
        wait_for_event();
        while (mgd_timer_leaf_t *leaf = mgd_timer_tree_first_expired(tree)) {
            mgd_timer_leaf_stop(leaf);
            order.push_back(leaf);
        }
    }
    EXPECT_EQ(order, (std::vector{leaves[1], leaves[2], leaves[0]}));
}

TEST_F(timers, a_stopped_leaf_does_not_expire)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    start(leaf, 5ms);
    mgd_timer_leaf_stop(leaf);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(event_mgr_dispatch(evm, 30), 0);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
}

TEST_F(timers, starting_a_running_leaf_starts_it_anew)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    start(leaf, 1h);
    start(leaf, 1ms);
    wait_for_event();
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
    start(leaf, 1h);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(timers, a_restart_from_the_handler_expires_again)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    for (int round = 0; round < 5; ++round) {
        start(leaf, round % 2 == 0 ? 0ns : 1ms);
        wait_for_event();
        ASSERT_EQ(mgd_timer_tree_first_expired(tree), leaf);
    }
}

TEST_F(timers, odd_durations_expire_at_once_or_never)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    const timespec negative{.tv_sec = -5, .tv_nsec = 0};
    mgd_timer_leaf_start(leaf, &negative);
    wait_for_event();
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
    const timespec endless{.tv_sec = std::numeric_limits<time_t>::max(), .tv_nsec = 999'999'999};
    mgd_timer_leaf_start(leaf, &endless);
    EXPECT_EQ(event_mgr_dispatch(evm, 10), 0);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_start(leaf, nullptr);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(timers, a_leaf_keeps_its_function_and_contexts)
{
    int mine = 0;
    mgd_timer_leaf_t *leaf = new_leaf(nothing);
    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), &nothing);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), nullptr);
    EXPECT_EQ(mgd_timer_leaf_set_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS - 1, &mine), 0);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS - 1), &mine);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), nullptr);
    errno = 0;
    EXPECT_LT(mgd_timer_leaf_set_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS, &mine), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS), nullptr);
}

void expect_gone(mgd_timer_leaf_t *leaf)
{
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), nullptr);
    errno = 0;
    EXPECT_LT(mgd_timer_leaf_set_addl_context(leaf, 0, leaf), 0);
    EXPECT_EQ(errno, EINVAL);
    start(leaf, 0ns);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_free(leaf);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(timers, a_freed_leaf_may_be_given_to_every_function)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    start(leaf, 1ms);
    mgd_timer_leaf_free(leaf);
    expect_gone(leaf);
    EXPECT_EQ(event_mgr_dispatch(evm, 20), 0);
}

TEST_F(timers, an_old_handle_does_not_reach_the_leaf_that_took_its_place)
{
    std::vector<mgd_timer_leaf_t *> old;
    for (int round = 0; round < 1000; ++round) {
        old.push_back(new_leaf());
        mgd_timer_leaf_free(old.back());
    }
    int mine = 0;
    mgd_timer_leaf_t *leaf = new_leaf();
    ASSERT_EQ(mgd_timer_leaf_set_addl_context(leaf, 0, &mine), 0);
    start(leaf, 1h);
    for (mgd_timer_leaf_t *each : old) {
        ASSERT_NE(each, leaf);
        expect_gone(each);
    }
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), &mine);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(timers, null_and_invented_handles_name_nothing)
{
    expect_gone(nullptr);
    expect_gone(reinterpret_cast<mgd_timer_leaf_t *>(std::uintptr_t{8}));
    expect_gone(reinterpret_cast<mgd_timer_leaf_t *>(~std::uintptr_t{0}));
    int local = 0;
    expect_gone(reinterpret_cast<mgd_timer_leaf_t *>(&local));
}

TEST_F(timers, a_leaf_handed_out_stays_readable_until_the_next_is_asked_for)
{
    int mine = 0;
    mgd_timer_leaf_t *leaf = new_leaf(nothing);
    ASSERT_EQ(mgd_timer_leaf_set_addl_context(leaf, 0, &mine), 0);
    start(leaf, 0ns);
    wait_for_event();
    ASSERT_EQ(mgd_timer_tree_first_expired(tree), leaf);
    mgd_timer_leaf_free(leaf);

    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), &nothing);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), &mine);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_LT(mgd_timer_leaf_set_addl_context(leaf, 0, nullptr), 0);
    start(leaf, 0ns);
    mgd_timer_leaf_free(leaf);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), &mine);

    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
    expect_gone(leaf);
}

TEST_F(timers, a_leaf_that_was_handed_out_before_the_last_one_goes_at_once)
{
    mgd_timer_leaf_t *first = new_leaf();
    mgd_timer_leaf_t *second = new_leaf();
    start(first, 0ns);
    start(second, 0ns);
    wait_for_event();
    ASSERT_EQ(mgd_timer_tree_first_expired(tree), first);
    mgd_timer_leaf_stop(first);
    ASSERT_EQ(mgd_timer_tree_first_expired(tree), second);
    mgd_timer_leaf_free(first);
    expect_gone(first);
    EXPECT_EQ(mgd_timer_leaf_get_context(second), &nothing);
}

TEST_F(timers, freeing_the_tree_frees_its_leaves)
{
    mgd_timer_tree_t *other = mgd_timer_tree_new(&context, 1);
    ASSERT_NE(other, nullptr);
    mgd_timer_leaf_t *stopped = mgd_timer_leaf_new(other, parent, nullptr, nothing);
    mgd_timer_leaf_t *running = mgd_timer_leaf_new(other, parent, nullptr, nothing);
    mgd_timer_leaf_t *handed_out = mgd_timer_leaf_new(other, parent, nullptr, nothing);
    mgd_timer_leaf_t *of_this_tree = new_leaf();
    start(running, 1h);
    start(handed_out, 0ns);
    wait_for_event();
    ASSERT_EQ(mgd_timer_tree_first_expired(other), handed_out);
    mgd_timer_leaf_free(handed_out);
    mgd_timer_tree_free(other);
    expect_gone(stopped);
    expect_gone(running);
    expect_gone(handed_out);
    EXPECT_EQ(mgd_timer_leaf_get_context(of_this_tree), &nothing);
    EXPECT_EQ(event_mgr_dispatch(evm, 20), 0);
}

TEST_F(timers, arguments_that_make_nothing)
{
    event_context_t never_attached{};
    EXPECT_EQ(mgd_timer_tree_new(nullptr, 1), nullptr);
    EXPECT_EQ(mgd_timer_tree_new(&never_attached, 1), nullptr);
    EXPECT_EQ(mgd_timer_parent_new(nullptr, nullptr), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(nullptr, parent, nullptr, nothing), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(tree, nullptr, nullptr, nothing), nullptr);
    EXPECT_EQ(mgd_timer_tree_first_expired(nullptr), nullptr);
    mgd_timer_tree_free(nullptr);
    mgd_timer_parent_free(nullptr);
}

TEST_F(timers, parents_have_parents_and_may_be_freed_first)
{
    mgd_timer_parent_t *below = mgd_timer_parent_new(tree, parent);
    ASSERT_NE(below, nullptr);
    mgd_timer_leaf_t *leaf = mgd_timer_leaf_new(tree, below, nullptr, nothing);
    mgd_timer_parent_free(below);
    start(leaf, 0ns);
    wait_for_event();
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
}

/* Started in a scattered order with thousands at once: they come back sorted, each once. */
TEST_F(timers, thousands_of_leaves_come_in_order)
{
    constexpr std::size_t count = 10'000;
    std::vector<mgd_timer_leaf_t *> by_rank(count);
    for (std::size_t step = 0; step < count; ++step) {
        const std::size_t rank = step * 7919 % count; // 7919 is prime to the count: every rank once
        by_rank[rank] = new_leaf();
    }
    // The latest first. Each is given a later moment than all that should come before it.
    for (std::size_t rank = count; rank-- > 0;) {
        start(by_rank[rank], 1h + rank * 1ms);
    }
    for (std::size_t rank = 0; rank < count; ++rank) {
        start(by_rank[rank], 0ns);
    }
    wait_for_event();
    std::vector<mgd_timer_leaf_t *> order;
    while (mgd_timer_leaf_t *leaf = mgd_timer_tree_first_expired(tree)) {
        mgd_timer_leaf_stop(leaf);
        order.push_back(leaf);
    }
    EXPECT_EQ(order, by_rank);
}

} // namespace
