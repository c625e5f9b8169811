/*
 * What sets update apart.
 */
#include "contract_test.h"

namespace {

using updating = contract;

TEST_F(updating, of_one_ac_with_flags)
{
    const auto hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(update(hd, 0x100, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 3, 1, 0x10c}));
    EXPECT_EQ(sent(4)[0].size(), 16u + 4 + 16);
}

TEST_F(updating, one_more_than_the_limit)
{
    world.set.mtu = 16 + 20 * 75;
    const auto hd = connect_up(4);
    acs a(76);
    EXPECT_EQ(update(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 3, 75, 0x4}, header{3, 3, 1, 0x8}));
    EXPECT_EQ(a, acs(76));
}

TEST_F(updating, carries_a_callers_end_mark_on_every_message)
{
    world.set.mtu = 16 + 20;
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(update(hd, 0x8, a), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(header{3, 3, 1, 0xc}, header{3, 3, 1, 0x8}, header{3, 3, 1, 0x8}));
}

TEST_F(updating, knows_no_batch_over_calls)
{
    const auto hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(update(hd, 0x4, a), 0u);
    EXPECT_EQ(update(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 3, 1, 0xc}, header{3, 3, 1, 0xc}));
}

TEST_F(updating, leaves_an_open_create_batch_open)
{
    const auto hd = connect_up(4);
    acs a(1), none(0);
    EXPECT_EQ(create(hd, 1, a), 0u);
    EXPECT_EQ(update(hd, 2, a), 0u);
    EXPECT_EQ(update(hd, 2, none), 0u);
    world.link_of(4).clear_sent();
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 2, 1, 0}));
}

TEST_F(updating, without_acs_sends_a_header_without_flags)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    for (const std::uint32_t flags : {0u, 0x4u, 0x8u, 0xffffffffu})
        EXPECT_EQ(lib.update(hd, flags, 0, nullptr, nullptr), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(header{3, 3, 0, 0}, header{3, 3, 0, 0}, header{3, 3, 0, 0}, header{3, 3, 0, 0}));
    EXPECT_THAT(world.calls(fn::l2vpn_ipc_ucastv)[0].pieces, ElementsAre(16));
    EXPECT_EQ(called(fn::calloc_named), 0u) << "nothing is converted";
}

TEST_F(updating, without_acs_neither_reads_nor_writes_the_handles)
{
    const auto hd = connect_up(4);
    auto *const unreadable = reinterpret_cast<ifhtype *>(std::uintptr_t{16});
    EXPECT_EQ(lib.update(hd, 0, 0, unreadable, nullptr), 0u);
}

TEST_F(updating, without_acs_that_fails_is_taken_over)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 0u);
    EXPECT_EQ(logged("Failed to unicast an empty UPDATE to L2VPN:Success"), 1);
    EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
}

TEST_F(updating, without_acs_that_fails_while_idle_returns_its_status)
{
    const auto hd = connect_idle(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 105u);
    EXPECT_EQ(logged("Failed to unicast an empty UPDATE to L2VPN:No buffer space available"), 1);
}

TEST_F(updating, without_memory_for_the_info_messages)
{
    const auto hd = connect_up(4);
    acs a(3);
    world.fail(fn::calloc_named, 1, 12);
    EXPECT_EQ(update(hd, 0, a), 12u);
    EXPECT_EQ(a, acs(3));
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(logged("Failed to convert l2vpn_ac_info_t struct:Cannot allocate memory"), 1);
    EXPECT_EQ(world.calls(fn::gen_format_debug_fmt).back().where, "l2vpn_ac_update");
    EXPECT_EQ(update(hd, 0, a), 0u);
}

using updating_death = updating;

TEST_F(updating_death, of_class_9_is_fatal_before_anything_is_sent)
{
    const auto hd = connect_up(9);
    acs a(1);
    EXPECT_DEATH(update(hd, 0, a), "l2vpn_ac_info_to_msg: Assertion `size == 0' failed");
}

TEST_F(updating, of_class_9_without_acs_works)
{
    const auto hd = connect_up(9);
    EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 0u);
    EXPECT_EQ(sent(9).size(), 1u);
}

} // namespace
