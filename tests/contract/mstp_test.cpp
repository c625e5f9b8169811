/*
 * The MSTP requests that send arrays, as one parameterised set: marks, messages and batches.
 */
#include "mstp_test.h"

using namespace mstp_test;

namespace {

INSTANTIATE_TEST_SUITE_P(kinds, mstp, testing::ValuesIn(mstp_kinds),
                         [](const auto &param) { return std::string(param.param.name); });

/* --- header bits, row by row: batch open before, caller's BEGIN, caller's END --- */

struct row {
    bool open, begin, end;
    bool begin_on_all, end_on_last, open_after;
};

const row rows[] = {
    {false, false, false, true, true, false}, {false, false, true, true, true, false},
    {false, true, false, true, false, true},  {false, true, true, true, true, false},
    {true, false, false, false, false, true}, {true, false, true, false, true, false},
    {true, true, false, true, false, true},   {true, true, true, true, true, false},
};

class header_bits : public mstp_base, public testing::WithParamInterface<std::tuple<mstp_kind, row>> {};

std::string row_name(const testing::TestParamInfo<std::tuple<mstp_kind, row>> &info)
{
    const auto &[kind, row] = info.param;
    return std::string(kind.name) + (row.open ? "_open" : "_closed") + (row.begin ? "_begin" : "") +
           (row.end ? "_end" : "");
}

INSTANTIATE_TEST_SUITE_P(rows, header_bits,
                         testing::Combine(testing::ValuesIn(mstp_kinds), testing::ValuesIn(rows)), row_name);

TEST_P(header_bits, of_all_messages_of_a_call)
{
    const auto &[kind, row] = GetParam();
    world.set.mtu = 16 + 2 * kind.share;
    const auto hd = connect_up(4);
    if (row.open) {
        ASSERT_EQ(send(kind, hd, begin, 1), 0u);
    }
    flags_sent();

    EXPECT_EQ(send(kind, hd, 0xf0 | (row.begin ? begin : 0) | (row.end ? end : 0), 5), 0u);
    const std::uint32_t first = 0xf0 | (row.begin_on_all ? begin : 0);
    EXPECT_THAT(flags_sent(), ElementsAre(first, first, first | (row.end_on_last ? end : 0)));
    EXPECT_EQ(batch_is_open(kind, hd), row.open_after);
}

TEST_P(header_bits, of_a_single_message)
{
    const auto &[kind, row] = GetParam();
    const auto hd = connect_up(4);
    if (row.open) {
        ASSERT_EQ(send(kind, hd, begin, 1), 0u);
    }
    flags_sent();

    EXPECT_EQ(send(kind, hd, (row.begin ? begin : 0) | (row.end ? end : 0), 2), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre((row.begin_on_all ? begin : 0) | (row.end_on_last ? end : 0)));
    EXPECT_EQ(batch_is_open(kind, hd), row.open_after);
}

/* --- the cut --- */

TEST_P(mstp, equal_to_the_limit_is_one_message)
{
    const auto hd = connect_with_limit(3);
    EXPECT_EQ(request(hd, 0, 3), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, GetParam().msg_type, 3, 3}));
    EXPECT_EQ(sent(4)[0].size(), 16 + 3 * GetParam().record_size);
}

TEST_P(mstp, one_above_the_limit_is_two_messages)
{
    const auto hd = connect_with_limit(3);
    EXPECT_EQ(request(hd, 0, 4), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(header{3, GetParam().msg_type, 3, 1}, header{3, GetParam().msg_type, 1, 3}));
}

TEST_F(mstp_base, an_mtu_of_100_holds_seven_roots)
{
    world.set.mtu = 100;
    const auto hd = connect_up(4);
    EXPECT_EQ(send(mstp_kinds[0], hd, 0, 15), 0u);
    EXPECT_THAT(bulks_sent(), ElementsAre(7, 7, 1));
}

TEST_F(mstp_base, an_mtu_of_400_holds_four_port_states)
{
    world.set.mtu = 400;
    const auto hd = connect_up(4);
    EXPECT_EQ(send(mstp_kinds[1], hd, 0, 9), 0u);
    const auto headers = sent_headers(4);
    ASSERT_EQ(headers.size(), 3u);
    EXPECT_THAT(bulks_sent(), ElementsAre(4, 4, 1));
    EXPECT_EQ(headers[0].flags & end, 0u);
    EXPECT_EQ(headers[1].flags & end, 0u);
    EXPECT_EQ(headers[2].flags & end, end);
}

TEST_F(mstp_base, an_mtu_of_1516_takes_a_full_vlan_map_in_eleven_messages)
{
    world.set.mtu = 1516;
    const auto hd = connect_up(4);
    EXPECT_EQ(send(mstp_kinds[2], hd, 0, 4094), 0u);
    const auto headers = sent_headers(4);
    EXPECT_THAT(bulks_sent(), ElementsAre(375, 375, 375, 375, 375, 375, 375, 375, 375, 375, 344));
    for (std::size_t i = 0; i < headers.size(); ++i)
        EXPECT_EQ(headers[i].flags, i == 10 ? 3u : 1u);
}

struct zero_limit {
    std::size_t kind;
    std::uint32_t mtu;
};

class no_room : public mstp_base, public testing::WithParamInterface<zero_limit> {};

INSTANTIATE_TEST_SUITE_P(mtus, no_room,
                         testing::Values(zero_limit{0, 16}, zero_limit{0, 27}, zero_limit{1, 16},
                                         zero_limit{1, 111}, zero_limit{2, 16}, zero_limit{2, 19}));

TEST_P(no_room, sends_messages_without_records_until_one_fails)
{
    world.set.mtu = GetParam().mtu;
    const auto hd = connect_idle(4);
    world.fail(fn::l2vpn_ipc_ucastv, 6, 105);
    EXPECT_EQ(send(mstp_kinds[GetParam().kind], hd, 0, 3), 105u);
    EXPECT_THAT(bulks_sent(), ElementsAre(0, 0, 0, 0, 0));
    for (const auto &call : world.calls(fn::l2vpn_ipc_ucastv))
        EXPECT_THAT(call.pieces, ElementsAre(16, 0)) << "both pieces are there";
}

TEST_F(mstp_base, an_mtu_just_large_enough_holds_one_record)
{
    for (std::size_t k = 0; k < 3; ++k) {
        world.set.mtu = std::initializer_list<std::uint32_t>{28, 112, 20}.begin()[k];
        const auto hd = connect_up(4);
        EXPECT_EQ(send(mstp_kinds[k], hd, 0, 2), 0u);
        EXPECT_THAT(bulks_sent(), ElementsAre(1, 1));
        ASSERT_EQ(lib.disconnect(hd), 0u);
    }
}

/* --- the gather list and the records --- */

TEST_P(mstp, is_sent_from_the_callers_memory_in_two_pieces)
{
    const auto hd = connect_with_limit(2);
    world.clear_calls();
    bytes array = records(GetParam(), 5);
    EXPECT_EQ(send(GetParam(), hd, 0, array.data(), 5), 0u);
    const auto sends = world.calls(fn::l2vpn_ipc_ucastv);
    ASSERT_EQ(sends.size(), 3u);
    const std::vector<std::size_t> counts = {2, 2, 1};
    for (std::size_t m = 0; m < 3; ++m) {
        EXPECT_EQ(sends[m].args[1], 4u);
        EXPECT_EQ(sends[m].args[2], 0xffffffffu);
        EXPECT_EQ(sends[m].args[5], 0u);
        EXPECT_THAT(sends[m].pieces, ElementsAre(16, counts[m] * GetParam().record_size));
        EXPECT_EQ(sends[m].bases[1], array.data() + 2 * m * GetParam().record_size);
    }
    EXPECT_EQ(called(fn::calloc_named), 0u) << "nothing is allocated";
    EXPECT_EQ(called(fn::l2vpn_ac_data_sanitize), 0u) << "nothing is checked";
}

TEST_P(mstp, bytes_that_are_no_numbers_travel_as_they_lie)
{
    const auto hd = connect_up(4);
    const bytes array = records(GetParam(), 2);
    EXPECT_EQ(request(hd, 0, 2), 0u);
    const bytes &message = sent(4)[0];
    const auto same = [&](std::size_t offset, std::size_t size) {
        for (std::size_t r = 0; r < 2; ++r) {
            const std::size_t at = r * GetParam().record_size + offset;
            EXPECT_EQ(std::memcmp(&message[16 + at], &array[at], size), 0) << "offset " << offset;
        }
    };
    if (GetParam().msg_type != 9)
        same(6, 2);
    if (GetParam().msg_type == 11) {
        same(18, 70);
        same(92, 4);
    }
}

/* --- calls without records --- */

TEST_P(mstp, without_records_sends_the_callers_flags_as_given)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    for (const std::uint32_t flags : {0u, begin, end, begin | end, 0xfffffffcu})
        EXPECT_EQ(send(GetParam(), hd, flags, nullptr, 0), 0u);
    EXPECT_THAT(world.calls(fn::l2vpn_ipc_ucastv)[0].pieces, ElementsAre(16));
    for (const header &h : sent_headers(4)) {
        EXPECT_EQ(h.msg_type, GetParam().msg_type);
        EXPECT_EQ(h.bulk, 0u);
    }
    EXPECT_THAT(flags_sent(), ElementsAre(0, begin, end, begin | end, 0xfffffffc));
}

TEST_P(mstp, without_records_closes_an_open_batch)
{
    const auto hd = connect_up(4);
    for (const std::uint32_t flags : {0u, begin, end}) {
        ASSERT_EQ(request(hd, begin, 1), 0u);
        EXPECT_EQ(send(GetParam(), hd, flags, nullptr, 0), 0u);
        EXPECT_FALSE(is_open(hd));
    }
}

TEST_P(mstp, without_records_that_fails_reports_it_itself_and_closes_the_batch)
{
    const auto hd = connect_up(4);
    ASSERT_EQ(request(hd, begin, 1), 0u);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(send(GetParam(), hd, end, nullptr, 0), 105u);
    EXPECT_THAT(notices, IsEmpty()) << "the retry logic does not hear of it";
    EXPECT_EQ(called(fn::mgd_timer_leaf_start), 0u);
    EXPECT_EQ(logged("Failed to unicast: No buffer space available"), 1);
    EXPECT_FALSE(is_open(hd));
}

TEST_F(mstp_base, a_map_opened_with_begin_and_closed_without_records)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(send(mstp_kinds[2], hd, begin, 10), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(begin));
    EXPECT_EQ(send(mstp_kinds[2], hd, end, nullptr, 0), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(end));
    EXPECT_FALSE(batch_is_open(mstp_kinds[2], hd));
}

/* --- batches --- */

TEST_P(mstp, a_batch_over_three_calls_of_several_messages)
{
    const auto hd = connect_with_limit(2);
    EXPECT_EQ(request(hd, begin, 3), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(begin, begin));
    EXPECT_EQ(request(hd, 0, 3), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0, 0));
    EXPECT_EQ(request(hd, end, 3), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(0, end));
}

TEST_P(mstp, a_batch_is_shared_by_all_clients)
{
    const auto first = connect_up(4);
    const auto second = connect_up(5);
    EXPECT_EQ(request(first, begin, 1), 0u);
    EXPECT_EQ(request(second, 0, 1), 0u);
    EXPECT_THAT(flags_sent(5), ElementsAre(0));
    EXPECT_EQ(request(second, end, 1), 0u);
    EXPECT_THAT(flags_sent(5), ElementsAre(end));
    EXPECT_FALSE(is_open(first));
}

TEST_P(mstp, a_batch_survives_disconnect_and_connect)
{
    const auto hd = connect_up(5);
    EXPECT_EQ(request(hd, begin, 1), 0u);
    ASSERT_EQ(lib.disconnect(hd), 0u);
    EXPECT_TRUE(is_open(connect_up(4)));
}

TEST_P(mstp, has_a_batch_of_its_own)
{
    const auto hd = connect_up(4);
    acs a(1);
    EXPECT_EQ(request(hd, begin, 1), 0u);
    for (const mstp_kind &other : mstp_kinds) {
        if (other.msg_type != GetParam().msg_type) {
            EXPECT_FALSE(batch_is_open(other, hd));
            EXPECT_EQ(send(other, hd, end, nullptr, 0), 0u);
        }
    }
    world.link_of(4).clear_sent();
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(3));
    EXPECT_TRUE(is_open(hd));
}

} // namespace
