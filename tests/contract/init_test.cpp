/*
 * First-time initialisation: its steps, in order, and what is left when one fails.
 */
#include "contract_test.h"

namespace {

using init = contract;

const std::initializer_list<fn> init_steps = {fn::l2vpn_debug_init,
                                              fn::platform_get_my_nodeid,
                                              fn::l2vpn_ipc_client_init,
                                              fn::event_async_attach_event,
                                              fn::mgd_timer_tree_new,
                                              fn::mgd_timer_parent_new,
                                              fn::wavl_init,
                                              fn::mgd_timer_tree_free,
                                              fn::mgd_timer_parent_free,
                                              fn::mgd_timer_leaf_new};

TEST_F(init, takes_its_steps_in_order)
{
    connect(4);
    EXPECT_THAT(order_of(init_steps),
                ElementsAre("l2vpn_debug_init", "platform_get_my_nodeid", "l2vpn_ipc_client_init",
                            "event_async_attach_event", "mgd_timer_tree_new", "mgd_timer_parent_new",
                            "wavl_init", "mgd_timer_leaf_new"));
}

TEST_F(init, gives_each_step_its_arguments)
{
    connect(4);
    const auto evm = reinterpret_cast<std::uint64_t>(world.evm());

    EXPECT_EQ(world.calls(fn::l2vpn_debug_init)[0].args[0], evm);

    const auto ipc = world.calls(fn::l2vpn_ipc_client_init)[0];
    EXPECT_EQ(ipc.args[0], evm);
    EXPECT_EQ(ipc.text, "L2VPN");

    const auto attach = world.calls(fn::event_async_attach_event)[0];
    EXPECT_EQ(attach.args[0], evm);
    EXPECT_EQ(attach.args[1], 128u);
    EXPECT_EQ(attach.args[3], 0u);
    const auto context = attach.args[4];
    EXPECT_NE(context, 0u);

    const auto tree = world.calls(fn::mgd_timer_tree_new)[0];
    EXPECT_EQ(tree.args[0], context);
    EXPECT_EQ(tree.args[1], 1u);

    const auto parent = world.calls(fn::mgd_timer_parent_new)[0];
    EXPECT_EQ(parent.args[0], static_cast<std::uint64_t>(tree.result));
    EXPECT_EQ(parent.args[1], 0u);

    EXPECT_EQ(world.calls(fn::wavl_init)[0].args[1], 1u);
}

TEST_F(init, happens_once)
{
    connect(4);
    connect(5);
    EXPECT_EQ(called(fn::l2vpn_debug_init), 1u);
    EXPECT_EQ(called(fn::platform_get_my_nodeid), 1u);
    EXPECT_EQ(called(fn::l2vpn_ipc_client_init), 1u);
    EXPECT_EQ(called(fn::event_async_attach_event), 1u);
    EXPECT_EQ(called(fn::mgd_timer_tree_new), 1u);
    EXPECT_EQ(called(fn::mgd_timer_parent_new), 1u);
    EXPECT_EQ(called(fn::wavl_init), 1u);
}

TEST_F(init, outlives_the_last_client)
{
    const auto hd = connect(4);
    ASSERT_EQ(lib.disconnect(hd), 0u);
    EXPECT_EQ(world.live_trees(), 1u);
    EXPECT_EQ(world.live_parents(), 1u);
    EXPECT_EQ(world.live_leaves(), 0u);
    connect(4);
    EXPECT_EQ(called(fn::l2vpn_debug_init), 1u);
}

/* --- the node id --- */

TEST_F(init, asks_the_platform_for_the_node_id)
{
    world.set.nodeid = 0x0b0c0d0e;
    connect(4);
    EXPECT_EQ(world.link_of(4).nodeid(), 0x0b0c0d0eu);
}

TEST_F(init, takes_the_callers_node_id)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect_nodeid(world.evm(), 0, 4, &callbacks, 0x11223344, &hd), 0u);
    EXPECT_EQ(called(fn::platform_get_my_nodeid), 0u);
    EXPECT_EQ(world.link_of(4).nodeid(), 0x11223344u);
}

TEST_F(init, ignores_the_node_id_of_a_later_connect)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect_nodeid(world.evm(), 0, 4, &callbacks, 0x11223344, &hd), 0u);
    ASSERT_EQ(lib.connect_nodeid(world.evm(), 0, 5, &callbacks, 0x55667788, &hd), 0u);
    EXPECT_EQ(world.link_of(5).nodeid(), 0x11223344u);
}

TEST_F(init, refuses_the_invalid_node_id_from_the_caller_at_once)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect_nodeid(world.evm(), 0, 4, &callbacks, NODEID_INVALID, &hd), 22u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_THAT(world.calls(), IsEmpty());
}

using init_death = init;

TEST_F(init_death, aborts_when_the_platform_answers_the_invalid_node_id)
{
    world.set.nodeid = NODEID_INVALID;
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_DEATH(
        lib.connect(world.evm(), 0, 4, &callbacks, &hd),
        "l2vpn_ac_global\\.cpp:[0-9]+: .*l2vpn_ac_lib_init.*Assertion `nodeid != NODEID_INVALID' failed");
}

TEST_F(init_death, aborts_on_another_event_manager)
{
    connect(4);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_DEATH(lib.connect(world.another_evm(), 0, 5, &callbacks, &hd), "evm == s_l2vpn_ac_global\\.evm");
}

/* --- a step that fails --- */

struct failed_init {
    const char *name;
    fn function;
    qerrno cause;
    qerrno result;
    std::string log; /* empty: nothing is logged */
};

void PrintTo(const failed_init &f, std::ostream *os)
{
    *os << f.name;
}

class failing_init : public contract, public testing::WithParamInterface<failed_init> {};

TEST_P(failing_init, ends_the_connect_with_its_status_and_text)
{
    const failed_init &f = GetParam();
    world.fail(f.function, 1, f.cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), f.result);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(called(fn::calloc_named), 0u) << "no client part after a failed initialisation";
    if (f.log.empty()) {
        EXPECT_THAT(world.calls(fn::gen_format_debug_fmt), IsEmpty());
    } else {
        EXPECT_EQ(logged(f.log), 1);
    }
}

TEST_P(failing_init, is_followed_by_an_exit_trace_with_the_status)
{
    world.fail(GetParam().function, 1, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    lib.connect(world.evm(), 0, 4, &callbacks, &hd);
    const auto traces = world.calls(fn::gen_dbg_ltrace_ctx);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].text, std::to_string(GetParam().result));
}

TEST_P(failing_init, leaves_a_connect_that_begins_anew)
{
    world.fail(GetParam().function, 1, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_NE(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 0u);
    world.clear_calls();

    connect_up(4);
    EXPECT_THAT(order_of(init_steps),
                ElementsAre("l2vpn_debug_init", "platform_get_my_nodeid", "l2vpn_ipc_client_init",
                            "event_async_attach_event", "mgd_timer_tree_new", "mgd_timer_parent_new",
                            "wavl_init", "mgd_timer_leaf_new"));
}

TEST_P(failing_init, says_nothing_when_debugging_is_off)
{
    world.set.debug_enabled = false;
    world.fail(GetParam().function, 1, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), GetParam().result);
    EXPECT_THAT(world.log(), IsEmpty());
}

/* The event manager of a failed connect binds nobody; that of the one that succeeds binds all later ones. */
TEST_P(failing_init, leaves_the_choice_of_the_event_manager_open)
{
    world.fail(GetParam().function, 1, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_NE(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 0u);
    event_mgr *const another = world.another_evm();
    EXPECT_EQ(lib.connect(another, 0, 4, &callbacks, &hd), 0u);
    l2vpn_ac_client_hd_t later = nullptr;
    EXPECT_EQ(lib.connect(another, 0, 5, &callbacks, &later), 0u);
    EXPECT_DEATH(lib.connect(world.evm(), 0, 6, &callbacks, &later), "evm == s_l2vpn_ac_global.evm");
}

TEST_P(failing_init, leaves_the_library_uninitialised)
{
    world.fail(GetParam().function, 1, GetParam().cause);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_NE(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 0u);
    auto *const any = reinterpret_cast<l2vpn_ac_client_hd_t>(this);
    EXPECT_EQ(lib.disconnect(any), 22u);
    EXPECT_EQ(lib.create(any, 0, 0, nullptr, nullptr, nullptr), 2u);
    EXPECT_EQ(lib.update(any, 0, 0, nullptr, nullptr), 22u);
    EXPECT_EQ(lib.remove(any, 0, 0, nullptr), 22u);
    EXPECT_EQ(lib.mstp_root(any, 0, nullptr, 0), 22u);
    EXPECT_EQ(lib.mstp_port_request(any, 0, nullptr, 0), 22u);
    EXPECT_EQ(lib.msti_vid_map(any, 0, nullptr, 0), 22u);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(any, 0, &prot), 22u);
    EXPECT_EQ(called(fn::wavl_search), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    steps, failing_init,
    testing::Values(
        failed_init{"debug", fn::l2vpn_debug_init, 5, 5, ""},
        failed_init{"nodeid", fn::platform_get_my_nodeid, 6, 6,
                    "Failed to get nodeid:No such device or address"},
        failed_init{"ipc", fn::l2vpn_ipc_client_init, 13, 13, "Failed to init IPC DLL:Permission denied"},
        failed_init{"attach", fn::event_async_attach_event, 11, 11,
                    "event_async_attach Resource temporarily unavailable"},
        failed_init{"tree", fn::mgd_timer_tree_new, 5, 2, "Failed to init root timer Success"},
        failed_init{"parent", fn::mgd_timer_parent_new, 5, 12, "Failed to init parent timer Success"},
        failed_init{"wavl", fn::wavl_init, 28, 28, "Failed to init client wavl:No space left on device"}),
    [](const auto &param) { return std::string(param.param.name); });

TEST_F(init, frees_the_tree_when_there_is_no_parent)
{
    world.fail(fn::mgd_timer_parent_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    lib.connect(world.evm(), 0, 4, &callbacks, &hd);
    EXPECT_EQ(world.live_trees(), 0u);
    EXPECT_EQ(world.live_parents(), 0u);
}

TEST_F(init, frees_tree_then_parent_when_the_client_tree_fails)
{
    world.fail(fn::wavl_init, 1, 28);
    l2vpn_ac_client_hd_t hd = nullptr;
    lib.connect(world.evm(), 0, 4, &callbacks, &hd);
    EXPECT_THAT(order_of({fn::mgd_timer_tree_free, fn::mgd_timer_parent_free}),
                ElementsAre("mgd_timer_tree_free", "mgd_timer_parent_free"));
    EXPECT_EQ(world.live_trees(), 0u);
    EXPECT_EQ(world.live_parents(), 0u);
}

TEST_F(init, leaves_ipc_client_and_attachment_of_a_failed_attempt_in_place)
{
    world.fail(fn::mgd_timer_tree_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    lib.connect(world.evm(), 0, 4, &callbacks, &hd);
    EXPECT_NE(world.attached(128), nullptr);
    EXPECT_NE(world.ipc_client(), nullptr);
}

/* An attach that fails without a reason is no failure of the initialisation: the client part goes on with
 * no timers and no tree, and the platform refuses it there. */
TEST_F(init, goes_on_uninitialised_after_an_attach_that_fails_without_a_reason)
{
    world.fail(fn::event_async_attach_event, 1, 0);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 12u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(logged("event_async_attach Success"), 1);
    EXPECT_EQ(logged("Failed to alloc AC/MA client timer"), 1);
    EXPECT_EQ(called(fn::mgd_timer_tree_new), 0u);
    const auto leaf = world.calls(fn::mgd_timer_leaf_new);
    ASSERT_EQ(leaf.size(), 1u);
    EXPECT_EQ(leaf[0].args[0], 0u) << "the null tree is handed on";

    connect_up(4);
    EXPECT_EQ(called(fn::l2vpn_debug_init), 2u);
}

/* After a failed client tree the tree of the timers is forgotten, and the pointer to their parent is not. */
TEST_F(init, keeps_the_stale_parent_after_the_client_tree_has_failed)
{
    world.fail(fn::wavl_init, 1, 28);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 28u);
    const auto parent = static_cast<std::uint64_t>(world.calls(fn::mgd_timer_parent_new)[0].result);
    world.fail(fn::event_async_attach_event, 1, 0);
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 12u);
    const auto leaf = world.calls(fn::mgd_timer_leaf_new);
    ASSERT_EQ(leaf.size(), 1u);
    EXPECT_EQ(leaf[0].args[0], 0u);
    EXPECT_EQ(leaf[0].args[1], parent);
}

/* Without a parent of the timers their tree is freed, and forgotten. */
TEST_F(init, forgets_the_tree_when_there_is_no_parent)
{
    world.fail(fn::mgd_timer_parent_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 12u);
    world.fail(fn::event_async_attach_event, 1, 0);
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 12u);
    const auto leaf = world.calls(fn::mgd_timer_leaf_new);
    ASSERT_EQ(leaf.size(), 1u);
    EXPECT_EQ(leaf[0].args[0], 0u);
}

TEST_F(init, zeroes_the_record_before_it_is_attached)
{
    world.fail(fn::mgd_timer_tree_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 2u);
    auto *const record = reinterpret_cast<unsigned char *>(
        static_cast<std::uintptr_t>(world.calls(fn::event_async_attach_event)[0].args[4]));
    std::memset(record, 0xff, sizeof(event_context_t));
    bool zeroed = false;
    world.before(fn::event_async_attach_event, [&] {
        zeroed = std::count(record, record + sizeof(event_context_t), 0) ==
                 static_cast<std::ptrdiff_t>(sizeof(event_context_t));
    });
    connect(4);
    EXPECT_TRUE(zeroed);
}

TEST_F(init, attaches_one_static_record_each_time)
{
    world.fail(fn::mgd_timer_tree_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 2u);
    connect(4);
    const auto attaches = world.calls(fn::event_async_attach_event);
    ASSERT_EQ(attaches.size(), 2u);
    EXPECT_EQ(attaches[0].args[4], attaches[1].args[4]);
    EXPECT_NE(attaches[0].args[2], 0u);
}

/* Each attempt makes an IPC client; the latest one is used from then on. */
TEST_F(init, uses_the_ipc_client_of_the_attempt_that_succeeded)
{
    world.fail(fn::mgd_timer_tree_new, 1, 12);
    l2vpn_ac_client_hd_t hd = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 2u);
    hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_EQ(lib.disconnect(hd), 0u);
    const auto client = reinterpret_cast<std::uint64_t>(world.ipc_client());
    for (const fn f : {fn::l2vpn_ipc_class_init, fn::l2vpn_ipc_transport_mtu_get, fn::l2vpn_ipc_ucast,
                       fn::l2vpn_ipc_ucastv, fn::l2vpn_ipc_class_deinit}) {
        ASSERT_EQ(called(f), 1u) << name_of(f);
        EXPECT_EQ(world.calls(f)[0].args[0], client) << name_of(f);
    }
}

} // namespace
