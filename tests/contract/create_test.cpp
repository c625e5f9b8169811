/*
 * What sets create apart: the empty CREATE, the batch that spans calls, the definition records.
 */
#include "contract_test.h"

namespace {

constexpr std::uint32_t start = L2VPN_AC_FLAG_CREATE_START;
constexpr std::uint32_t end = L2VPN_AC_FLAG_CREATE_END;

class creating : public contract {
protected:
    /* Three ACs of class 4 fit one message. */
    creating() { world.set.mtu = 16 + 3 * 636; }

    /* True when a batch is open: a create without marks is then sent as it is. */
    bool batch_is_open(l2vpn_ac_client_hd_t hd)
    {
        world.link_of(4).clear_sent();
        acs a(1);
        EXPECT_EQ(create(hd, 0, a), 0u);
        return flags_sent() == std::vector<std::uint32_t>{0};
    }
};

/* --- marks, row by row --- */

TEST_F(creating, flags_0_within_the_limit)
{
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x3));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, flags_0_of_twice_the_limit_and_one)
{
    const auto hd = connect_up(4);
    acs a(7);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1, 0x0, 0x2));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, a_batch_over_three_calls)
{
    const auto hd = connect_up(4);
    acs a(3), b(4);
    EXPECT_EQ(create(hd, start, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1));
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x0));
    EXPECT_EQ(create(hd, end, b), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x0, 0x2));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, flags_3_is_a_batch_of_its_own)
{
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(create(hd, start | end, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x3));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, flags_2_without_an_open_batch)
{
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(create(hd, end, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x3));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, flags_2_without_acs)
{
    const auto hd = connect_up(4);
    acs a(3), none(0);
    EXPECT_EQ(create(hd, start, a), 0u);
    flags_sent();
    EXPECT_EQ(create(hd, end, none), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x2));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, a_start_mark_inside_an_open_batch_goes_out_as_given)
{
    const auto hd = connect_up(4);
    acs a(4);
    EXPECT_EQ(create(hd, start, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1, 0x0));
    EXPECT_EQ(create(hd, start, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1, 0x0));
    EXPECT_TRUE(batch_is_open(hd));
}

TEST_F(creating, a_callers_end_mark_rides_on_the_last_message_only)
{
    const auto hd = connect_up(4);
    acs a(6);
    EXPECT_EQ(create(hd, end, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1, 0x2));
    EXPECT_EQ(create(hd, start, a), 0u);
    EXPECT_EQ(create(hd, end, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0x1, 0x0, 0x0, 0x2));
}

TEST_F(creating, a_batch_is_shared_by_all_clients)
{
    const auto first = connect_up(4);
    const auto second = connect_up(5);
    acs a(1), none(0);
    EXPECT_EQ(create(first, start, a), 0u);
    EXPECT_EQ(create(second, 0, a), 0u);
    EXPECT_THAT(flags_sent(5), ElementsAre(0x0)) << "neither start nor end";
    EXPECT_EQ(create(second, end, a), 0u);
    EXPECT_THAT(flags_sent(5), ElementsAre(0x2));
    EXPECT_FALSE(batch_is_open(first));

    EXPECT_EQ(create(first, start, a), 0u);
    EXPECT_EQ(create(second, 0, none), 0u) << "any empty CREATE closes it";
    EXPECT_FALSE(batch_is_open(first));
}

TEST_F(creating, a_batch_outlives_its_client)
{
    const auto first = connect_up(5);
    acs a(1);
    EXPECT_EQ(create(first, start, a), 0u);
    ASSERT_EQ(lib.disconnect(first), 0u);
    EXPECT_TRUE(batch_is_open(connect_up(4)));
}

/* --- a batch across failures --- */

TEST_F(creating, a_batch_stays_open_when_a_message_fails)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(create(hd, start, a), 0u);
    EXPECT_TRUE(batch_is_open(hd));
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(create(hd, end, a), 0u);
    EXPECT_TRUE(batch_is_open(hd)) << "an end that did not get through closes nothing";
}

TEST_F(creating, a_batch_opened_by_a_call_whose_conversion_fails_stays_open)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.fail(fn::calloc_named, 1, 12);
    EXPECT_EQ(create(hd, start, a), 12u);
    EXPECT_EQ(a, acs(3));
    EXPECT_TRUE(batch_is_open(hd));
}

TEST_F(creating, a_batch_stays_open_when_the_check_refuses)
{
    const auto hd = connect_up(4);
    acs a(1), none(0);
    EXPECT_EQ(create(hd, start, a), 0u);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 22);
    EXPECT_EQ(create(hd, end, a), 22u);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 22);
    EXPECT_EQ(create(hd, end, none), 22u);
    EXPECT_TRUE(batch_is_open(hd));
}

TEST_F(creating, a_call_that_the_check_refuses_opens_no_batch)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 22);
    EXPECT_EQ(create(hd, start, a), 22u);
    EXPECT_FALSE(batch_is_open(hd));
}

/* --- the conversion fails --- */

TEST_F(creating, without_memory_for_the_info_messages)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.fail(fn::calloc_named, 1, 12);
    world.clear_calls();
    EXPECT_EQ(create(hd, 0, a), 12u);
    EXPECT_EQ(a, acs(3));
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(logged("Failed to convert l2vpn_ac_info_t struct:Cannot allocate memory"), 1);
    EXPECT_EQ(logged("Cannot allocate memory for info msg array"), 1);

    const auto reports = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].args[2], 163u);
    EXPECT_EQ(reports[0].where, "l2vpn_ac_info_to_msg");
    const auto wanted = world.calls(fn::l2vpn_check_ltrace_buffer);
    ASSERT_EQ(wanted.size(), 1u);
    EXPECT_EQ(wanted[0].args[0], 0x1'2002051au);
    const auto records = world.calls(fn::l2vpn_ltrace);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].args[0], 0x1'2002051au);
    EXPECT_EQ(records[0].format, "%u ");

    EXPECT_EQ(create(hd, 0, a), 0u) << "the next request works";
}

TEST_F(creating, gives_no_record_that_is_not_wanted)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.set.ltrace_wanted = false;
    world.fail(fn::calloc_named, 1, 12);
    EXPECT_EQ(create(hd, 0, a), 12u);
    EXPECT_EQ(called(fn::l2vpn_check_ltrace_buffer), 1u);
    EXPECT_EQ(called(fn::l2vpn_ltrace), 0u);
}

/* --- the empty CREATE --- */

TEST_F(creating, without_acs_sends_the_header_with_the_callers_flags)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    EXPECT_EQ(lib.create(hd, 0xa1b2c3d5, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 2, 0, 0xa1b2c3d5}));
    EXPECT_EQ(sent(4)[0].size(), 16u);
    EXPECT_THAT(world.calls(fn::l2vpn_ipc_ucastv)[0].pieces, ElementsAre(16));
    EXPECT_EQ(called(fn::calloc_named), 0u);
}

TEST_F(creating, without_acs_never_opens_a_batch)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(lib.create(hd, start, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, without_acs_leaves_the_arrays_alone)
{
    const auto hd = connect_up(4);
    acs a(2);
    bool untouched = false;
    world.link_of(4).on_send([&](auto) { untouched = a == acs(2); });
    EXPECT_EQ(lib.create(hd, 0, 0, a.ifh.data(), a.defns.data(), a.infos.data()), 0u);
    EXPECT_TRUE(untouched);
    EXPECT_EQ(a, acs(2));
}

TEST_F(creating, without_acs_that_fails_is_taken_over_and_closes_the_batch)
{
    const auto hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(create(hd, start, a), 0u);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(lib.create(hd, 0, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(logged("Failed to unicast an empty CREATE to L2VPN:Success"), 1);
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
    EXPECT_FALSE(batch_is_open(hd));
}

TEST_F(creating, without_acs_that_fails_while_idle_returns_its_status_and_closes_the_batch)
{
    const auto hd = connect_idle(4);
    acs a(1);
    EXPECT_EQ(create(hd, start, a), 0u);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(lib.create(hd, 0, 0, nullptr, nullptr, nullptr), 105u);
    EXPECT_EQ(logged("Failed to unicast an empty CREATE to L2VPN:No buffer space available"), 1);
    EXPECT_FALSE(batch_is_open(hd));
}

/* --- definition records --- */

TEST_F(creating, converts_and_restores_the_classes_field_of_the_definition)
{
    const auto class4 = connect_up(4);
    const auto class5 = connect_up(5);
    acs a(1);
    a.defns[0].by_class.word = 1;
    std::uint32_t in_memory = 0;
    std::memcpy(&in_memory, &a.defns[0].by_class, 4);

    EXPECT_EQ(create(class4, 0, a), 0u);
    const bytes first(sent(4)[0].begin() + 20 + 80, sent(4)[0].begin() + 20 + 84);
    EXPECT_EQ(first, (bytes{0, 0, 0, 1}));
    EXPECT_EQ(a.defns[0].by_class.word, 1u);

    EXPECT_EQ(create(class5, 0, a), 0u);
    EXPECT_EQ(std::memcmp(&sent(5)[0][20 + 80], &in_memory, 4), 0) << "as in memory";
    EXPECT_EQ(a.defns[0].by_class.word, 1u);
}

using creating_death = creating;

TEST_F(creating_death, of_class_9_is_fatal)
{
    const auto hd = connect_up(9);
    acs a(1);
    EXPECT_DEATH(create(hd, 0, a), "l2vpn_ac_info_to_msg: Assertion `size == 0' failed");
}

TEST_F(creating, of_class_9_without_acs_works)
{
    const auto hd = connect_up(9);
    EXPECT_EQ(lib.create(hd, 0, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(sent(9).size(), 1u);
}

TEST_F(creating, of_class_17_reports_each_record)
{
    world.set.mtu = 65536;
    const auto hd = connect_up(17);
    acs a(3);
    EXPECT_EQ(create(hd, 0, a), 0u);
    const auto reports = world.calls(fn::l2vpn_gen_assert_errmsg);
    ASSERT_EQ(reports.size(), 3u);
    for (const auto &report : reports)
        EXPECT_EQ(report.args[0], 1u);
}

/* The heads of class 17 lie 16 bytes apart in an array that messages slice at 200. */
TEST_F(creating, of_class_17_is_sliced_at_its_size)
{
    world.set.mtu = 16 + 820;
    const auto hd = connect_up(17);
    acs a(2);
    EXPECT_EQ(create(hd, 0, a), 0u);
    ASSERT_EQ(sent(17).size(), 2u);
    const auto info = [&](std::size_t m) { return &sent(17)[m][16 + 4 + 616]; };
    EXPECT_EQ(be32(info(0)), a.infos[0].words[0]);
    EXPECT_EQ(be32(info(0) + 16), a.infos[1].words[0]) << "the second head is in the first slice";
    EXPECT_EQ(bytes(info(1), info(1) + 200), bytes(200, 0));
}

} // namespace
