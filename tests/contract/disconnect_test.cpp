/*
 * What undoes a connect: a step of it that fails, and disconnect.
 */
#include "contract_test.h"

namespace {

using connecting = contract;
using disconnecting = contract;

/* --- a step that fails --- */

struct failure {
    const char *name;
    fn function;
    std::uint64_t occurrence;
    qerrno cause;
    qerrno result;
    std::string log;
    std::vector<std::string> undone;
};

void PrintTo(const failure &f, std::ostream *os)
{
    *os << f.name;
}

class failing_connect : public contract, public testing::WithParamInterface<failure> {};

TEST_P(failing_connect, returns_its_status_and_undoes_what_was_done_in_reverse)
{
    const failure &f = GetParam();
    connect(3); /* the library is initialised, and another client must not suffer */
    world.clear_calls();
    world.fail(f.function, f.occurrence, f.cause);

    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), f.result);
    EXPECT_EQ(hd, nullptr) << "the handle is written on success only";
    if (!f.log.empty()) {
        EXPECT_EQ(logged(f.log), 1);
    } else {
        EXPECT_THAT(world.calls(fn::gen_format_debug_fmt), IsEmpty());
    }
    EXPECT_EQ(order_of({fn::l2vpn_ipc_class_deinit, fn::wavl_delete, fn::mgd_timer_leaf_free}), f.undone);
    for (const auto &deinit : world.calls(fn::l2vpn_ipc_class_deinit)) {
        EXPECT_EQ(deinit.args[1], 4u);
        EXPECT_EQ(deinit.args[2], 0u);
    }
    EXPECT_EQ(world.live_leaves(), 1u);
    EXPECT_EQ(world.clients(), 1u);
    EXPECT_FALSE(world.link_of(4).registered());
    EXPECT_TRUE(world.link_of(3).registered());
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_P(failing_connect, says_nothing_when_debugging_is_off)
{
    connect(3);
    world.clear_calls();
    world.set.debug_enabled = false;
    world.fail(GetParam().function, GetParam().occurrence, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), GetParam().result);
    EXPECT_THAT(world.log(), IsEmpty());
}

TEST_P(failing_connect, can_be_tried_again)
{
    connect(3);
    world.fail(GetParam().function, GetParam().occurrence, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_NE(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 0u);
    hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_EQ(sent(4).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    steps, failing_connect,
    testing::Values(failure{"context", fn::calloc_named, 1, 12, 12, "", {}},
                    failure{
                        "leaf", fn::mgd_timer_leaf_new, 1, 12, 12, "Failed to alloc AC/MA client timer", {}},
                    failure{"leaf_context",
                            fn::mgd_timer_leaf_set_addl_context,
                            1,
                            34,
                            2,
                            "Failed to store context for leaf timer: Numerical result out of range",
                            {"mgd_timer_leaf_free"}},
                    failure{"tree",
                            fn::wavl_insert,
                            1,
                            5,
                            17,
                            "Failed to insert AC/MA client in wavl",
                            {"mgd_timer_leaf_free"}},
                    failure{"registration",
                            fn::l2vpn_ipc_class_init,
                            1,
                            17,
                            17,
                            "Failed to init AC/MA class",
                            {"wavl_delete", "mgd_timer_leaf_free"}},
                    failure{"mtu",
                            fn::l2vpn_ipc_transport_mtu_get,
                            1,
                            107,
                            107,
                            "Failed to get transport MTU: Transport endpoint is not connected",
                            {"l2vpn_ipc_class_deinit", "wavl_delete", "mgd_timer_leaf_free"}},
                    failure{"join",
                            fn::l2vpn_ipc_ucast,
                            1,
                            105,
                            105,
                            "Failed to unicast a JOIN MSG to L2VPN: No buffer space available",
                            {"l2vpn_ipc_class_deinit", "wavl_delete", "mgd_timer_leaf_free"}}),
    [](const auto &param) { return std::string(param.param.name); });

TEST_F(connecting, of_a_context_that_cannot_be_allocated_is_traced)
{
    connect(3);
    world.clear_calls();
    world.fail(fn::calloc_named, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 12u);
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 1u);
}

TEST_F(connecting, ignores_a_failed_deregistration_while_cleaning_up)
{
    world.fail(fn::l2vpn_ipc_ucast, 1, 105);
    world.fail(fn::l2vpn_ipc_class_deinit, 1, 5);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 105u);
    EXPECT_EQ(world.clients(), 0u);
    EXPECT_EQ(world.live_leaves(), 0u);
}

/* Whoever learns the handle before the connect has failed may disconnect it: what is undone is undone once. */
TEST_F(connecting, that_fails_after_somebody_disconnected_its_client)
{
    connect(3);
    world.before(fn::l2vpn_ipc_ucast, [&] {
        EXPECT_EQ(lib.disconnect(static_cast<l2vpn_ac_client_hd_t>(world.link_of(4).cookie())), 0u);
    });
    world.fail(fn::l2vpn_ipc_ucast, 1, 105);
    world.clear_calls();
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 105u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(called(fn::wavl_delete), 1u);
    EXPECT_EQ(world.clients(), 1u);
    EXPECT_EQ(world.live_leaves(), 1u);
}

/* --- disconnect --- */

TEST_F(disconnecting, undoes_the_connect)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    EXPECT_EQ(lib.disconnect(hd), 0u);
    EXPECT_THAT(order_of({fn::mgd_timer_leaf_free, fn::l2vpn_ipc_class_deinit, fn::wavl_delete}),
                ElementsAre("mgd_timer_leaf_free", "l2vpn_ipc_class_deinit", "wavl_delete"));
    const auto deinit = world.calls(fn::l2vpn_ipc_class_deinit)[0];
    EXPECT_EQ(deinit.args[1], 4u);
    EXPECT_EQ(deinit.args[2], 0u);
    EXPECT_FALSE(world.link_of(4).registered());
    EXPECT_EQ(world.live_leaves(), 0u);
    EXPECT_EQ(world.clients(), 0u);
}

TEST_F(disconnecting, before_any_connect_is_refused)
{
    EXPECT_EQ(lib.disconnect(nullptr), 22u);
    EXPECT_EQ(lib.disconnect(reinterpret_cast<l2vpn_ac_client_hd_t>(this)), 22u);
    EXPECT_THAT(world.calls(), IsEmpty());
}

TEST_F(disconnecting, an_unknown_handle_is_refused)
{
    connect(4);
    world.clear_calls();
    EXPECT_EQ(lib.disconnect(nullptr), 22u);
    EXPECT_EQ(lib.disconnect(reinterpret_cast<l2vpn_ac_client_hd_t>(this)), 22u);
    EXPECT_EQ(lib.disconnect(reinterpret_cast<l2vpn_ac_client_hd_t>(~std::uintptr_t{0})), 22u);
    EXPECT_EQ(called(fn::mgd_timer_leaf_free), 0u);
}

TEST_F(disconnecting, twice_is_refused)
{
    const auto hd = connect(4);
    EXPECT_EQ(lib.disconnect(hd), 0u);
    EXPECT_EQ(lib.disconnect(hd), 22u);
}

TEST_F(disconnecting, stops_the_joins)
{
    const auto hd = connect(4);
    ASSERT_EQ(lib.disconnect(hd), 0u);
    world.link_of(4).clear_sent();
    world.advance(seconds(100));
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_F(disconnecting, lets_the_class_be_connected_again)
{
    ASSERT_EQ(lib.disconnect(connect_up(4)), 0u);
    const auto hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
}

TEST_F(disconnecting, leaves_other_clients_alone)
{
    const auto first = connect_up(4);
    const auto second = connect_up(5);
    ASSERT_EQ(lib.disconnect(first), 0u);
    acs a(1);
    EXPECT_EQ(create(first, 0, a), 2u);
    EXPECT_EQ(create(second, 0, a), 0u);
}

TEST_F(disconnecting, from_inside_a_callback_is_refused_and_the_timer_is_gone)
{
    const auto hd = connect(4);
    qerrno rc = 0;
    during = [&](const notice &) { rc = lib.disconnect(hd); };
    world.link_of(4).up();
    world.run();
    during = nullptr;

    EXPECT_EQ(rc, 35u);
    EXPECT_TRUE(world.link_of(4).registered());
    EXPECT_EQ(world.clients(), 1u);
    EXPECT_EQ(world.live_leaves(), 0u);
    EXPECT_EQ(called(fn::l2vpn_ipc_class_deinit), 0u);
}

/* The client goes on without its timer. The stale leaf is handed to the platform as before. */
TEST_F(disconnecting, that_was_refused_leaves_a_client_that_works_without_its_timer)
{
    const auto hd = connect(4);
    during = [&](const notice &) { EXPECT_EQ(lib.disconnect(hd), 35u); };
    world.link_of(4).up();
    world.run();
    during = nullptr;
    world.link_of(4).clear_sent();
    notices.clear();

    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_EQ(sent(4).size(), 1u);

    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(create(hd, 0, a), 0u) << "the stale leaf is there: the failure is taken over";
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
    world.advance(seconds(100));
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN)) << "no timer, no JOIN, no UP";

    EXPECT_EQ(lib.disconnect(hd), 0u) << "from outside it succeeds, freeing the leaf a second time";
    EXPECT_EQ(world.clients(), 0u);
}

TEST_F(disconnecting, whose_deregistration_fails_keeps_the_client_without_its_timer)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_class_deinit, 1, 5);
    EXPECT_EQ(lib.disconnect(hd), 5u);
    EXPECT_EQ(world.live_leaves(), 0u);
    EXPECT_EQ(world.clients(), 1u);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_EQ(lib.disconnect(hd), 0u);
}

TEST_F(disconnecting, logs_nothing)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    const auto before = world.log();
    world.fail(fn::l2vpn_ipc_class_deinit, 1, 5);
    lib.disconnect(hd);
    lib.disconnect(nullptr);
    lib.disconnect(hd);
    EXPECT_EQ(world.log(), before);
}

/* Notices that a failed send or the timer gives come without the mark that refuses a disconnect. */
TEST_F(disconnecting, from_inside_the_down_of_a_failed_send_succeeds)
{
    const auto hd = connect_up(4);
    during = [&](const notice &) { EXPECT_EQ(lib.disconnect(hd), 0u); };
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
    EXPECT_EQ(a, acs(1));
    EXPECT_EQ(world.clients(), 0u);
    EXPECT_EQ(world.live_leaves(), 0u);
}

TEST_F(disconnecting, from_inside_the_up_of_the_timer_succeeds)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    notices.clear();
    during = [&](const notice &) { EXPECT_EQ(lib.disconnect(hd), 0u); };
    world.advance(seconds(1));
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_UP));
    EXPECT_EQ(world.clients(), 0u);
    EXPECT_EQ(world.live_leaves(), 0u);
}

} // namespace
