/*
 * What the MSTP requests refuse, report and trace; and protect, which reports nothing.
 */
#include "mstp_test.h"

using namespace mstp_test;

namespace {

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
    for (const mstp_kind &kind : mstp_kinds)
        ASSERT_EQ(send(kind, hd, begin, 1), 0u);
    l2vpn_mstp_prot_t prot = {};
    EXPECT_EQ(lib.mstp_protect(hd, end, &prot), 0u);
    for (const mstp_kind &kind : mstp_kinds)
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
