/*
 * What create, update and delete have in common: what they refuse, how their messages fail, and what they log
 * and trace.
 */
#include "bulk_test.h"

using namespace bulk_test;

namespace {

/* --- handles --- */

TEST_P(bulk, to_an_unknown_handle_sends_nothing)
{
    connect_up(4);
    acs a(3);
    for (const std::uintptr_t address :
         {std::uintptr_t{0}, reinterpret_cast<std::uintptr_t>(this), std::uintptr_t{8}, ~std::uintptr_t{0}}) {
        world.clear_calls();
        EXPECT_EQ(request(reinterpret_cast<l2vpn_ac_client_hd_t>(address), 0, a), GetParam().not_found);
        EXPECT_EQ(called(fn::l2vpn_ipc_ucastv), 0u);
        EXPECT_EQ(called(fn::l2vpn_ac_data_sanitize), 0u);
        EXPECT_EQ(logged("No such L2VPN AC client handle"), GetParam().msg_type == 2 ? 1 : 0);
    }
    EXPECT_EQ(a, acs(3));
}

TEST_P(bulk, to_a_disconnected_handle_sends_nothing)
{
    const auto hd = connect_up(4);
    ASSERT_EQ(lib.disconnect(hd), 0u);
    acs a(3);
    EXPECT_EQ(request(hd, 0, a), GetParam().not_found);
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_P(bulk, without_acs_that_the_check_refuses_sends_nothing)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 12);
    acs none(0);
    EXPECT_EQ(request(hd, 0, none), GetParam().msg_type == 6 ? 22u : 12u);
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_P(bulk, before_any_connect_is_refused_without_a_lookup)
{
    acs a(3);
    EXPECT_EQ(request(nullptr, 0, a), GetParam().not_found);
    EXPECT_EQ(called(fn::wavl_search), 0u);
    EXPECT_EQ(logged("No such L2VPN AC client handle"), GetParam().msg_type == 2 ? 1 : 0);
}

TEST_P(bulk, without_acs_to_an_unknown_handle_is_refused)
{
    connect_up(4);
    acs a(0);
    EXPECT_EQ(request(nullptr, 0, a), GetParam().not_found);
}

TEST_P(bulk, looks_the_handle_up_by_its_node)
{
    const auto hd = connect_up(4);
    const auto tree = world.calls(fn::wavl_insert).at(0).args[0];
    const auto node = world.calls(fn::wavl_insert).at(0).args[1];
    world.clear_calls();
    acs a(1);
    EXPECT_EQ(request(hd, 0, a), 0u);
    const auto searches = world.calls(fn::wavl_search);
    ASSERT_EQ(searches.size(), 1u);
    EXPECT_EQ(searches[0].args[0], tree);
    EXPECT_EQ(searches[0].args[1], node);
    EXPECT_EQ(searches[0].args[2], 0u);
}

/* --- null arrays --- */

TEST_P(bulk, with_a_null_array_is_refused)
{
    const auto hd = connect_up(4);
    acs a(1);
    world.clear_calls();
    const std::uint32_t type = GetParam().msg_type;
    if (type == 2) {
        EXPECT_EQ(lib.create(hd, 1, 1, nullptr, a.defns.data(), a.infos.data()), 22u);
        EXPECT_EQ(lib.create(hd, 1, 1, a.ifh.data(), nullptr, a.infos.data()), 22u);
        EXPECT_EQ(lib.create(hd, 1, 1, a.ifh.data(), a.defns.data(), nullptr), 22u);
        EXPECT_EQ(lib.create(nullptr, 1, 1, nullptr, nullptr, nullptr), 2u) << "the lookup comes first";
    } else if (type == 3) {
        EXPECT_EQ(lib.update(hd, 0, 1, nullptr, a.infos.data()), 22u);
        EXPECT_EQ(lib.update(hd, 0, 1, a.ifh.data(), nullptr), 22u);
    } else {
        EXPECT_EQ(lib.remove(hd, 0, 1, nullptr), 22u);
        EXPECT_EQ(lib.remove(hd, 0, 0x80000000u, nullptr), 22u);
    }
    EXPECT_EQ(called(fn::l2vpn_ac_data_sanitize), 0u);
    EXPECT_THAT(sent(4), IsEmpty());
    /* No batch was opened: the next request is a batch of its own. */
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(head(1, start() | end())));
}

TEST_P(bulk, without_acs_takes_null_arrays)
{
    const auto hd = connect_up(4);
    if (GetParam().msg_type == 2)
        EXPECT_EQ(lib.create(hd, 0, 0, nullptr, nullptr, nullptr), 0u);
    else if (GetParam().msg_type == 3)
        EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 0u);
    else
        EXPECT_EQ(lib.remove(hd, 0, 0, nullptr), 0u);
}

/* --- requests that succeed --- */

TEST_P(bulk, that_is_sent_says_so_and_nothing_else)
{
    const auto hd = connect_up(4);
    acs a(3), none(0);
    for (acs *const what : {&a, &none}) {
        world.clear_calls();
        EXPECT_EQ(request(hd, 0x100, *what), 0u);
        EXPECT_THAT(world.log(), ElementsAre("Flags from AC_class=4: 0x100 bulk_size=" +
                                             std::to_string(what->ifh.size())));
        EXPECT_EQ(called(fn::mgd_timer_leaf_start), 0u);
    }
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_THAT(world.timers(), IsEmpty());
}

/* --- messages that fail --- */

TEST_P(bulk, whose_message_fails_is_taken_over_while_up)
{
    for (std::uint32_t k = 1; k <= 3; ++k) {
        contract::notices.clear();
        const auto hd = connect_with_limit(2);
        world.fail(fn::l2vpn_ipc_ucastv, k, 105);
        acs a(5);
        const auto text = GetParam().failed_text + std::string("Success");
        const long before = logged(text);
        EXPECT_EQ(request(hd, 0, a), 0u);
        EXPECT_EQ(sent(4).size(), k - 1) << "what was sent stays sent, the rest is dropped";
        EXPECT_EQ(a, acs(5));
        EXPECT_EQ(logged(text), before + 1) << "logged with the text of the result";
        EXPECT_THAT(statuses(), ElementsAre(L2VPN_AC_STATUS_DOWN));
        EXPECT_EQ(request(hd, 0, a), 0u) << "the next request works";
        EXPECT_EQ(sent(4).size(), k - 1 + 3);
        ASSERT_EQ(lib.disconnect(hd), 0u);
    }
}

TEST_P(bulk, whose_message_fails_while_idle_returns_its_status)
{
    for (std::uint32_t k = 1; k <= 3; ++k) {
        world.set.mtu = 16 + 2 * GetParam().elements;
        const auto hd = connect_idle(4);
        world.fail(fn::l2vpn_ipc_ucastv, k, 105);
        acs a(5);
        const auto text = GetParam().failed_text + std::string("No buffer space available");
        const long before = logged(text);
        EXPECT_EQ(request(hd, 0, a), 105u);
        EXPECT_EQ(sent(4).size(), k - 1);
        EXPECT_EQ(a, acs(5));
        EXPECT_EQ(logged(text), before + 1);
        EXPECT_THAT(statuses(), IsEmpty());
        ASSERT_EQ(lib.disconnect(hd), 0u);
    }
}

TEST_P(bulk, whose_message_fails_logs_with_its_own_name)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    request(hd, 0, a);
    const auto last = world.calls(fn::gen_format_debug_fmt).back();
    EXPECT_EQ(last.where, function());
    EXPECT_EQ(last.format, GetParam().failed_text + std::string("%s"));
}

/* While the DOWN of a failed message is given the arrays are still in network order; when the failure is
 * logged they are restored. */
TEST_P(bulk, whose_message_fails_restores_between_the_notice_and_the_log)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1), before(1);
    ifhtype seen = 0;
    during = [&](const notice &) { seen = a.ifh[0]; };
    bool restored_at_log = false;
    world.before(fn::gen_format_debug_fmt, [&] { restored_at_log = a == before; });
    request(hd, 0, a);
    EXPECT_TRUE(restored_at_log) << "as the last text is given";
    EXPECT_EQ(seen,
              std::endian::native == std::endian::little ? __builtin_bswap32(before.ifh[0]) : before.ifh[0]);
    EXPECT_EQ(a, before);
}

/* --- limits of zero --- */

TEST_P(bulk, with_a_limit_of_zero_sends_messages_without_acs_until_one_fails)
{
    world.set.mtu = 16;
    const auto hd = connect_idle(4);
    world.fail(fn::l2vpn_ipc_ucastv, 5, 105);
    acs a(3);
    EXPECT_EQ(request(hd, 0, a), 105u);
    const auto headers = sent_headers(4);
    ASSERT_EQ(headers.size(), 4u);
    EXPECT_EQ(headers[0], head(0, start()));
    EXPECT_EQ(headers[1], head(0, 0));
    EXPECT_EQ(headers[3], head(0, 0));
    for (const auto &send : world.calls(fn::l2vpn_ipc_ucastv)) {
        ASSERT_EQ(send.pieces.size(), 1 + GetParam().piece_elements.size()) << "every piece is there";
        for (std::size_t p = 1; p < send.pieces.size(); ++p)
            EXPECT_EQ(send.pieces[p], 0u);
    }
    EXPECT_EQ(a, acs(3));
}

/* --- traces --- */

TEST_P(bulk, traces_its_entry_before_anything_else)
{
    const auto hd = connect_up(4);
    world.clear_calls();
    acs a(3);
    EXPECT_EQ(request(hd, 0xabc0, a), 0u);
    const auto calls = world.calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].function, fn::gen_dbg_ltrace_ctx);
    EXPECT_EQ(calls[0].args[0], GetParam().trace_id);
    EXPECT_EQ(calls[0].where, function());
    EXPECT_THAT(calls[0].text, testing::HasSubstr("abc0"));
    EXPECT_EQ(calls[1].function, fn::gen_ltrace);
    EXPECT_EQ(calls[1].args[0], GetParam().trace_id);
}

TEST_P(bulk, traces_its_entry_also_when_it_is_refused)
{
    acs a(1);
    request(nullptr, 0, a);
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 1u);
}

TEST_P(bulk, logs_class_flags_and_size_as_passed)
{
    const auto hd = connect_up(4);
    acs a(3), none(0);
    EXPECT_EQ(request(hd, 0xabc0, a), 0u);
    EXPECT_EQ(logged("Flags from AC_class=4: 0xabc0 bulk_size=3"), 1);
    EXPECT_EQ(request(hd, 0xdef0, none), 0u);
    EXPECT_EQ(logged("Flags from AC_class=4: 0xdef0 bulk_size=0"), 1);
}

} // namespace
