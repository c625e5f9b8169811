/*
 * The connection state: what failed requests and events make of it, and what callbacks may call.
 */
#include "state_test.h"

using namespace state_test;

namespace {

/* --- failed requests, by state --- */

TEST_F(state, joining_a_failed_request_leaves_the_running_timer)
{
    const auto hd = connect(4);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(state, joining_a_failed_request_starts_the_timer_if_not_running)
{
    const auto hd = connect(4);
    /* Within the timer's function the timer does not run: a request fails at that moment. */
    world.link_of(4).on_send([&](auto) {
        world.link_of(4).on_send(nullptr);
        world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
        acs a(1);
        EXPECT_EQ(create(hd, 0, a), 0u);
    });
    world.clear_calls();
    world.advance(seconds(4));
    EXPECT_THAT(starts(world), ElementsAre(5)) << "by the request; the function then finds it running";
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(state, up_a_failed_request_starts_the_timer_at_one_second_and_says_down)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), ElementsAre(1));
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].first, down);
    EXPECT_EQ(notices[0].second, 0u);
    EXPECT_EQ(logged("l2vpn_ac_activate_timer"), 1);
    EXPECT_EQ(logged("l2vpn_ac_activate_timer 1 secs"), 1);
    EXPECT_EQ(logged("l2vpn_ac_activate_timer send down to client"), 1);
}

TEST_F(state, up_each_failed_request_says_down_and_the_running_timer_is_left)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    world.fail_from(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), ElementsAre(1));
    EXPECT_THAT(statuses(), ElementsAre(down, down));
}

TEST_F(state, idle_a_failed_request_returns_its_status_and_starts_nothing)
{
    const auto hd = connect_idle(4);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 105u);
    EXPECT_THAT(starts(world), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(logged("l2vpn_ac_activate_timer"), 1) << "the name is logged before anything is decided";
}

TEST_F(state, requests_are_sent_in_any_state)
{
    acs a(1);
    const auto joining = connect(3);
    const auto idle = connect_idle(4);
    const auto ready = connect_up(5);
    EXPECT_EQ(create(joining, 0, a), 0u);
    EXPECT_EQ(create(idle, 0, a), 0u);
    EXPECT_EQ(create(ready, 0, a), 0u);
    EXPECT_EQ(sent(3).size(), 2u) << "after its JOIN";
    EXPECT_EQ(sent(4).size(), 1u);
    EXPECT_EQ(sent(5).size(), 1u);
}

/* --- events --- */

TEST_F(state, a_disconnected_event_stops_the_timer_and_says_down)
{
    const auto hd = connect(4);
    world.clear_calls();
    world.link_of(4).down(7);
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].hd, hd);
    EXPECT_EQ(notices[0].first, down);
    EXPECT_EQ(notices[0].second, 7u);
    EXPECT_EQ(logged("Disconnected from L2VPN process"), 1);
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 1u);
    world.advance(seconds(100));
    EXPECT_EQ(called(fn::l2vpn_ipc_ucast), 0u) << "idle: no JOIN is sent";
}

TEST_F(state, up_a_disconnected_event_stops_the_timer_of_a_failed_request)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    ASSERT_EQ(world.timers().size(), 1u);
    world.clear_calls();
    world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
    world.run();
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 1u);
    EXPECT_THAT(world.timers(), IsEmpty());
    world.advance(seconds(60));
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_F(state, a_disconnected_event_without_a_running_timer_stops_nothing)
{
    connect_up(4);
    world.clear_calls();
    world.link_of(4).down();
    world.run();
    EXPECT_EQ(called(fn::mgd_timer_leaf_stop), 0u);
    EXPECT_THAT(statuses(), ElementsAre(down));
}

TEST_F(state, a_disconnected_event_while_idle_says_down_again)
{
    connect_idle(4);
    world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
    world.run();
    EXPECT_THAT(statuses(), ElementsAre(down));
}

TEST_F(state, idle_comes_up_with_the_connected_event)
{
    const auto hd = connect_idle(4);
    world.link_of(4).up();
    world.run();
    EXPECT_THAT(statuses(), ElementsAre(up));
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), ElementsAre(1)) << "the state is up and the interval one second";
}

TEST_F(state, up_a_connected_event_leaves_a_running_timer_alone)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    notices.clear();
    world.link_of(4).event(L2VPN_IPC_EVT_CONNECTED);
    world.run();
    EXPECT_THAT(statuses(), ElementsAre(up));
    EXPECT_EQ(world.timers().size(), 1u);
    world.advance(seconds(1));
    EXPECT_THAT(statuses(), ElementsAre(up, up)) << "its JOIN says UP once more";
}

TEST_F(state, a_connected_event_sets_the_interval_back_to_one_second)
{
    const auto hd = connect(4);
    world.advance(seconds(4 + 5));
    world.link_of(4).up();
    world.run();
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    ASSERT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(starts(world), ElementsAre(1));
}

TEST_F(state, other_events_are_ignored)
{
    connect(4);
    world.clear_calls();
    world.link_of(4).event(2);
    world.link_of(4).event(0xffffffff);
    world.run();
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_THAT(world.log(), IsEmpty());
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 0u);
    EXPECT_EQ(world.timers().size(), 1u);
    world.advance(seconds(4));
    EXPECT_EQ(sent(4).size(), 2u) << "still joining";
}

TEST_F(state, events_trace_the_node_id_and_the_peer)
{
    world.set.nodeid = 1234567;
    connect(4);
    world.clear_calls();
    world.link_of(4).up(0, 7654321);
    world.link_of(4).down(0, 7654321);
    world.run();
    const auto traces = world.calls(fn::gen_dbg_ltrace_ctx);
    ASSERT_EQ(traces.size(), 2u);
    for (const auto &trace : traces) {
        EXPECT_THAT(trace.text, testing::HasSubstr("1234567"));
        EXPECT_THAT(trace.text, testing::HasSubstr("7654321"));
    }
}

TEST_F(state, events_of_an_unknown_cookie_are_dropped)
{
    connect(4);
    notices.clear();
    int stranger = 0;
    world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_CONNECTED, 0, &stranger);
    world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_DISCONNECTED, 0, nullptr);
    EXPECT_THAT(notices, IsEmpty());
}

/* --- callbacks that call --- */

TEST_F(state, a_client_may_send_requests_from_its_up_notice)
{
    const auto hd = connect(4);
    world.link_of(4).clear_sent();
    acs a(3);
    during = [&](const notice &) { EXPECT_EQ(create(hd, 0, a), 0u); };
    world.link_of(4).up();
    world.run();
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 2, 3, 3}));
}

TEST_F(state, a_client_may_send_requests_from_the_down_of_a_failed_send)
{
    const auto hd = connect_up(4);
    acs a(1), b(2);
    during = [&](const notice &) {
        during = nullptr;
        EXPECT_EQ(create(hd, 0, b), 0u);
    };
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 2, 2, 3}));
}

} // namespace
