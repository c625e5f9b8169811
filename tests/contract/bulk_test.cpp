/*
 * What create, update and delete have in common, each test for all three; and the arrays, the gather list
 * and the failures of their messages.
 */
#include "contract_test.h"

#include <atomic>
#include <thread>

namespace {

/* One kind of request, in the terms of a test. */
struct kind {
    const char *name;
    std::uint32_t msg_type, start, end, trace_id;
    std::uint32_t elements; /* bytes an AC of class 4 */
    std::vector<std::size_t> piece_elements;
    qerrno not_found;
    const char *failed_text;
};

void PrintTo(const kind &k, std::ostream *os)
{
    *os << k.name;
}

const kind kinds[] = {
    {"create", 2, 0x1, 0x2, 1079, 636, {4, 616, 16}, 2, "Failed to unicast a CREATE to L2VPN:"},
    {"update", 3, 0x4, 0x8, 1080, 20, {4, 16}, 22, "Failed to unicast a UPDATE to L2VPN:"},
    {"delete", 6, 0x10, 0x20, 1081, 4, {4}, 22, "Failed to unicast a DELETE to L2VPN:"},
};

class bulk : public contract, public testing::WithParamInterface<kind> {
protected:
    /* An MTU that lets `limit` ACs of class 4 into one message. */
    l2vpn_ac_client_hd_t connect_with_limit(std::uint32_t limit)
    {
        world.set.mtu = 16 + limit * GetParam().elements;
        return connect_up(4);
    }

    qerrno request(l2vpn_ac_client_hd_t hd, std::uint32_t flags, acs &a)
    {
        switch (GetParam().msg_type) {
        case 2:
            return create(hd, flags, a);
        case 3:
            return update(hd, flags, a);
        default:
            return remove(hd, flags, a);
        }
    }

    std::uint32_t start() const { return GetParam().start; }
    std::uint32_t end() const { return GetParam().end; }
    header head(std::uint32_t n, std::uint32_t flags) const { return {3, GetParam().msg_type, n, flags}; }
    std::string function() const { return std::string("l2vpn_ac_") + GetParam().name; }
};

INSTANTIATE_TEST_SUITE_P(kinds, bulk, testing::ValuesIn(kinds),
                         [](const auto &param) { return std::string(param.param.name); });

/* --- the cut into messages --- */

TEST_P(bulk, of_one_ac_is_one_message_with_both_marks)
{
    const auto hd = connect_with_limit(3);
    acs a(1);
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(head(1, start() | end())));
}

TEST_P(bulk, equal_to_the_limit_is_one_message)
{
    const auto hd = connect_with_limit(3);
    acs a(3);
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(head(3, start() | end())));
}

TEST_P(bulk, one_above_the_limit_is_two_messages)
{
    const auto hd = connect_with_limit(3);
    acs a(4);
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(head(3, start()), head(1, end())));
}

TEST_P(bulk, of_twice_the_limit_and_one_marks_first_and_last)
{
    const auto hd = connect_with_limit(3);
    acs a(7);
    EXPECT_EQ(request(hd, 0x100, a), 0u);
    EXPECT_THAT(sent_headers(4),
                ElementsAre(head(3, 0x100 | start()), head(3, 0x100), head(1, 0x100 | end())));
}

TEST_P(bulk, fills_the_mtu_and_no_more)
{
    const auto hd = connect_with_limit(3);
    acs a(7);
    EXPECT_EQ(request(hd, 0, a), 0u);
    for (const bytes &message : sent(4))
        EXPECT_LE(message.size(), world.set.mtu);
    EXPECT_EQ(sent(4)[0].size(), world.set.mtu);
}

/* --- the caller's flags --- */

TEST_P(bulk, a_callers_start_mark_is_dropped_after_the_first_message)
{
    const auto hd = connect_with_limit(1);
    acs a(3);
    EXPECT_EQ(request(hd, start() | 0x80000000, a), 0u);
    const auto headers = sent_headers(4);
    ASSERT_EQ(headers.size(), 3u);
    EXPECT_EQ(headers[0].flags, start() | 0x80000000);
    EXPECT_EQ(headers[1].flags, 0x80000000u);
    EXPECT_EQ(headers[2].flags & start(), 0u);
}

TEST_P(bulk, other_bits_of_the_caller_ride_on_every_message)
{
    const auto hd = connect_with_limit(1);
    acs a(3);
    const std::uint32_t others = ~(start() | end());
    EXPECT_EQ(request(hd, others, a), 0u);
    for (const header &h : sent_headers(4))
        EXPECT_EQ(h.flags & others, others);
}

/* --- the gather list --- */

TEST_P(bulk, is_sent_from_the_callers_memory_one_piece_an_array)
{
    const auto hd = connect_with_limit(2);
    acs a(5);
    EXPECT_EQ(request(hd, 0, a), 0u);
    const auto sends = world.calls(fn::l2vpn_ipc_ucastv);
    ASSERT_EQ(sends.size(), 3u);

    const auto &elements = GetParam().piece_elements;
    const std::vector<std::size_t> counts = {2, 2, 1};
    for (std::size_t m = 0; m < 3; ++m) {
        const auto &send = sends[m];
        EXPECT_EQ(send.args[1], 4u);
        EXPECT_EQ(send.args[2], 0xffffffffu);
        EXPECT_EQ(send.args[4], 1 + elements.size());
        EXPECT_EQ(send.args[5], 0u);
        ASSERT_EQ(send.pieces.size(), 1 + elements.size());
        EXPECT_EQ(send.pieces[0], 16u);
        for (std::size_t p = 0; p < elements.size(); ++p)
            EXPECT_EQ(send.pieces[1 + p], counts[m] * elements[p]);
        EXPECT_EQ(send.bases[1], a.ifh.data() + 2 * m);
        if (GetParam().msg_type == 2) {
            EXPECT_EQ(send.bases[2], a.defns.data() + 2 * m);
        }
        if (elements.size() > 1) {
            const auto *const first = static_cast<const std::uint8_t *>(sends[0].bases.back());
            EXPECT_EQ(send.bases.back(), first + 2 * m * 16) << "one array of info messages, sliced";
        }
    }
}

TEST_P(bulk, allocates_once)
{
    const auto hd = connect_with_limit(2);
    world.clear_calls();
    acs a(5);
    EXPECT_EQ(request(hd, 0, a), 0u);
    const auto allocations = world.calls(fn::calloc_named);
    if (GetParam().msg_type == 6) {
        EXPECT_THAT(allocations, IsEmpty());
    } else {
        ASSERT_EQ(allocations.size(), 1u);
        EXPECT_EQ(allocations[0].args[0], 5u);
        EXPECT_EQ(allocations[0].args[1], 16u);
        EXPECT_EQ(allocations[0].text, "AC info msg array");
    }
}

TEST_P(bulk, converts_everything_before_the_first_message)
{
    const auto hd = connect_with_limit(1);
    acs a(3), before(3);
    bool converted = true;
    world.link_of(4).on_send([&](auto) {
        for (std::size_t i = 0; i < 3; ++i)
            converted = converted && a.ifh[i] == __builtin_bswap32(before.ifh[i]);
    });
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_EQ(converted, std::endian::native == std::endian::little);
}

TEST_P(bulk, restores_the_arrays)
{
    const auto hd = connect_with_limit(2);
    acs a(5);
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_EQ(a, acs(5));
}

/* --- the check of the entries --- */

TEST_P(bulk, has_the_entries_checked)
{
    const auto hd = connect_up(4);
    acs a(3);
    EXPECT_EQ(request(hd, 0, a), 0u);
    const auto checks = world.calls(fn::l2vpn_ac_data_sanitize);
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_EQ(checks[0].args[0], 4u);
    EXPECT_NE(checks[0].args[1], 0u);
    EXPECT_EQ(checks[0].args[2],
              GetParam().msg_type == 2 ? reinterpret_cast<std::uint64_t>(a.defns.data()) : 0);
    EXPECT_EQ(checks[0].args[3],
              GetParam().msg_type != 6 ? reinterpret_cast<std::uint64_t>(a.infos.data()) : 0);
    EXPECT_EQ(checks[0].args[4], 3u);
    EXPECT_EQ(checks[0].ifhs, a.ifh) << "in host order";
    EXPECT_THAT(checks[0].spares, ElementsAre(0, 0, 0));
}

TEST_P(bulk, has_every_entry_made_of_its_handle_and_a_zero)
{
    const auto hd = connect_up(4);
    for (const std::uint32_t count : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 1000u}) {
        acs a(count);
        world.clear_calls();
        EXPECT_EQ(request(hd, 0, a), 0u);
        const auto checks = world.calls(fn::l2vpn_ac_data_sanitize);
        ASSERT_EQ(checks.size(), 1u);
        EXPECT_EQ(checks[0].ifhs, a.ifh) << count;
        EXPECT_EQ(checks[0].spares, std::vector<std::uint32_t>(count)) << count;
    }
}

/* Until everything is checked and prepared, nobody who looks at the arrays sees them converted. */
TEST_P(bulk, converts_nothing_before_it_is_checked_and_prepared)
{
    const auto hd = connect_up(4);
    acs a(3);
    const acs before(3);
    int looks = 0;
    for (const fn function : {fn::l2vpn_ac_data_sanitize, fn::calloc_named}) {
        world.before(function, [&] {
            EXPECT_EQ(a, before);
            ++looks;
        });
    }
    EXPECT_EQ(request(hd, 0, a), 0u);
    EXPECT_EQ(looks, GetParam().msg_type == 6 ? 1 : 2);
}

TEST_P(bulk, has_an_empty_request_checked_with_entries_that_are_not_null)
{
    const auto hd = connect_up(4);
    acs a(0);
    EXPECT_EQ(request(hd, 0, a), 0u);
    const auto checks = world.calls(fn::l2vpn_ac_data_sanitize);
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_NE(checks[0].args[1], 0u);
    EXPECT_EQ(checks[0].args[4], 0u);
}

class entries : public contract, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(entries, are_checked_whole_whatever_their_number)
{
    const auto hd = connect_up(4);
    std::vector<ifhtype> ifh(GetParam());
    for (std::uint32_t i = 0; i < GetParam(); ++i)
        ifh[i] = i + 1;
    ifh.back() = 0; /* the last one is refused: it was looked at */
    EXPECT_EQ(lib.remove(hd, 0, GetParam(), ifh.data()), 22u);
    ifh.back() = 5;
    EXPECT_EQ(lib.remove(hd, 0, GetParam(), ifh.data()), 0u);
}

INSTANTIATE_TEST_SUITE_P(numbers, entries, testing::Values(1, 1024, 16383, 16384, 16385, 100000));

TEST_P(bulk, that_the_check_refuses_sends_nothing)
{
    const auto hd = connect_up(4);
    world.fail(fn::l2vpn_ac_data_sanitize, 1, 12);
    acs a(3);
    const auto before = world.log();
    EXPECT_EQ(request(hd, 0, a), GetParam().msg_type == 6 ? 22u : 12u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(a, acs(3));
    EXPECT_EQ(world.log(), before);
    EXPECT_EQ(request(hd, 0, a), 0u) << "the next request works";
}

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

/* --- the class of the message is the client's, the limits are the latest connect's --- */

TEST_P(bulk, of_two_clients_each_is_sent_to_its_own_class)
{
    const auto first = connect_up(4);
    const auto second = connect_up(0);
    acs a(1);
    EXPECT_EQ(request(first, 0, a), 0u);
    EXPECT_EQ(request(second, 0, a), 0u);
    EXPECT_EQ(sent(4).size(), 1u);
    EXPECT_EQ(sent(0).size(), 1u);
    const std::size_t infos = GetParam().msg_type == 6 ? 0 : 1;
    EXPECT_EQ(sent(0)[0].size() - sent(4)[0].size(), 4 * infos);
}

/* --- concurrency --- */

TEST_P(bulk, requests_of_many_threads_are_serialised)
{
    const auto hd = connect_with_limit(2);
    world.set.record = false;
    std::atomic<int> inside = 0, overlaps = 0;
    world.link_of(4).on_send([&](auto) {
        if (inside.fetch_add(1) != 0)
            overlaps.fetch_add(1);
        std::this_thread::yield();
        inside.fetch_sub(1);
    });
    std::vector<std::thread> threads;
    std::atomic<int> failures = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const auto seed = static_cast<std::uint8_t>(t);
            acs mine(5, seed);
            for (int i = 0; i < 50; ++i)
                failures += request(hd, 0, mine) != 0 || !(mine == acs(5, seed));
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(failures, 0);
}

} // namespace
