#include "owner.h"

#include <algorithm>

namespace sim_test {
namespace {

using testing::ElementsAre;

TEST(sim_timers, a_leaf_expires_once_at_its_time)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(4s);

    EXPECT_EQ(world.advance(4s - 1ns), 0U);
    EXPECT_TRUE(clock.expired.empty());
    EXPECT_EQ(world.advance(1ns), 1U);
    EXPECT_EQ(world.advance(1h), 0U);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{leaf, 4s}));
    EXPECT_EQ(world.now(), 1h + 4s);
}

TEST(sim_timers, advance_stops_at_every_expiry)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *late = clock.started(3s);
    mgd_timer_leaf_t *soon = clock.started(1s);
    clock.on_leaf = [&](mgd_timer_leaf_t *leaf) {
        if (leaf == soon && world.now() < 2s)
            alarm_clock::start(leaf, 1s);
    };
    world.advance(10s);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{soon, 1s}, alarm_clock::expiry{soon, 2s},
                                           alarm_clock::expiry{late, 3s}));
    EXPECT_EQ(clock.passes, 3U);
}

TEST(sim_timers, jump_lets_timers_expire_together_in_one_pass)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *late = clock.started(2s);
    mgd_timer_leaf_t *soon = clock.started(1s);
    world.jump(5s);
    EXPECT_EQ(clock.passes, 0U);
    EXPECT_EQ(world.run(), 1U);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{soon, 5s}, alarm_clock::expiry{late, 5s}));
}

TEST(sim_timers, equal_times_come_in_the_order_of_their_starts)
{
    world world;
    alarm_clock clock(world);
    std::vector<mgd_timer_leaf_t *> leaves(20);
    std::ranges::generate(leaves, [&] { return clock.leaf(); });
    std::ranges::reverse(leaves);
    for (auto *leaf : leaves)
        alarm_clock::start(leaf, 1s);
    world.advance(1s);
    std::vector<mgd_timer_leaf_t *> came;
    std::ranges::transform(clock.expired, std::back_inserter(came), &alarm_clock::expiry::leaf);
    EXPECT_EQ(came, leaves);
}

std::vector<std::size_t> shuffled_order(std::uint64_t seed)
{
    world world(seed);
    world.set.shuffle_equal_timers = true;
    alarm_clock clock(world);
    std::vector<mgd_timer_leaf_t *> leaves(20);
    std::ranges::generate(leaves, [&] { return clock.started(1s); });
    world.advance(1s);
    std::vector<std::size_t> order;
    for (const auto &expiry : clock.expired)
        order.push_back(static_cast<std::size_t>(std::ranges::find(leaves, expiry.leaf) - leaves.begin()));
    return order;
}

TEST(sim_timers, shuffled_equal_times_are_the_seeds)
{
    const auto order = shuffled_order(1);
    EXPECT_EQ(order.size(), 20U);
    EXPECT_FALSE(std::ranges::is_sorted(order));
    EXPECT_EQ(shuffled_order(1), order);
    EXPECT_NE(shuffled_order(2), order);
}

TEST(sim_timers, an_expired_leaf_runs_until_it_is_stopped_and_is_handed_out_again)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(1s);
    world.jump(1s);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_tree_first_expired(clock.tree), leaf);
    EXPECT_EQ(mgd_timer_tree_first_expired(clock.tree), leaf);
    mgd_timer_leaf_stop(leaf);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_tree_first_expired(clock.tree), nullptr);
}

TEST(sim_timers, starting_a_running_leaf_starts_it_anew)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(2s);
    world.advance(1s);
    alarm_clock::start(leaf, 2s);
    EXPECT_THAT(world.timers(), ElementsAre(3s));
    world.advance(5s);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{leaf, 3s}));
}

TEST(sim_timers, a_stopped_leaf_does_not_expire)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_stop(clock.started(1s));
    EXPECT_TRUE(world.timers().empty());
    world.advance(1min);
    EXPECT_EQ(clock.passes, 0U);
}

TEST(sim_timers, timers_are_listed_soonest_first)
{
    world world;
    alarm_clock clock(world);
    clock.started(3s);
    clock.started(0s);
    clock.started(1500ms);
    EXPECT_THAT(world.timers(), ElementsAre(0s, 1500ms, 3s));
}

TEST(sim_timers, odd_durations)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *negative = clock.leaf();
    mgd_timer_leaf_t *longest = clock.leaf();
    const timespec before{-5, 0};
    const timespec for_ever{INT64_MAX, 999'999'999};
    mgd_timer_leaf_start(negative, &before);
    mgd_timer_leaf_start(longest, &for_ever);
    mgd_timer_leaf_start(clock.leaf(), nullptr);
    EXPECT_THAT(world.timers(), ElementsAre(0s, duration::max()));
    EXPECT_EQ(world.run(), 1U);
    world.jump(duration::max() - 1ns);
    EXPECT_EQ(world.run(), 0U);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{negative, 0s}));
}

TEST(sim_timers, a_freed_leaf_is_harmless)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(1s);
    int thing = 0;
    ASSERT_EQ(mgd_timer_leaf_set_addl_context(leaf, 0, &thing), 0);
    mgd_timer_leaf_free(leaf);
    mgd_timer_leaf_t *newer = clock.leaf();
    EXPECT_NE(newer, leaf);

    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), nullptr);
    errno = 0;
    EXPECT_LT(mgd_timer_leaf_set_addl_context(leaf, 0, &thing), 0);
    EXPECT_EQ(errno, EINVAL);
    alarm_clock::start(leaf, 1s);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_free(leaf);
    EXPECT_EQ(world.live_leaves(), 1U);
    EXPECT_TRUE(world.timers().empty());
    EXPECT_EQ(mgd_timer_leaf_running(newer), 0);
}

TEST(sim_timers, a_leaf_handed_out_stays_readable_until_the_next_request)
{
    world world;
    alarm_clock clock(world);
    int thing = 0;
    mgd_timer_leaf_t *leaf = clock.started(1s);
    ASSERT_EQ(mgd_timer_leaf_set_addl_context(leaf, 3, &thing), 0);
    world.jump(1s);
    ASSERT_EQ(mgd_timer_tree_first_expired(clock.tree), leaf);
    mgd_timer_leaf_free(leaf);

    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), alarm_clock::nothing_to_do);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 3), &thing);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    alarm_clock::start(leaf, 0s);
    EXPECT_EQ(world.live_leaves(), 0U);
    EXPECT_EQ(mgd_timer_tree_first_expired(clock.tree), nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), nullptr);
}

TEST(sim_timers, contexts_of_a_leaf)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.leaf();
    std::array<int, MGD_TIMER_ADDL_CONTEXTS> things{};
    for (std::uint32_t i = 0; i < things.size(); ++i) {
        EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, i), nullptr);
        EXPECT_EQ(mgd_timer_leaf_set_addl_context(leaf, i, &things.at(i)), 0);
    }
    for (std::uint32_t i = 0; i < things.size(); ++i)
        EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, i), &things.at(i));
    EXPECT_LT(mgd_timer_leaf_set_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS, &things), 0);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, MGD_TIMER_ADDL_CONTEXTS), nullptr);
}

TEST(sim_timers, null_is_refused_everywhere)
{
    world world;
    alarm_clock clock(world);
    const event_context_t never_attached{};
    EXPECT_EQ(mgd_timer_tree_new(nullptr, 1), nullptr);
    EXPECT_EQ(mgd_timer_tree_new(&never_attached, 1), nullptr);
    EXPECT_EQ(mgd_timer_parent_new(nullptr, nullptr), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(nullptr, clock.parent, nullptr, alarm_clock::nothing_to_do), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(clock.tree, nullptr, nullptr, alarm_clock::nothing_to_do), nullptr);
    EXPECT_EQ(mgd_timer_tree_first_expired(nullptr), nullptr);
    EXPECT_EQ(mgd_timer_leaf_running(nullptr), 0);
    EXPECT_EQ(mgd_timer_leaf_get_context(nullptr), nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(nullptr, 0), nullptr);
    mgd_timer_leaf_free(nullptr);
    mgd_timer_leaf_stop(nullptr);
    alarm_clock::start(nullptr, 1s);
    mgd_timer_parent_free(nullptr);
    mgd_timer_tree_free(nullptr);
    EXPECT_EQ(world.live_trees(), 1U);
    EXPECT_EQ(world.live_parents(), 1U);
    EXPECT_EQ(world.live_leaves(), 0U);
}

TEST(sim_timers, freeing_a_tree_frees_its_leaves)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(1s);
    world.jump(1s); // its code waits to be delivered
    mgd_timer_tree_free(clock.tree);
    EXPECT_EQ(world.live_trees(), 0U);
    EXPECT_EQ(world.live_leaves(), 0U);
    EXPECT_EQ(world.live_parents(), 1U);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    mgd_timer_parent_free(clock.parent);
    EXPECT_EQ(world.live_parents(), 0U);
    world.run();
    EXPECT_TRUE(clock.expired.empty());
}

TEST(sim_timers, a_handler_that_does_not_ask_is_not_asked_again)
{
    world world;
    int calls = 0;
    event_context_t context{};
    const auto count = [](event_context_t *, void *arg) { ++*static_cast<int *>(arg); };
    ASSERT_EQ(event_async_attach_event(world.evm(), 1, count, &calls, &context), 0);
    mgd_timer_tree_t *tree = mgd_timer_tree_new(&context, 1);
    mgd_timer_leaf_t *leaf =
        mgd_timer_leaf_new(tree, mgd_timer_parent_new(tree, nullptr), nullptr, alarm_clock::nothing_to_do);
    alarm_clock::start(leaf, 1s);
    world.advance(1min);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
}

} // namespace
} // namespace sim_test
