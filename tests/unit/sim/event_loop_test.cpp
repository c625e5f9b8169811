#include "owner.h"

namespace sim_test {
namespace {

using testing::ElementsAre;

TEST(sim_event_loop, dispatch_without_waiting_takes_what_is_due)
{
    world world;
    owner owner(world);
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 0), 0);
    world.link_of(class_id).up();
    owner.inside = [&] { world.link_of(class_id).event(9); }; // comes in the next turn
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 0), 1);
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 0), 1);
    EXPECT_EQ(world.now(), 0s);
}

TEST(sim_event_loop, waiting_moves_the_clock_to_the_next_timer_or_to_the_end)
{
    world world;
    alarm_clock clock(world);
    mgd_timer_leaf_t *leaf = clock.started(1500ms);
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 1000), 0);
    EXPECT_EQ(world.now(), 1s);
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 1000), 1);
    EXPECT_EQ(world.now(), 1500ms);
    EXPECT_THAT(clock.expired, ElementsAre(alarm_clock::expiry{leaf, 1500ms}));
}

TEST(sim_event_loop, waiting_for_nothing_without_bound_fails)
{
    world world;
    errno = 0;
    EXPECT_LT(event_mgr_dispatch(world.evm(), -1), 0);
    EXPECT_EQ(errno, EDEADLK);
    errno = 0;
    EXPECT_LT(event_mgr_run(world.evm()), 0);
    EXPECT_EQ(errno, EDEADLK);
}

TEST(sim_event_loop, an_event_manager_dispatches_its_own_only)
{
    world world;
    event_mgr_p other = event_mgr_new();
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, world.evm());
    alarm_clock mine(world);
    alarm_clock others(world, other);
    mine.started(1s);
    others.started(2s);
    EXPECT_EQ(event_mgr_dispatch(other, -1), 1);
    EXPECT_EQ(world.now(), 2s);
    EXPECT_TRUE(mine.expired.empty());
    EXPECT_EQ(others.expired.size(), 1U);
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 0), 1);

    others.started(1s);
    event_mgr_free(other);
    EXPECT_EQ(world.advance(5s), 0U);
    EXPECT_LT(event_mgr_dispatch(other, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(event_async_post(other, timer_code), 0);
}

TEST(sim_event_loop, run_goes_on_until_it_is_stopped)
{
    world world;
    alarm_clock clock(world);
    clock.on_leaf = [](mgd_timer_leaf_t *leaf) { alarm_clock::start(leaf, 1s); };
    clock.started(1s);
    world.at(10s, [&] { event_mgr_stop(world.evm()); });
    EXPECT_EQ(event_mgr_run(world.evm()), 0);
    EXPECT_EQ(world.now(), 10s);
    EXPECT_EQ(clock.expired.size(), 9U);

    world.at(12s, [&] { event_mgr_stop(world.evm()); });
    EXPECT_EQ(event_mgr_run(world.evm()), 0); // a stop ends one run
    EXPECT_EQ(world.now(), 12s);
}

TEST(sim_event_loop, a_loop_that_nobody_stops_ends)
{
    world world;
    alarm_clock clock(world);
    clock.on_leaf = [](mgd_timer_leaf_t *leaf) { alarm_clock::start(leaf, 1s); };
    clock.started(1s);
    world.set.max_handlers = 100;
    EXPECT_LT(event_mgr_run(world.evm()), 0);
    EXPECT_EQ(errno, ELOOP);
}

TEST(sim_event_loop, there_are_no_descriptors)
{
    world world;
    EXPECT_EQ(event_mgr_fd(world.evm()), -1);
    errno = 0;
    EXPECT_EQ(event_fd_watch(world.evm(), 0, EVENT_FD_READ, nullptr, nullptr), nullptr);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_LT(event_fd_modify(nullptr, 0), 0);
    event_fd_unwatch(nullptr);
}

TEST(sim_event_loop, strangers_are_refused)
{
    world world;
    owner owner(world);
    auto *not_an_evm = reinterpret_cast<event_mgr_p>(owner.client);
    for (event_mgr_p evm : {static_cast<event_mgr_p>(nullptr), not_an_evm}) {
        errno = 0;
        EXPECT_LT(event_mgr_dispatch(evm, 0), 0);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_LT(event_mgr_run(evm), 0);
        EXPECT_LT(event_async_post(evm, 1), 0);
        event_mgr_stop(evm);
        event_mgr_free(evm);
    }
    EXPECT_EQ(event_mgr_dispatch(world.evm(), 0), 0);
}

} // namespace
} // namespace sim_test
