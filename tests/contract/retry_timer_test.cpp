/*
 * The retry timer: when it starts, and what comes of it in each state.
 */
#include "state_test.h"

using namespace state_test;
using std::chrono::milliseconds;

namespace {

/* The times, in seconds, at which messages went out by ucast: the JOINs. */
std::vector<double> join_times(const l2vpn::sim::world &world)
{
    std::vector<double> result;
    for (const auto &call : world.calls(fn::l2vpn_ipc_ucast))
        result.push_back(std::chrono::duration<double>(call.at).count());
    return result;
}

/* --- joining --- */

TEST_F(state, sends_join_at_once_and_then_after_4_5_6_seconds)
{
    connect(4);
    world.advance(seconds(4 + 5 + 6 + 7 + 8));
    EXPECT_THAT(join_times(world), ElementsAre(0, 4, 9, 15, 22, 30));
    EXPECT_THAT(starts(world), ElementsAre(4, 5, 6, 7, 8, 9));
    EXPECT_THAT(notices, IsEmpty());
    for (const bytes &message : sent(4))
        EXPECT_EQ(message, (bytes{0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(state, goes_on_joining_without_a_bound)
{
    connect(4);
    world.advance(seconds(4 + 5 + 6) + std::chrono::hours(2));
    const auto times = join_times(world);
    ASSERT_GT(times.size(), 100u);
    for (std::size_t i = 2; i < times.size(); ++i)
        EXPECT_EQ(times[i] - times[i - 1], times[i - 1] - times[i - 2] + 1);
}

TEST_F(state, goes_on_joining_when_sends_fail)
{
    connect(4);
    world.fail_from(fn::l2vpn_ipc_ucast, 1, 107);
    world.advance(seconds(15));
    EXPECT_THAT(join_times(world), ElementsAre(0, 4, 9, 15));
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(state, does_not_log_a_join_that_fails)
{
    connect(4);
    const auto before = world.log();
    world.fail_from(fn::l2vpn_ipc_ucast, 1, 107);
    world.advance(seconds(4));
    const auto after = world.log();
    ASSERT_EQ(after.size(), before.size() + 1);
    EXPECT_EQ(after.back(), "l2vpn_ac_connect_expire_fn 5 secs");
}

TEST_F(state, joining_comes_up_with_the_connected_event_and_stops_the_timer)
{
    const auto hd = connect(4);
    world.link_of(4).up(99);
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].hd, hd);
    EXPECT_EQ(notices[0].first, up);
    EXPECT_EQ(notices[0].second, 99u);
    EXPECT_EQ(logged("Connected to L2VPN process"), 1);
    EXPECT_THAT(world.timers(), IsEmpty());
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 1u);

    world.advance(seconds(100));
    EXPECT_THAT(join_times(world), ElementsAre(0)) << "no JOIN is sent on the event";
}

TEST_F(state, joining_with_a_stopped_timer_stops_nothing)
{
    connect(4);
    /* The timer has expired and its function runs: it is stopped while the JOIN goes out. */
    world.link_of(4).on_send([&](auto) {
        world.link_of(4).on_send(nullptr);
        world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_CONNECTED, 0, world.link_of(4).cookie());
    });
    world.clear_calls();
    world.advance(seconds(4));
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 1u) << "the handler's, none of the event's";
}

/* --- up again --- */

TEST_F(state, up_the_timer_sends_join_and_says_up)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    notices.clear();
    world.clear_calls();

    world.advance(milliseconds(999));
    EXPECT_THAT(notices, IsEmpty());
    world.advance(milliseconds(1));
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].first, up);
    EXPECT_EQ(notices[0].second, 0u);
    EXPECT_EQ(sent(4).size(), 1u);
    EXPECT_EQ(logged("l2vpn_ac_connect_expire_fn send UP to client"), 1);
    EXPECT_THAT(starts(world), IsEmpty()) << "the timer is not started again";
}

TEST_F(state, up_a_join_that_fails_starts_the_timer_a_second_longer)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    world.fail(fn::l2vpn_ipc_ucast, 1, 105);
    world.fail(fn::l2vpn_ipc_ucast, 2, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    notices.clear();
    world.clear_calls();

    world.advance(seconds(1 + 2));
    EXPECT_THAT(starts(world), ElementsAre(2, 3));
    EXPECT_THAT(notices, IsEmpty());
    world.advance(seconds(3));
    EXPECT_THAT(statuses(), ElementsAre(up));
    EXPECT_EQ(logged("l2vpn_ac_connect_expire_fn 2 secs"), 1);
    EXPECT_EQ(logged("l2vpn_ac_connect_expire_fn 3 secs"), 1);
}

TEST_F(state, a_join_that_gets_through_sets_the_interval_back_to_one_second)
{
    const auto hd = connect_up(4);
    acs a(1);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    world.fail(fn::l2vpn_ipc_ucast, 1, 105);
    ASSERT_EQ(create(hd, 0, a), 0u);
    world.advance(seconds(3));
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    ASSERT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), ElementsAre(1));
}

/* A failed request starts the timer just as a disconnected event comes: the event finds nothing to stop. */
class idle_with_timer : public contract {
protected:
    l2vpn_ac_client_hd_t hd = nullptr;

    void prepare()
    {
        hd = connect_up(4);
        world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
        world.before(fn::mgd_timer_leaf_start, [this] {
            world.before(fn::mgd_timer_leaf_start, {});
            world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_DISCONNECTED, 0, hd);
        });
        acs a(1);
        EXPECT_EQ(create(hd, 0, a), 0u);
        EXPECT_EQ(world.timers().size(), 1u);
        notices.clear();
        world.clear_calls();
    }
};

TEST_F(idle_with_timer, the_timer_sends_nothing_and_stays_stopped)
{
    prepare();
    world.advance(seconds(1));
    EXPECT_EQ(called(fn::l2vpn_ipc_ucast), 0u);
    EXPECT_THAT(world.timers(), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(idle_with_timer, the_connected_event_leaves_the_timer_running)
{
    prepare();
    world.link_of(4).event(L2VPN_IPC_EVT_CONNECTED);
    world.run();
    EXPECT_THAT(statuses(), ElementsAre(up));
    EXPECT_EQ(world.timers().size(), 1u);
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 0u);
}

/* --- the timer's handler and function --- */

TEST_F(state, two_timers_expired_at_once_are_run_by_one_pass_in_their_order)
{
    connect(4);
    connect(5);
    world.clear_calls();
    world.jump(seconds(4));
    world.post(128);
    world.step();
    const auto joins = world.calls(fn::l2vpn_ipc_ucast);
    ASSERT_EQ(joins.size(), 2u);
    EXPECT_EQ(joins[0].args[1], 4u);
    EXPECT_EQ(joins[1].args[1], 5u);
}

TEST_F(state, the_handler_stops_each_leaf_before_its_function)
{
    connect(4);
    world.clear_calls();
    world.advance(seconds(4));
    EXPECT_THAT(order_of({fn::mgd_timer_tree_first_expired, fn::mgd_timer_leaf_stop, fn::l2vpn_ipc_ucast}),
                ElementsAre("mgd_timer_tree_first_expired", "mgd_timer_leaf_stop", "l2vpn_ipc_ucast",
                            "mgd_timer_tree_first_expired"));
}

TEST_F(state, the_handler_does_nothing_before_the_initialisation)
{
    world.fail(fn::mgd_timer_tree_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 2u);
    world.post(128);
    world.run();
    EXPECT_EQ(called(fn::mgd_timer_tree_first_expired), 0u);
}

using state_death = state;

TEST_F(state_death, a_leaf_without_a_function_is_fatal)
{
    connect(4);
    world.fail_from(fn::mgd_timer_leaf_get_context, 1, 0);
    EXPECT_DEATH(world.advance(seconds(4)), "fn != NULL");
}

TEST_F(state, a_timer_whose_client_is_unknown_sends_nothing)
{
    connect(4);
    world.clear_calls();
    world.fail(fn::mgd_timer_leaf_get_addl_context, 1, 0);
    world.advance(seconds(4));
    EXPECT_EQ(called(fn::l2vpn_ipc_ucast), 0u);
    EXPECT_THAT(world.timers(), IsEmpty());
}

/* A disconnect event overtakes the JOIN of the timer's function: nothing is said after its DOWN. */
TEST_F(state, a_disconnected_event_during_the_timers_join_has_the_last_word)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    notices.clear();
    world.link_of(4).on_send([&](auto) {
        world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_DISCONNECTED, 0, world.link_of(4).cookie());
    });
    world.advance(seconds(1));
    EXPECT_THAT(statuses(), ElementsAre(down));
    EXPECT_THAT(world.timers(), IsEmpty());
}

/* A connected event overtakes the JOIN: the state, read again, is up. */
TEST_F(state, a_connected_event_during_the_timers_join_is_seen)
{
    connect(4);
    world.link_of(4).on_send([&](auto) {
        world.link_of(4).on_send(nullptr);
        world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_CONNECTED, 0, world.link_of(4).cookie());
    });
    world.advance(seconds(4));
    EXPECT_THAT(statuses(), ElementsAre(up, up));
    EXPECT_THAT(world.timers(), IsEmpty());
}

} // namespace
