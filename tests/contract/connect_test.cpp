/*
 * Connect and disconnect.
 */
#include "contract_test.h"

namespace {

using connecting = contract;

/* --- arguments --- */

struct argument {
    const char *name;
    bool evm, callbacks, status_cb, handle;
    std::uint32_t class_id;
};

class bad_argument : public contract, public testing::WithParamInterface<argument> {};

TEST_P(bad_argument, is_refused_before_anything_is_called)
{
    const argument &a = GetParam();
    if (!a.status_cb)
        callbacks.status_cb = nullptr;
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(a.evm ? world.evm() : nullptr, 0, a.class_id, a.callbacks ? &callbacks : nullptr,
                          a.handle ? &hd : nullptr),
              22u);
    EXPECT_EQ(lib.connect_nodeid(a.evm ? world.evm() : nullptr, 0, a.class_id,
                                 a.callbacks ? &callbacks : nullptr, 7, a.handle ? &hd : nullptr),
              22u);
    EXPECT_EQ(hd, nullptr);
    for (const auto &call : world.calls())
        EXPECT_THAT(call.function, testing::AnyOf(fn::gen_dbg_ltrace_ctx, fn::gen_ltrace));
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 2u) << "an exit trace each";
}

INSTANTIATE_TEST_SUITE_P(arguments, bad_argument,
                         testing::Values(argument{"callbacks", true, false, true, true, 4},
                                         argument{"evm", false, true, true, true, 4},
                                         argument{"class_18", true, true, true, true, 18},
                                         argument{"class_max", true, true, true, true, 0xffffffff},
                                         argument{"handle", true, true, true, false, 4},
                                         argument{"status_cb", true, true, false, true, 4}),
                         [](const auto &param) { return std::string(param.param.name); });

TEST_F(connecting, ignores_the_spare_argument)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0xdeadbeef, 4, &callbacks, &hd), 0u);
}

TEST_F(connecting, needs_no_optional_callback)
{
    callbacks = {callbacks.status_cb, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    connect_up(4);
}

TEST_F(connecting, copies_the_vector)
{
    connect(4);
    callbacks = {};
    world.link_of(4).up();
    world.run();
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_UP));
}

/* --- the steps --- */

const std::initializer_list<fn> steps = {
    fn::calloc_named,    fn::mgd_timer_leaf_new,   fn::mgd_timer_leaf_set_addl_context,
    fn::wavl_insert,     fn::l2vpn_ipc_class_init, fn::l2vpn_ipc_transport_mtu_get,
    fn::l2vpn_ipc_ucast, fn::mgd_timer_leaf_start, fn::l2vpn_ipc_class_deinit,
    fn::wavl_delete,     fn::mgd_timer_leaf_free};

TEST_F(connecting, takes_its_steps_in_order)
{
    connect(4);
    EXPECT_THAT(order_of(steps),
                ElementsAre("calloc_named", "mgd_timer_leaf_new", "mgd_timer_leaf_set_addl_context",
                            "wavl_insert", "l2vpn_ipc_class_init", "l2vpn_ipc_transport_mtu_get",
                            "l2vpn_ipc_ucast", "mgd_timer_leaf_start"));
}

TEST_F(connecting, gives_each_step_its_arguments)
{
    const auto hd = connect(4);
    const auto handle = reinterpret_cast<std::uint64_t>(hd);

    const auto memory = world.calls(fn::calloc_named)[0];
    EXPECT_EQ(memory.args[0], 1u);
    EXPECT_EQ(memory.text, "L2VPN AC Client ctx");
    EXPECT_EQ(static_cast<std::uint64_t>(memory.result), handle);

    const auto leaf = world.calls(fn::mgd_timer_leaf_new)[0];
    EXPECT_EQ(leaf.args[0], static_cast<std::uint64_t>(world.calls(fn::mgd_timer_tree_new)[0].result));
    EXPECT_EQ(leaf.args[1], static_cast<std::uint64_t>(world.calls(fn::mgd_timer_parent_new)[0].result));
    EXPECT_EQ(leaf.args[2], 0u);
    EXPECT_NE(leaf.args[3], 0u);

    const auto addl = world.calls(fn::mgd_timer_leaf_set_addl_context)[0];
    EXPECT_EQ(addl.args[0], static_cast<std::uint64_t>(leaf.result));
    EXPECT_EQ(addl.args[1], 0u);
    EXPECT_EQ(addl.args[2], handle);

    const auto registration = world.calls(fn::l2vpn_ipc_class_init)[0];
    EXPECT_EQ(registration.args[1], 4u);
    EXPECT_EQ(registration.args[2], world.set.nodeid);
    EXPECT_EQ(registration.args[5], 0u);
    EXPECT_EQ(registration.args[6], handle);

    const auto join = world.calls(fn::l2vpn_ipc_ucast)[0];
    EXPECT_EQ(join.args[1], 4u);
    EXPECT_EQ(join.args[2], 0xffffffffu);
    EXPECT_EQ(join.args[4], 16u);
    EXPECT_EQ(join.args[5], 0u);
}

TEST_F(connecting, sends_a_join_of_sixteen_bytes)
{
    connect(4);
    EXPECT_THAT(sent(4), ElementsAre(bytes{0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(connecting, starts_the_timer_for_four_seconds)
{
    connect(4);
    const auto start = world.calls(fn::mgd_timer_leaf_start);
    ASSERT_EQ(start.size(), 1u);
    EXPECT_EQ(start[0].args[1], 4'000'000'000u);
}

TEST_F(connecting, logs_the_limits)
{
    world.set.mtu = 1516;
    connect(4);
    EXPECT_EQ(logged("lib AC connect INIT: MTU=1516, max_create=2, max_updt=75, max_del=375"), 1);
}

TEST_F(connecting, fetches_the_mtu_into_library_storage)
{
    connect(4);
    connect(5);
    const auto fetches = world.calls(fn::l2vpn_ipc_transport_mtu_get);
    ASSERT_EQ(fetches.size(), 2u);
    EXPECT_EQ(fetches[0].args[2], fetches[1].args[2]) << "one field for the whole library";
}

TEST_F(connecting, of_class_15_registers_and_is_undone)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 15, &callbacks, &hd), 22u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(logged("Unable to get info message size for class id 15"), 1);
    EXPECT_THAT(order_of(steps),
                ElementsAre("calloc_named", "mgd_timer_leaf_new", "mgd_timer_leaf_set_addl_context",
                            "wavl_insert", "l2vpn_ipc_class_init", "l2vpn_ipc_transport_mtu_get",
                            "l2vpn_ipc_class_deinit", "wavl_delete", "mgd_timer_leaf_free"));
    EXPECT_FALSE(world.link_of(15).registered());
    EXPECT_EQ(world.clients(), 0u);
}

class valid_class : public contract, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(valid_class, connects)
{
    connect_up(GetParam());
}

INSTANTIATE_TEST_SUITE_P(classes, valid_class,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 16, 17));

TEST_F(connecting, of_a_class_twice_is_for_the_ipc_to_decide)
{
    connect(4);
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 17u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(world.clients(), 1u);
}

/* Until its JOIN is sent a client is idle: a request that fails then is not taken over. */
TEST_F(connecting, is_idle_until_the_join_is_sent)
{
    qerrno rc = 0;
    world.link_of(4).on_send([&](auto) {
        world.link_of(4).on_send(nullptr);
        world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
        rc = lib.update(static_cast<l2vpn_ac_client_hd_t>(world.link_of(4).cookie()), 0, 0, nullptr, nullptr);
    });
    connect(4);
    EXPECT_EQ(rc, 105u);
    EXPECT_EQ(called(fn::mgd_timer_leaf_start), 1u) << "the connect's own";
}

/* The process goes away while connect starts the timer: the retry logic has nothing to retry, and says so. */
TEST_F(connecting, returns_what_the_retry_logic_says)
{
    world.before(fn::gen_format_debug_fmt, [&] {
        world.before(fn::gen_format_debug_fmt, {});
        world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_DISCONNECTED, 0, world.link_of(4).cookie());
    });
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 2u);
    EXPECT_EQ(hd, world.link_of(4).cookie()) << "the client is there all the same";
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
    EXPECT_THAT(world.timers(), IsEmpty());
}

/* --- the limits: of the latest connect, for every client --- */

/* A request of `count` ACs is cut as the limits say: how many ACs the messages carry. */
std::vector<std::uint32_t> cut(const std::vector<header> &headers)
{
    std::vector<std::uint32_t> result;
    for (const header &h : headers)
        result.push_back(h.bulk);
    return result;
}

struct limits {
    std::uint32_t class_id, mtu, max_create, max_updt, max_del, max_root, max_req, max_map;
};

class limit : public contract, public testing::WithParamInterface<limits> {};

TEST_P(limit, follows_from_mtu_and_class)
{
    const limits &l = GetParam();
    world.set.mtu = l.mtu;
    const auto hd = connect_up(l.class_id);
    auto &link = world.link_of(l.class_id);

    const auto first_cut = [&] {
        EXPECT_EQ(link.sent().size(), 2u);
        const auto bulks = cut(headers_of(link.sent()));
        link.clear_sent();
        return bulks;
    };
    acs a(l.max_create + 1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_create, 1));
    acs u(l.max_updt + 1);
    EXPECT_EQ(update(hd, 0, u), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_updt, 1));
    std::vector<ifhtype> ifh(l.max_del + 1, 7);
    EXPECT_EQ(lib.remove(hd, 0, l.max_del + 1, ifh.data()), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_del, 1));
    std::vector<l2vpn_msti_root_t> roots(l.max_root + 1);
    EXPECT_EQ(lib.mstp_root(hd, 0, roots.data(), l.max_root + 1), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_root, 1));
    std::vector<l2vpn_mstp_req_t> reqs(l.max_req + 1);
    EXPECT_EQ(lib.mstp_port_request(hd, 0, reqs.data(), l.max_req + 1), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_req, 1));
    std::vector<l2vpn_msti_vid_map_t> map(l.max_map + 1);
    EXPECT_EQ(lib.msti_vid_map(hd, 0, map.data(), l.max_map + 1), 0u);
    EXPECT_THAT(first_cut(), ElementsAre(l.max_map, 1));
}

/* (mtu - 16) over the info size + 620, + 4; over 4, 12, 96 and 4; worked out by hand. */
INSTANTIATE_TEST_SUITE_P(
    classes, limit,
    testing::Values(limits{0, 1516, 2, 62, 375, 125, 15, 375}, limits{1, 2016, 3, 83, 500, 166, 20, 500},
                    limits{2, 2576, 4, 106, 640, 213, 26, 640}, limits{3, 9000, 14, 449, 2246, 748, 93, 2246},
                    limits{4, 652, 1, 31, 159, 53, 6, 159}, limits{5, 1288, 2, 63, 318, 106, 13, 318},
                    limits{6, 4116, 5, 20, 1025, 341, 42, 1025}, limits{7, 1368, 2, 22, 338, 112, 14, 338},
                    limits{8, 65536, 22, 27, 16380, 5460, 682, 16380},
                    limits{10, 65536, 103, 3276, 16380, 5460, 682, 16380},
                    limits{11, 65536, 101, 2340, 16380, 5460, 682, 16380},
                    limits{12, 1516, 2, 75, 375, 125, 15, 375}, limits{13, 1516, 2, 75, 375, 125, 15, 375},
                    limits{14, 1516, 2, 75, 375, 125, 15, 375}, limits{16, 1516, 2, 62, 375, 125, 15, 375},
                    limits{17, 9016, 10, 44, 2250, 750, 93, 2250}),
    [](const auto &param) {
        return "class_" + std::to_string(param.param.class_id) + "_mtu_" + std::to_string(param.param.mtu);
    });

/* Class 9 cannot send ACs: its limits are read off the line that connect logs. */
TEST_F(connecting, of_class_9_computes_its_limits)
{
    world.set.mtu = 1516;
    connect(9);
    EXPECT_EQ(logged("lib AC connect INIT: MTU=1516, max_create=2, max_updt=15, max_del=375"), 1);
}

TEST_F(connecting, sets_the_limits_for_every_client)
{
    world.set.mtu = 1516;
    const auto first = connect_up(4);
    connect_up(8); /* 2,976 bytes an AC: none fits 1,500 bytes, but 375 handles do */
    world.set_mtu(0, 700);
    connect_up(0);
    std::vector<ifhtype> ifh(172, 7);
    EXPECT_EQ(lib.remove(first, 0, 172, ifh.data()), 0u);
    EXPECT_THAT(cut(sent_headers(4)), ElementsAre(171, 1)) << "the third client's limits";
}

/* Not the MTU alone: the class of the latest connect counts, for creates and updates of all clients. */
TEST_F(connecting, cuts_the_requests_of_every_client_by_the_class_of_the_latest)
{
    world.set.mtu = 16 + 2 * 2976; /* two ACs of class 8 */
    const auto small = connect_up(4);
    const auto large = connect_up(8);
    acs a(5);
    EXPECT_EQ(create(small, 0, a), 0u);
    EXPECT_EQ(update(small, 0, a), 0u);
    EXPECT_THAT(cut(sent_headers(4)), ElementsAre(2, 2, 1, 2, 2, 1)) << "class 8's limits";

    EXPECT_EQ(lib.disconnect(small), 0u);
    EXPECT_EQ(create(large, 0, a), 0u);
    EXPECT_THAT(cut(sent_headers(8)), ElementsAre(2, 2, 1)) << "a disconnect changes none";

    connect_up(5);
    world.link_of(8).clear_sent();
    EXPECT_EQ(create(large, 0, a), 0u);
    EXPECT_THAT(cut(sent_headers(8)), ElementsAre(5)) << "class 5's limits";
}

TEST_F(connecting, that_fails_keeps_the_limits_it_has_overwritten)
{
    world.set.mtu = 1516;
    const auto hd = connect_up(4);
    world.set_mtu(5, 116);
    world.fail(fn::l2vpn_ipc_ucast, 1, 105);
    l2vpn_ac_client_hd_t other = nullptr;
    ASSERT_EQ(lib.connect(world.evm(), 0, 5, &callbacks, &other), 105u);
    std::vector<ifhtype> ifh(26, 7);
    EXPECT_EQ(lib.remove(hd, 0, 26, ifh.data()), 0u);
    EXPECT_THAT(cut(sent_headers(4)), ElementsAre(25, 1));
}

TEST_F(connecting, with_an_mtu_below_the_header_wraps_the_limits)
{
    world.set.mtu = 15;
    connect(4);
    /* 2^64 - 1 divided by 636, by 20 and by 4, low 32 bits, printed as signed numbers */
    const auto low = [](std::uint64_t divisor) {
        return std::to_string(static_cast<std::int32_t>(0xffffffffffffffffu / divisor));
    };
    EXPECT_EQ(logged("lib AC connect INIT: MTU=15, max_create=" + low(636) + ", max_updt=" + low(20) +
                     ", max_del=" + low(4)),
              1);
    EXPECT_EQ(low(4), "-1");
}

TEST_F(connecting, with_an_mtu_of_zero_wraps_the_limits)
{
    world.set.mtu = 0;
    const auto hd = connect_up(4);
    std::vector<ifhtype> ifh(100000, 7);
    EXPECT_EQ(lib.remove(hd, 0, 100000, ifh.data()), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 6, 100000, 0x30}))
        << "(2^64 - 16) / 4 has the low word 0xfffffffc";
}

} // namespace
