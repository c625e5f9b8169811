/*
 * What create, update and delete have in common: how they are cut into messages, the gather list, and the
 * check of the entries.
 */
#include "bulk_test.h"

#include <atomic>
#include <thread>

using namespace bulk_test;

namespace {

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
