/*
 * The MSTP requests: the three that send arrays as one parameterised set, and protect.
 */
#include "contract_test.h"

namespace {

constexpr std::uint32_t begin = L2VPN_MSTP_FLAG_BEGIN;
constexpr std::uint32_t end = L2VPN_MSTP_FLAG_END;

struct mstp_kind {
    const char *name;
    std::uint32_t msg_type, trace_id;
    std::size_t record_size;
    std::uint32_t share; /* bytes of the MTU that a record is given */
    const char *called;
};

void PrintTo(const mstp_kind &k, std::ostream *os)
{
    *os << k.name;
}

const mstp_kind kinds[] = {
    {"l2vpn_mstp_root", 14, 1083, 8, 12, " Called for L2VPN_MSTP_MSG_IS_ROOT"},
    {"l2vpn_mstp_port_request", 11, 1084, 96, 96, "Called for L2VPN_MSTP_MSG_STATE"},
    {"l2vpn_msti_vid_map", 9, 1085, 4, 4, " Called for L2VPN_MSTP_MSG_VID_MAP"},
};

class mstp_base : public contract {
protected:
    static bytes records(const mstp_kind &kind, std::uint32_t count)
    {
        bytes result(count * kind.record_size);
        std::uint8_t next = 7;
        for (auto &byte : result)
            byte = next = static_cast<std::uint8_t>(next * 5 + 1);
        return result;
    }

    qerrno send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, std::uint32_t flags, void *array,
                std::uint32_t count)
    {
        switch (kind.msg_type) {
        case 14:
            return lib.mstp_root(hd, flags, static_cast<l2vpn_msti_root_t *>(array), count);
        case 11:
            return lib.mstp_port_request(hd, flags, static_cast<l2vpn_mstp_req_t *>(array), count);
        default:
            return lib.msti_vid_map(hd, flags, static_cast<l2vpn_msti_vid_map_t *>(array), count);
        }
    }

    /* Sends records and expects them back as they were. */
    qerrno send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, std::uint32_t flags, std::uint32_t count)
    {
        bytes array = records(kind, count);
        const qerrno rc = send(kind, hd, flags, array.data(), count);
        EXPECT_EQ(array, records(kind, count)) << "restored";
        return rc;
    }

    std::vector<std::uint32_t> flags_sent(std::uint32_t class_id = 4)
    {
        std::vector<std::uint32_t> result;
        for (const header &h : sent_headers(class_id))
            result.push_back(h.flags);
        world.link_of(class_id).clear_sent();
        return result;
    }

    std::vector<std::uint32_t> bulks_sent(std::uint32_t class_id = 4)
    {
        std::vector<std::uint32_t> result;
        for (const header &h : sent_headers(class_id))
            result.push_back(h.bulk);
        world.link_of(class_id).clear_sent();
        return result;
    }

    bool batch_is_open(const mstp_kind &kind, l2vpn_ac_client_hd_t hd)
    {
        world.link_of(4).clear_sent();
        EXPECT_EQ(send(kind, hd, 0, 1), 0u);
        return flags_sent() == std::vector<std::uint32_t>{0};
    }
};

class mstp : public mstp_base, public testing::WithParamInterface<mstp_kind> {
protected:
    l2vpn_ac_client_hd_t connect_with_limit(std::uint32_t limit)
    {
        world.set.mtu = 16 + limit * GetParam().share;
        return connect_up(4);
    }
    qerrno request(l2vpn_ac_client_hd_t hd, std::uint32_t flags, std::uint32_t count)
    {
        return send(GetParam(), hd, flags, count);
    }
    bool is_open(l2vpn_ac_client_hd_t hd) { return batch_is_open(GetParam(), hd); }
};

INSTANTIATE_TEST_SUITE_P(kinds, mstp, testing::ValuesIn(kinds),
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
                         testing::Combine(testing::ValuesIn(kinds), testing::ValuesIn(rows)), row_name);

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
    EXPECT_EQ(send(kinds[0], hd, 0, 15), 0u);
    EXPECT_THAT(bulks_sent(), ElementsAre(7, 7, 1));
}

TEST_F(mstp_base, an_mtu_of_400_holds_four_port_states)
{
    world.set.mtu = 400;
    const auto hd = connect_up(4);
    EXPECT_EQ(send(kinds[1], hd, 0, 9), 0u);
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
    EXPECT_EQ(send(kinds[2], hd, 0, 4094), 0u);
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
    EXPECT_EQ(send(kinds[GetParam().kind], hd, 0, 3), 105u);
    EXPECT_THAT(bulks_sent(), ElementsAre(0, 0, 0, 0, 0));
    for (const auto &call : world.calls(fn::l2vpn_ipc_ucastv))
        EXPECT_THAT(call.pieces, ElementsAre(16, 0)) << "both pieces are there";
}

TEST_F(mstp_base, an_mtu_just_large_enough_holds_one_record)
{
    for (std::size_t k = 0; k < 3; ++k) {
        world.set.mtu = std::initializer_list<std::uint32_t>{28, 112, 20}.begin()[k];
        const auto hd = connect_up(4);
        EXPECT_EQ(send(kinds[k], hd, 0, 2), 0u);
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
    EXPECT_EQ(send(kinds[2], hd, begin, 10), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(begin));
    EXPECT_EQ(send(kinds[2], hd, end, nullptr, 0), 0u);
    EXPECT_THAT(flags_sent(), ElementsAre(end));
    EXPECT_FALSE(batch_is_open(kinds[2], hd));
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
    for (const mstp_kind &other : kinds) {
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

/* --- refusals --- */

TEST_P(mstp, to_an_unknown_handle_is_refused)
{
    EXPECT_EQ(request(nullptr, begin, 1), 22u) << "before any connect";
    EXPECT_EQ(called(fn::wavl_search), 0u);
    const auto hd = connect_up(4);
    EXPECT_EQ(request(nullptr, begin, 1), 22u);
    EXPECT_EQ(request(reinterpret_cast<l2vpn_ac_client_hd_t>(this), begin, 1), 22u);
    EXPECT_EQ(send(GetParam(), nullptr, 0, nullptr, 0), 22u);
    const auto gone = connect_up(5);
    ASSERT_EQ(lib.disconnect(gone), 0u);
    EXPECT_EQ(request(gone, begin, 1), 22u);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(gone, 0, &prot), 22u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_FALSE(is_open(hd));
}

TEST_P(mstp, with_a_null_array_is_refused)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(send(GetParam(), hd, begin, nullptr, 1), 22u);
    EXPECT_EQ(send(GetParam(), hd, begin, nullptr, 0x80000000u), 22u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_FALSE(is_open(hd));
}

/* --- failed messages --- */

TEST_P(mstp, whose_message_fails_is_taken_over_while_up)
{
    for (std::uint32_t k = 1; k <= 3; ++k) {
        const auto hd = connect_with_limit(2);
        world.clear_calls();
        world.fail(fn::l2vpn_ipc_ucastv, k, 105);
        EXPECT_EQ(request(hd, begin | end, 5), 0u);
        EXPECT_EQ(sent(4).size(), k - 1);
        EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
        const auto reports = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].text, "Failed to unicast: No buffer space available") << "the send's status";
        EXPECT_TRUE(is_open(hd)) << "the end did not get through";
        EXPECT_EQ(send(GetParam(), hd, 0, nullptr, 0), 0u);
        ASSERT_EQ(lib.disconnect(hd), 0u);
    }
}

TEST_P(mstp, whose_message_fails_while_idle_returns_its_status)
{
    world.set.mtu = 16 + 2 * GetParam().share;
    const auto hd = connect_idle(4);
    world.fail(fn::l2vpn_ipc_ucastv, 2, 107);
    EXPECT_EQ(request(hd, begin, 5), 107u);
    EXPECT_EQ(sent(4).size(), 1u);
    EXPECT_EQ(logged("Failed to unicast: Transport endpoint is not connected"), 1);
    EXPECT_TRUE(is_open(hd)) << "opened by the call, and left open";
}

TEST_P(mstp, whose_message_fails_without_marks_leaves_no_batch_open)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    EXPECT_EQ(request(hd, 0, 1), 0u);
    EXPECT_FALSE(is_open(hd));
}

TEST_P(mstp, writes_a_record_beside_the_report_of_a_failure)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    request(hd, 0, 1);
    const auto reports = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].where, GetParam().name);
    EXPECT_EQ(reports[0].args[2], 163u);
    const auto records = world.calls(fn::l2vpn_ltrace);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].format, "%u%u");
    EXPECT_EQ(records[0].args[0] >> 32, 2u) << "two values";
    EXPECT_EQ(records[0].text, std::to_string(reports[0].line) + "105") << "line and status";
}

TEST_P(mstp, reports_every_failed_send_and_no_other)
{
    const auto hd = connect_idle(4);
    world.clear_calls();
    EXPECT_EQ(request(hd, 0, 1), 0u);
    EXPECT_EQ(send(GetParam(), hd, 0, nullptr, 0), 0u);
    EXPECT_EQ(called(fn::l2vpn_generic_gen_dbg_ltrace_ctx), 0u);
    for (const qerrno status : {1u, 2u, 22u, 107u}) {
        world.clear_calls();
        world.clear_failures();
        world.fail_from(fn::l2vpn_ipc_ucastv, 1, status);
        EXPECT_EQ(request(hd, 0, 1), status);
        EXPECT_EQ(called(fn::l2vpn_generic_gen_dbg_ltrace_ctx), 1u);
        EXPECT_EQ(send(GetParam(), hd, 0, nullptr, 0), status);
        EXPECT_EQ(called(fn::l2vpn_generic_gen_dbg_ltrace_ctx), 2u);
    }
}

/* --- traces and logs --- */

TEST_P(mstp, traces_its_entry_and_logs_its_call)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    EXPECT_EQ(request(hd, 0xabc0, 2), 0u);
    const auto calls = world.calls();
    EXPECT_EQ(calls[0].function, fn::gen_dbg_ltrace_ctx);
    EXPECT_EQ(calls[0].args[0], GetParam().trace_id);
    EXPECT_EQ(calls[0].where, GetParam().name);
    EXPECT_THAT(calls[0].text, testing::HasSubstr("abc0"));
    EXPECT_EQ(logged(GetParam().called), 1);
}

TEST_P(mstp, logs_its_call_without_records_too)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(send(GetParam(), hd, 0, nullptr, 0), 0u);
    EXPECT_EQ(logged(GetParam().called), 1);
}

TEST_P(mstp, is_sent_whatever_the_state)
{
    const auto hd = connect_idle(4);
    EXPECT_EQ(request(hd, 0, 1), 0u);
    EXPECT_EQ(sent(4).size(), 1u);
}

/* --- protect --- */

using protecting = mstp_base;

TEST_F(protecting, sends_one_record_in_two_pieces_with_the_flags_as_given)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    l2vpn_mstp_prot_t prot = {};
    for (const std::uint32_t flags : {0u, begin | end, 0xffffffffu})
        EXPECT_EQ(lib.mstp_protect(hd, flags, &prot), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(header{3, 12, 0, 0}, header{3, 12, 0, 3}, header{3, 12, 0, ~0u}));
    const auto sends = world.calls(fn::l2vpn_ipc_ucastv);
    EXPECT_THAT(sends[0].pieces, ElementsAre(16, 72));
    EXPECT_EQ(sends[0].args[2], 0xffffffffu);
    EXPECT_EQ(sends[0].args[5], 0u);
    EXPECT_NE(sends[0].bases[1], &prot) << "a copy";
    EXPECT_EQ(called(fn::calloc_named), 0u);
}

TEST_F(protecting, converts_the_last_word_and_not_the_tail)
{
    const auto hd = connect_up(4);
    l2vpn_mstp_prot_t prot = {{}, {1, 2, 3, 4}, 0x01020304};
    EXPECT_EQ(lib.mstp_protect(hd, 0, &prot), 0u);
    const bytes &message = sent(4)[0];
    EXPECT_EQ(bytes(message.begin() + 80, message.end()), (bytes{1, 2, 3, 4, 1, 2, 3, 4}));
    EXPECT_EQ(prot.word, 0x01020304u);
}

TEST_F(protecting, does_not_report_a_failed_send)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(hd, 0, &prot), 0u);
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(called(fn::mgd_timer_leaf_start), 0u);
    EXPECT_EQ(called(fn::l2vpn_generic_gen_dbg_ltrace_ctx), 0u);
    EXPECT_EQ(world.calls(fn::gen_format_debug_fmt).size(), 1u);
    EXPECT_EQ(logged(" Called for L2VPN_MSTP_MSG_PROTECTED"), 1);
}

TEST_F(protecting, to_an_unknown_handle_is_refused)
{
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(nullptr, 0, &prot), 22u);
    connect_up(4);
    EXPECT_EQ(lib.mstp_protect(nullptr, 0, &prot), 22u);
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_F(protecting, traces_its_entry)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(hd, 0xabc0, &prot), 0u);
    EXPECT_EQ(world.calls()[0].args[0], 1086u);
    EXPECT_EQ(world.calls()[0].where, "l2vpn_mstp_protect");
}

TEST_F(protecting, leaves_open_batches_open)
{
    const auto hd = connect_up(4);
    for (const mstp_kind &kind : kinds)
        ASSERT_EQ(send(kind, hd, begin, 1), 0u);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(hd, end, &prot), 0u);
    for (const mstp_kind &kind : kinds)
        EXPECT_TRUE(batch_is_open(kind, hd));
}

/* The `bulk` word is never written: neither by an earlier request nor from whatever the stack held. */
TEST_F(protecting, never_leaks_what_a_stack_held)
{
    const auto hd = connect_up(4);
    acs a(9);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(create(hd, 0xffffffff, a), 0u);
    EXPECT_EQ(lib.mstp_protect(hd, 0, &prot), 0u);
    EXPECT_EQ(header_of(sent(4).back()).bulk, 0u);
}

} // namespace
