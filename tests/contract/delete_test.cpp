/*
 * What sets delete apart.
 */
#include "contract_test.h"

namespace {

using deleting = contract;

TEST_F(deleting, of_three_acs)
{
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(remove(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 6, 3, 0x30}));
    EXPECT_EQ(sent(4)[0].size(), 28u);
}

TEST_F(deleting, one_more_than_the_limit_with_flags)
{
    world.set.mtu = 16 + 4 * 10;
    const auto hd = connect_up(4);
    acs a(11);
    EXPECT_EQ(remove(hd, 0x1, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 6, 10, 0x11}, header{3, 6, 1, 0x21}));
}

TEST_F(deleting, carries_a_callers_end_mark_on_every_message)
{
    world.set.mtu = 16 + 4;
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(remove(hd, 0x20, a), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(header{3, 6, 1, 0x30}, header{3, 6, 1, 0x20}, header{3, 6, 1, 0x20}));
}

TEST_F(deleting, fills_the_mtu_up_to_the_remainder)
{
    world.set.mtu = 16 + 4 * 10 + 3;
    const auto hd = connect_up(4);
    acs a(10);
    EXPECT_EQ(remove(hd, 0, a), 0u);
    EXPECT_EQ(sent(4).size(), 1u);
    EXPECT_EQ(sent(4)[0].size(), 56u);
}

TEST_F(deleting, without_acs_sends_nothing_and_reads_nothing)
{
    const auto hd = connect_up(4);
    auto *const unreadable = reinterpret_cast<ifhtype *>(std::uintptr_t{16});
    EXPECT_EQ(lib.remove(hd, 0x33, 0, unreadable), 0u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(called(fn::l2vpn_ipc_ucastv), 0u);
}

TEST_F(deleting, without_acs_that_the_check_refuses_is_refused)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 5);
    EXPECT_EQ(lib.remove(hd, 0, 0, nullptr), 22u);
}

class refusal : public contract, public testing::WithParamInterface<qerrno> {};

TEST_P(refusal, of_the_check_is_always_22)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, GetParam());
    acs a(2);
    EXPECT_EQ(remove(hd, 0, a), 22u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(a, acs(2));
}

INSTANTIATE_TEST_SUITE_P(statuses, refusal, testing::Values(1, 2, 12, 22, 105));

TEST_F(deleting, works_for_every_class_that_can_connect)
{
    for (const std::uint32_t class_id : {0u, 7u, 9u, 17u}) {
        const auto hd = connect_up(class_id);
        acs a(2);
        EXPECT_EQ(remove(hd, 0, a), 0u);
        EXPECT_THAT(sent_headers(class_id), ElementsAre(header{3, 6, 2, 0x30}));
    }
}

} // namespace
