#include "owner.h"

namespace sim_test {
namespace {

using l2vpn::sim::call;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::uint64_t number(const void *pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

std::vector<fn> functions_of(const std::vector<call> &calls)
{
    std::vector<fn> functions;
    std::ranges::transform(calls, std::back_inserter(functions), &call::function);
    return functions;
}

TEST(sim_records, names_are_those_of_the_contract)
{
    EXPECT_EQ(l2vpn::sim::name_of(fn::qerr_strerror), "qerr_strerror");
    EXPECT_EQ(l2vpn::sim::name_of(fn::wavl_insert), "wavl_insert");
    EXPECT_EQ(l2vpn::sim::name_of(fn::vy_syslog), "vy_syslog");
    EXPECT_EQ(l2vpn::sim::name_of(static_cast<fn>(99)), "?99");
}

TEST(sim_records, a_call_has_its_number_time_arguments_and_result)
{
    world world;
    world.advance(3s);
    void *first = calloc_named(1, 8, "first");
    void *second = calloc_named(2, 16, "second");
    const auto calls = world.calls(fn::calloc_named);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[1].number, 2U);
    EXPECT_EQ(calls[1].at, 3s);
    EXPECT_EQ(calls[1].args.at(0), 2U);
    EXPECT_EQ(calls[1].args.at(1), 16U);
    EXPECT_EQ(static_cast<std::uint64_t>(calls[1].result), number(second));
    EXPECT_EQ(calls[1].text, "second");
    EXPECT_FALSE(calls[1].failed);
    free(first);
    free(second);
}

TEST(sim_records, calls_lie_in_their_order_and_can_be_forgotten)
{
    world world;
    owner owner(world);
    world.fail(fn::l2vpn_ipc_ucast, 1, EIO);
    owner.sends(message_of(16));
    EXPECT_THAT(functions_of(world.calls()),
                ElementsAre(fn::l2vpn_ipc_client_init, fn::l2vpn_ipc_class_init, fn::l2vpn_ipc_ucast));
    EXPECT_TRUE(world.calls().back().failed);
    EXPECT_EQ(world.calls().back().result, EIO);

    world.clear_calls();
    EXPECT_THAT(world.calls(), IsEmpty());
    owner.sends(message_of(16));
    EXPECT_EQ(world.calls().at(0).number, 2U);
    EXPECT_EQ(world.count(fn::l2vpn_ipc_ucast), 2U);
    EXPECT_EQ(world.count(fn::l2vpn_ipc_ucastv), 0U);
}

TEST(sim_records, a_gathered_message_is_assembled_with_its_pieces)
{
    world world;
    owner owner(world);
    bytes head = message_of(16);
    bytes tail = message_of(3, 50);
    const std::array<iovec, 2> pieces{{{head.data(), head.size()}, {tail.data(), tail.size()}}};
    world.fail(fn::l2vpn_ipc_ucastv, 1, EIO);
    l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), 2, 0);
    const call sent = world.calls(fn::l2vpn_ipc_ucastv).at(0);
    EXPECT_THAT(sent.args,
                ElementsAre(number(owner.client), class_id, 0xFFFFFFFFU, number(pieces.data()), 2, 0));
    EXPECT_THAT(sent.pieces, ElementsAre(16, 3));
    EXPECT_THAT(sent.bases, ElementsAre(head.data(), tail.data()));
    bytes whole = head;
    whole.insert(whole.end(), tail.begin(), tail.end());
    EXPECT_EQ(sent.message, whole);
    EXPECT_THAT(world.link_of(class_id).sent(), IsEmpty());
}

TEST(sim_records, the_sanitizers_entries_are_kept)
{
    world world;
    std::vector<l2vpn_ac_data_entry_t> entries(1030);
    for (std::uint32_t i = 0; i < entries.size(); ++i)
        entries[i] = {i + 1, i + 5};
    l2vpn_ac_data_sanitize(class_id, entries.data(), nullptr, nullptr, 1030);
    const call made = world.calls().at(0);
    ASSERT_EQ(made.ifhs.size(), 1024U);
    EXPECT_EQ(made.ifhs.at(1023), 1024U);
    EXPECT_EQ(made.spares.at(1023), 1028U);
    EXPECT_THAT(made.args, ElementsAre(class_id, number(entries.data()), 0, 0, 1030));
}

TEST(sim_records, log_calls_are_formatted)
{
    world world;
    gen_format_debug_fmt(1094, "a_function", 12, "%s is %d", "it", 7);
    l2vpn_generic_gen_dbg_ltrace_ctx(nullptr, nullptr, 163, "b_function", 13, "report %u", 8U);
    vy_syslog(3, "syslog %c", 'x');
    gen_dbg_ltrace_ctx(1079, "c_function", 14, "trace %x", 255U);
    gen_ltrace(1080, "record %x", 255U);
    l2vpn_ltrace(L2VPN_LTRACE_KEY(5, 1), "%u ", 15U);
    l2vpn_gen_assert_errmsg(-9);
    pthread_mutex_t mutex{};
    ptd_set_mutex_block(&mutex, "d_function", 16);

    const auto calls = world.calls();
    const auto argument = [&](std::size_t i) { return calls.at(i).args; };
    EXPECT_THAT(argument(0), ElementsAre(1094));
    EXPECT_THAT(argument(1), ElementsAre(0, 0, 163));
    EXPECT_THAT(argument(2), ElementsAre(3));
    EXPECT_THAT(argument(3), ElementsAre(1079));
    EXPECT_THAT(argument(4), ElementsAre(1080));
    EXPECT_THAT(argument(5), ElementsAre(0x100000005U));
    EXPECT_THAT(argument(6), ElementsAre(static_cast<std::uint64_t>(-9)));
    EXPECT_THAT(argument(7), ElementsAre(number(&mutex)));
    EXPECT_EQ(calls[0].text, "it is 7");
    EXPECT_EQ(calls[0].format, "%s is %d");
    EXPECT_EQ(calls[0].where, "a_function");
    EXPECT_EQ(calls[0].line, 12U);
    EXPECT_EQ(calls[3].text, "trace ff");
    EXPECT_EQ(calls[5].text, "15 ");
    EXPECT_EQ(calls[7].where, "d_function");
    EXPECT_EQ(calls[7].line, 16U);

    EXPECT_THAT(world.log(), ElementsAre("it is 7", "report 8", "syslog x"));
    EXPECT_TRUE(world.logged("is 7"));
    EXPECT_FALSE(world.logged("trace ff"));
}

TEST(sim_records, a_long_text_is_kept_whole)
{
    world world;
    const std::string text(10000, 'x');
    gen_format_debug_fmt(1, "f", 1, "%s", text.c_str());
    EXPECT_THAT(world.log(), ElementsAre(text));
}

TEST(sim_records, look_ups_are_recorded_on_demand_and_when_they_fail)
{
    world world;
    const auto look_up = [] {
        qerr_strerror(0);
        gen_dbg_get_enabled_bitset();
        gen_dbg_ltrace_get_dbg_bitset();
        l2vpn_debug_get_ctx();
        l2vpn_debug_get_enabled_bitset();
        mgd_timer_leaf_running(nullptr);
        mgd_timer_leaf_get_context(nullptr);
        mgd_timer_leaf_get_addl_context(nullptr, 0);
    };
    look_up();
    EXPECT_THAT(world.calls(), IsEmpty());
    world.fail(fn::qerr_strerror, 1, 0);
    look_up();
    EXPECT_THAT(functions_of(world.calls()), ElementsAre(fn::qerr_strerror));
    world.clear_calls();
    world.set.record_reads = true;
    look_up();
    EXPECT_EQ(world.calls().size(), 8U);
    EXPECT_EQ(world.count(fn::qerr_strerror), 3U);
}

TEST(sim_records, without_recording_calls_are_counted_only)
{
    world world;
    owner owner(world);
    world.clear_calls();
    world.set.record = false;
    owner.sends(message_of(16));
    gen_format_debug_fmt(1, "f", 1, "text");
    EXPECT_THAT(world.calls(), IsEmpty());
    EXPECT_THAT(world.link_of(class_id).sent(), IsEmpty());
    EXPECT_EQ(world.count(fn::l2vpn_ipc_ucast), 1U);

    bytes seen;
    world.link_of(class_id).on_send([&](auto message) { seen.assign(message.begin(), message.end()); });
    owner.sends(message_of(16));
    EXPECT_EQ(seen, message_of(16));
}

TEST(sim_records, the_transcript_reads_well)
{
    world world;
    owner owner(world);
    alarm_clock clock(world);
    clock.started(1500ms);
    world.fail(fn::l2vpn_ipc_ucast, 1, ENOBUFS);
    owner.sends(message_of(16));
    world.advance(2s);
    gen_format_debug_fmt(1094, "a_function", 12, "one\ntwo");
    EXPECT_EQ(world.transcript(), R"(0.000s #1 l2vpn_ipc_client_init(evm1, "L2VPN", &) = EOK
0.000s #1 l2vpn_ipc_class_init(client1, 4, 0x7, &, &, null, &) = EOK
0.000s #1 event_async_attach_event(evm1, 128, &, &, &) = 0
0.000s #1 mgd_timer_tree_new(&, 1) = tree1
0.000s #1 mgd_timer_parent_new(tree1, null) = parent1
0.000s #1 mgd_timer_leaf_new(tree1, parent1, null, &) = leaf1
0.000s #1 mgd_timer_leaf_start(leaf1, 1.500s)
0.000s #1 l2vpn_ipc_ucast(client1, 4, 0xffffffff, &, 16, 0x0) = ENOBUFS (made to fail) 16 bytes: 01020304 05060708 090a0b0c 0d0e0f10
1.500s #1 mgd_timer_tree_first_expired(tree1) = leaf1
1.500s #1 mgd_timer_leaf_stop(leaf1)
1.500s #2 mgd_timer_tree_first_expired(tree1) = null
2.000s #1 gen_format_debug_fmt(1094) "one\ntwo" at a_function:12
)");
}

TEST(sim_records, the_transcript_holds_no_address)
{
    world world;
    gen_dbg_ltrace_ctx(1, "f", 1, "%p 0x%x %p", static_cast<void *>(&world), 0x12345678U,
                       static_cast<void *>(nullptr));
    EXPECT_THAT(world.transcript(), HasSubstr("\"& 0x12345678 (nil)\""));
}

TEST(sim_records, hooks_come_before_the_call_without_a_lock)
{
    world world;
    owner owner(world);
    int hooked = 0;
    world.before(fn::l2vpn_ipc_ucast, [&] {
        ++hooked;
        EXPECT_EQ(world.count(fn::l2vpn_ipc_ucast), static_cast<std::uint64_t>(hooked - 1));
        owner.withdraws(); // takes effect before the call does
    });
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(ENOENT));
    world.before(fn::l2vpn_ipc_ucast, {});
    owner.sends(message_of(16));
    EXPECT_EQ(hooked, 1);
}

} // namespace
} // namespace sim_test
