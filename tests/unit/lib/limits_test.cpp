/*
 * The message limits as connect leaves them in the global record, for MTUs that leave room, none, or less
 * than none; counts that are negative where messages are cut; and the fields of a client's context from its
 * connect on.
 */
#include "l2vpn_ac_global.h"
#include "l2vpn_ac_send.h"

#include <platform/sim.h>

#include <gtest/gtest.h>

#include <vector>

namespace {

using l2vpn::sim::fn;

/* The library stays initialised for the life of the process, and with it the event manager. */
l2vpn::sim::world &world()
{
    static l2vpn::sim::world the_world;
    the_world.set.enforce_mtu = false; /* lengths that no MTU allows are looked at, too */
    return the_world;
}

std::uint32_t busy_in_callback = 99;

l2vpn_ac_callback_vector_t callbacks = {
    .status_cb = [](l2vpn_ac_client_hd_t hd, std::uint32_t, std::uint32_t) -> qerrno {
        busy_in_callback = hd->busy;
        return 0;
    },
    .prov_cb = nullptr,
    .unprov_cb = nullptr,
    .bulk_notify_cb = nullptr,
    .hdr_notify_cb = nullptr,
    .reserved5 = nullptr,
    .reserved6 = nullptr};

struct client {
    l2vpn_ac_client_hd_t hd = nullptr;

    explicit client(std::uint32_t class_id)
    {
        EXPECT_EQ(l2vpn_ac_process_connect(world().evm(), 0, class_id, &callbacks, &hd), 0u);
    }
    ~client() { EXPECT_EQ(l2vpn_ac_process_disconnect(hd), 0u); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;
};

struct limits {
    std::uint32_t class_id, mtu;
    std::uint32_t create, updt, del, msti_root, mstp_req, vid_map, half;
};

class limit : public testing::TestWithParam<limits> {};

TEST_P(limit, is_what_the_mtu_has_room_for)
{
    const limits &l = GetParam();
    world().set.mtu = l.mtu;
    const client c(l.class_id);
    const l2vpn_ac_global &global = s_l2vpn_ac_global;
    EXPECT_EQ(global.mtu, l.mtu);
    EXPECT_EQ(global.max_create, l.create);
    EXPECT_EQ(global.max_updt, l.updt);
    EXPECT_EQ(global.max_del, l.del);
    EXPECT_EQ(global.max_msti_root, l.msti_root);
    EXPECT_EQ(global.max_mstp_req, l.mstp_req);
    EXPECT_EQ(global.max_vid_map, l.vid_map);
    EXPECT_EQ(global.max_half, l.half);
}

/* Below 16 the room is 2^64 - (16 - mtu); of each quotient the low 32 bits are kept. */
INSTANTIATE_TEST_SUITE_P(
    mtus, limit,
    testing::Values(limits{4, 16, 0, 0, 0, 0, 0, 0, 0}, limits{4, 17, 0, 0, 0, 0, 0, 0, 0},
                    limits{4, 100, 0, 4, 21, 7, 0, 21, 42}, limits{4, 400, 0, 19, 96, 32, 4, 96, 192},
                    limits{0, 1516, 2, 62, 375, 125, 15, 375, 750},
                    limits{8, 65536, 22, 27, 16380, 5460, 682, 16380, 32760},
                    limits{6, 0xffffffff, 5237764, 21053761, 0x3ffffffb, 357913939, 44739242, 0x3ffffffb,
                           0x7ffffff7},
                    limits{4, 0, 999457798u, 3435973836u, 4294967292u, 1431655764u, 2863311530u, 4294967292u,
                           4294967288u},
                    limits{4, 15, 999457798u, 3435973836u, 4294967295u, 1431655765u, 2863311530u, 4294967295u,
                           4294967295u},
                    limits{8, 7, 1616385541u, 1703427707u, 4294967293u, 1431655764u, 2863311530u, 4294967293u,
                           4294967291u}),
    [](const auto &param) {
        return "class_" + std::to_string(param.param.class_id) + "_mtu_" + std::to_string(param.param.mtu);
    });

/* --- counts of 2^31 and more: negative, so nothing is left to send --- */

class negative : public testing::TestWithParam<std::uint32_t> {};

TEST_P(negative, sends_nothing_and_succeeds)
{
    world().set.mtu = 1516;
    const client c(4);
    world().clear_calls();

    std::uint32_t batch = 0;
    const l2vpn_ac_marking markings[] = {{1, 2, &batch, true, true}, {4, 8, nullptr, true, false}};
    std::byte record[8] = {};
    const l2vpn_ac_pieces pieces = {{{record, 8, false}}, 1};
    const std::uint32_t limit = 100;
    for (const l2vpn_ac_marking &marking : markings)
        EXPECT_EQ(l2vpn_ac_send_records(c.hd, L2VPN_AC_MSG_UPDATE, marking, 3, 3, limit, pieces, GetParam()),
                  0u);
    EXPECT_EQ(world().calls(fn::l2vpn_ipc_ucastv).size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(counts, negative, testing::Values(0x80000000u, 0x80000001u, 0xffffffffu));

/* The largest count that is not. */
TEST(counts, just_below_are_sent)
{
    world().set.mtu = 1516;
    const client c(4);
    world().clear_calls();
    world().fail(fn::l2vpn_ipc_ucastv, 1, 105);

    const l2vpn_ac_marking marking = {4, 8, nullptr, true, false};
    std::byte record[8] = {};
    const l2vpn_ac_pieces pieces = {{{record, 0, false}}, 1};
    const std::uint32_t limit = 0x7fffffff;
    EXPECT_EQ(l2vpn_ac_send_records(c.hd, L2VPN_AC_MSG_UPDATE, marking, 0, 4, limit, pieces, 0x7fffffff),
              105u);
    EXPECT_EQ(world().calls(fn::l2vpn_ipc_ucastv).size(), 1u);
}

/* Lengths are products of 64 bits, those of narrow pieces of 32: 65,536 times 65,537 leaves 65,536. */
TEST(counts, a_narrow_piece_has_a_length_of_32_bits)
{
    world().set.mtu = 1516;
    const client c(4);
    world().clear_calls();

    const l2vpn_ac_marking marking = {4, 8, nullptr, true, false};
    std::vector<std::byte> record(65536);
    const l2vpn_ac_pieces pieces = {{{record.data(), 65536, true}, {record.data(), 0, false}}, 2};
    const std::uint32_t limit = 65537;
    EXPECT_EQ(l2vpn_ac_send_records(c.hd, L2VPN_AC_MSG_UPDATE, marking, 0, 4, limit, pieces, 65537), 0u);
    const auto sends = world().calls(fn::l2vpn_ipc_ucastv);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].pieces, (std::vector<std::size_t>{16, 65536, 0}));
}

/* --- a client whose class is no class: connect lets none through, but requests look all the same --- */

/* What a create and an update of one AC do when the class of the client goes bad at a certain moment. */
class bad_class : public testing::TestWithParam<bool> {
protected:
    bad_class() { world().set.mtu = 1516; }
    ~bad_class() override
    {
        world().before(fn::calloc_named, {});
        c.hd->class_id = 4;
        world().set.debug_enabled = true;
    }

    const char *function() const { return GetParam() ? "l2vpn_ac_create" : "l2vpn_ac_update"; }

    qerrno request(std::uint32_t flags)
    {
        const qerrno rc = GetParam() ? l2vpn_ac_create(c.hd, flags, 1, &ifh, &defn, &info)
                                     : l2vpn_ac_update(c.hd, flags, 1, &ifh, &info);
        EXPECT_EQ(ifh, 0x01020304u);
        EXPECT_EQ(defn.word, 0x05060708u);
        EXPECT_EQ(world().calls(fn::l2vpn_ipc_ucastv).size(), 0u);
        return rc;
    }

    const client c{4};
    ifhtype ifh = 0x01020304;
    l2vpn_ac_defn_t defn = {};
    l2vpn_ac_info_t info = {};

    void SetUp() override
    {
        defn.word = 0x05060708;
        world().clear_calls();
    }
};

INSTANTIATE_TEST_SUITE_P(requests, bad_class, testing::Bool(),
                         [](const auto &param) { return param.param ? "create" : "update"; });

TEST_P(bad_class, is_refused_by_the_conversion)
{
    c.hd->class_id = 15;
    EXPECT_EQ(request(0), 22u);
    EXPECT_TRUE(world().logged("Failed to convert l2vpn_ac_info_t struct:Invalid argument"));
    const auto reports = world().calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].where, "l2vpn_ac_info_to_msg");
    EXPECT_EQ(reports[0].text, "Unable to get info message size for class id 15");
    EXPECT_EQ(world().calls(fn::calloc_named).size(), 0u);
}

TEST_P(bad_class, is_refused_without_a_word_when_debugging_is_off)
{
    world().set.debug_enabled = false;
    c.hd->class_id = 15;
    EXPECT_EQ(request(0), 22u);
    EXPECT_EQ(world().calls(fn::gen_format_debug_fmt).size(), 0u);
    EXPECT_EQ(world().calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx).size(), 1u) << "reports are given always";
}

TEST_P(bad_class, is_refused_once_more_after_the_conversion)
{
    world().before(fn::calloc_named, [this] { c.hd->class_id = 15; });
    EXPECT_EQ(request(0), 22u);
    const auto reports = world().calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].where, function());
    EXPECT_EQ(reports[0].text, "Unable to get info message size for class id 15");
    EXPECT_FALSE(world().logged("Failed to convert l2vpn_ac_info_t struct:Invalid argument"));
}

/* Updates have no batches. */
using bad_class_of_a_create = bad_class;

INSTANTIATE_TEST_SUITE_P(requests, bad_class_of_a_create, testing::Values(true));

TEST_P(bad_class_of_a_create, leaves_an_opened_batch_open)
{
    c.hd->class_id = 15;
    EXPECT_EQ(request(L2VPN_AC_FLAG_CREATE_START), 22u);
    c.hd->class_id = 4;
    EXPECT_EQ(l2vpn_ac_create(c.hd, 0, 1, &ifh, &defn, &info), 0u);
    EXPECT_EQ(l2vpn_ac_create(c.hd, 0, 0, nullptr, nullptr, nullptr), 0u); /* which closes it */
    const auto sends = world().calls(fn::l2vpn_ipc_ucastv);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].message[15], 0) << "neither mark: the batch was open";
}

/* --- the context: its state, the seconds of its timer's next start, and its mark --- */

class context : public testing::Test {
protected:
    context() { world().set.mtu = 1516; }

    const client c{4};

    void event(l2vpn_ipc_evt_t number)
    {
        world().link_of(4).event(number);
        world().run();
    }

    void holds(std::uint16_t state, std::uint32_t seconds) const
    {
        EXPECT_EQ(c.hd->class_id, 4u);
        EXPECT_EQ(c.hd->busy, 0u);
        EXPECT_EQ(c.hd->state, state);
        EXPECT_EQ(c.hd->retry_secs, seconds);
        EXPECT_NE(c.hd->tmr_leaf, nullptr);
    }
};

TEST_F(context, joins_with_five_seconds_to_come)
{
    holds(1, 5);
    world().advance(std::chrono::seconds(4));
    holds(1, 6);
}

TEST_F(context, is_marked_busy_while_an_event_is_delivered)
{
    event(L2VPN_IPC_EVT_CONNECTED);
    EXPECT_EQ(busy_in_callback, 1u);
    holds(2, 1);
}

TEST_F(context, goes_idle_with_one_second_to_come)
{
    event(L2VPN_IPC_EVT_DISCONNECTED);
    EXPECT_EQ(busy_in_callback, 1u);
    holds(0, 1);
    event(L2VPN_IPC_EVT_CONNECTED);
    holds(2, 1);
}

TEST_F(context, is_not_marked_when_a_failed_send_says_down)
{
    event(L2VPN_IPC_EVT_CONNECTED);
    world().fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(l2vpn_ac_update(c.hd, 0, 0, nullptr, nullptr), 0u);
    EXPECT_EQ(busy_in_callback, 0u);
    holds(2, 2);
    world().advance(std::chrono::seconds(1));
    holds(2, 1);
}

} // namespace
