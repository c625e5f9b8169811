/*
 * Who says what: every line that the library logs, reports or traces, with the function that it comes from.
 * One long story makes the library say all of it.
 */
#include "contract_test.h"

#include <map>
#include <set>

namespace {

/* Debug messages: the functions that give each format. */
const std::map<std::string, std::set<std::string>> debug_messages = {
    {"Failed to get nodeid:%s", {"l2vpn_ac_lib_init"}},
    {"Failed to init IPC DLL:%s", {"l2vpn_ac_lib_init"}},
    {"event_async_attach %s", {"l2vpn_ac_lib_init"}},
    {"Failed to init root timer %s", {"l2vpn_ac_lib_init"}},
    {"Failed to init parent timer %s", {"l2vpn_ac_lib_init"}},
    {"Failed to init client wavl:%s", {"l2vpn_ac_lib_init"}},
    {"Failed to alloc AC/MA client timer", {"l2vpn_ac_process_connect_internal"}},
    {"Failed to store context for leaf timer: %s", {"l2vpn_ac_process_connect_internal"}},
    {"Failed to insert AC/MA client in wavl", {"l2vpn_ac_process_connect_internal"}},
    {"Failed to init AC/MA class", {"l2vpn_ac_process_connect_internal"}},
    {"Failed to get transport MTU: %s", {"l2vpn_ac_process_connect_internal"}},
    {"Unable to get info message size for class id %u", {"l2vpn_ac_process_connect_internal"}},
    {"Failed to unicast a JOIN MSG to L2VPN: %s", {"l2vpn_ac_process_connect_internal"}},
    {"lib AC connect INIT: MTU=%d, max_create=%d, max_updt=%d, max_del=%d",
     {"l2vpn_ac_process_connect_internal"}},
    {"Connected to L2VPN process", {"l2vpn_ac_evt_cb"}},
    {"Disconnected from L2VPN process", {"l2vpn_ac_evt_cb"}},
    {"%s", /* the name itself, and texts without values */
     {"l2vpn_ac_activate_timer", "l2vpn_ac_create", "l2vpn_mstp_root", "l2vpn_mstp_port_request",
      "l2vpn_msti_vid_map"}},
    {"%s %d secs", {"l2vpn_ac_activate_timer", "l2vpn_ac_connect_expire_fn"}},
    {"%s send down to client", {"l2vpn_ac_activate_timer"}},
    {"%s send UP to client", {"l2vpn_ac_connect_expire_fn"}},
    {"Flags from AC_class=%d: 0x%x bulk_size=%d", {"l2vpn_ac_create", "l2vpn_ac_update", "l2vpn_ac_delete"}},
    {"Failed to convert l2vpn_ac_info_t struct:%s", {"l2vpn_ac_create", "l2vpn_ac_update"}},
    {"Failed to unicast an empty CREATE to L2VPN:%s", {"l2vpn_ac_create"}},
    {"Failed to unicast a CREATE to L2VPN:%s", {"l2vpn_ac_create"}},
    {"Failed to unicast an empty UPDATE to L2VPN:%s", {"l2vpn_ac_update"}},
    {"Failed to unicast a UPDATE to L2VPN:%s", {"l2vpn_ac_update"}},
    {"Failed to unicast a DELETE to L2VPN:%s", {"l2vpn_ac_delete"}},
    {" Called for L2VPN_MSTP_MSG_PROTECTED", {"l2vpn_mstp_protect"}},
    {"Receiving prov AC msg len=%d, bulk=%d", {"l2vpn_ac_msg_cb"}},
    {"Receiving unprov AC msg len=%d, bulk=%d", {"l2vpn_ac_msg_cb"}},
    {"incorrect provision msg len=%d, bulk=%d", {"l2vpn_ac_msg_cb"}},
    {"incorrect unprovision msg len=%d, bulk=%d", {"l2vpn_ac_msg_cb"}},
    {"Unable to get AC data size for class id %u", {"l2vpn_ac_msg_cb"}},
    {"Cannot allocate memory for AC data array", {"l2vpn_ac_data_base_to_ac_data"}},
};

/* Error reports. */
const std::map<std::string, std::set<std::string>> known_reports = {
    {"Cannot allocate memory for info msg array", {"l2vpn_ac_info_to_msg"}},
    {"Failed to unicast: %s", {"l2vpn_mstp_root", "l2vpn_mstp_port_request", "l2vpn_msti_vid_map"}},
};

/* Traces: by their ids. The readers of recordings tell entries by them. */
const std::map<std::uint64_t, std::set<std::string>> known_traces = {
    {1079, {"l2vpn_ac_create"}},
    {1080, {"l2vpn_ac_update"}},
    {1081, {"l2vpn_ac_delete"}},
    {1083, {"l2vpn_mstp_root"}},
    {1084, {"l2vpn_mstp_port_request"}},
    {1085, {"l2vpn_msti_vid_map"}},
    {1086, {"l2vpn_mstp_protect"}},
    {1090, {"l2vpn_ac_process_connect_internal"}}, /* exit of a connect that failed */
    {1091, {"l2vpn_ac_process_connect_internal"}}, /* exit of an initialisation that failed */
    {1092, {"l2vpn_ac_evt_cb"}},
    {1093, {"l2vpn_ac_msg_cb"}}, /* a message received */
    {1095, {"l2vpn_ac_msg_cb"}}, /* a message refused */
};

class said : public contract {
protected:
    void SetUp() override
    {
        connects_that_fail();
        const auto hd = connect_up(4);
        connect(3);
        requests(hd);
        inbound(hd);
        world.advance(seconds(3));
        world.link_of(4).down();
        world.run();
    }

    void failing_connect(fn function, qerrno status, std::uint32_t class_id = 4)
    {
        world.fail(function, 1, status);
        l2vpn_ac_client_hd_t hd = nullptr;
        EXPECT_NE(lib.connect(world.evm(), 0, class_id, &callbacks, &hd), 0u) << name_of(function);
        world.clear_failures();
    }

    void connects_that_fail()
    {
        for (const fn step :
             {fn::l2vpn_debug_init, fn::platform_get_my_nodeid, fn::l2vpn_ipc_client_init,
              fn::event_async_attach_event, fn::mgd_timer_tree_new, fn::mgd_timer_parent_new, fn::wavl_init,
              fn::calloc_named, fn::mgd_timer_leaf_new, fn::mgd_timer_leaf_set_addl_context, fn::wavl_insert,
              fn::l2vpn_ipc_class_init, fn::l2vpn_ipc_transport_mtu_get, fn::l2vpn_ipc_ucast})
            failing_connect(step, 5);
        failing_connect(fn::vy_syslog, 5, 15); /* which connect never calls: the class is refused */
        EXPECT_EQ(lib.connect(nullptr, 0, 4, &callbacks, nullptr), 22u);
    }

    void requests(l2vpn_ac_client_hd_t hd)
    {
        acs a(1), none(0);
        l2vpn_msti_root_t root = {};
        l2vpn_mstp_req_t req = {};
        l2vpn_msti_vid_map_t entry = {};
        l2vpn_mstp_prot_t prot = {};
        EXPECT_EQ(create(nullptr, 0, a), 2u);
        EXPECT_EQ(lib.mstp_protect(hd, 0, &prot), 0u);
        for (int sends = 0; sends < 3; ++sends) {
            if (sends == 1)
                world.fail_from(fn::l2vpn_ipc_ucastv, 1, 105);
            if (sends == 2)
                world.fail_from(fn::calloc_named, 1, 12);
            create(hd, 0, a);
            create(hd, 0, none);
            update(hd, 0, a);
            update(hd, 0, none);
            remove(hd, 0, a);
            lib.mstp_root(hd, 0, &root, 1);
            lib.mstp_root(hd, 0, nullptr, 0);
            lib.mstp_port_request(hd, 0, &req, 1);
            lib.msti_vid_map(hd, 0, &entry, 1);
        }
        world.clear_failures();
        world.fail(fn::l2vpn_ipc_ucast, 1, 105); /* the timer's first JOIN */
    }

    void inbound(l2vpn_ac_client_hd_t)
    {
        auto &link = world.link_of(4);
        link.inject(message_of(7, 1, 0, 32));
        link.inject(message_of(7, 1, 0, 31));
        link.inject(message_of(7, 1, 0, 32), 15);
        link.inject(message_of(8, 1, 0, 4));
        link.inject(message_of(8, 1, 0, 3));
        link.inject(message_of(13, 1, 0, 3));
        world.run();
        world.fail(fn::calloc_named, 1, 12);
        link.inject(message_of(7, 1, 0, 32));
        world.run();
    }

    /* What was said by whom; each call has a line number. */
    template <typename Key, typename Of>
    std::map<Key, std::set<std::string>> by(fn function, Of of) const
    {
        std::map<Key, std::set<std::string>> result;
        for (const auto &call : world.calls(function)) {
            result[of(call)].insert(call.where);
            EXPECT_GT(call.line, 0u) << call.text;
        }
        return result;
    }
};

const auto format_of = [](const l2vpn::sim::call &call) { return call.format; };
const auto id_of = [](const l2vpn::sim::call &call) { return call.args.at(0); };

TEST_F(said, in_debug_messages_names_the_function)
{
    EXPECT_EQ(by<std::string>(fn::gen_format_debug_fmt, format_of), debug_messages);
}

TEST_F(said, in_error_reports_names_the_function)
{
    EXPECT_EQ(by<std::string>(fn::l2vpn_generic_gen_dbg_ltrace_ctx, format_of), known_reports);
}

TEST_F(said, in_traces_names_the_function)
{
    EXPECT_EQ(by<std::uint64_t>(fn::gen_dbg_ltrace_ctx, id_of), known_traces);
}

/* A trace goes to both traces, with the same id and text. */
TEST_F(said, in_a_trace_is_said_twice)
{
    const auto first = world.calls(fn::gen_dbg_ltrace_ctx), second = world.calls(fn::gen_ltrace);
    ASSERT_EQ(first.size(), second.size());
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i].args[0], second[i].args[0]);
        EXPECT_EQ(first[i].format, second[i].format);
        EXPECT_EQ(first[i].text, second[i].text);
    }
}

/* A request's entry gives its handle, its flags and, where there is one, its number of records. */
TEST_F(said, in_an_entry_trace_is_what_was_passed)
{
    const auto hd = connect_up(5);
    acs a(3);
    l2vpn_mstp_prot_t prot = {};
    world.clear_calls();
    EXPECT_EQ(update(hd, 0x2b, a), 0u);
    EXPECT_EQ(lib.mstp_root(hd, 0x3c, nullptr, 0), 0u);
    EXPECT_EQ(lib.mstp_protect(hd, 0x4d, &prot), 0u);
    std::vector<std::string> texts;
    for (const auto &trace : world.calls(fn::gen_dbg_ltrace_ctx))
        texts.push_back(trace.text);
    char handle[32];
    std::snprintf(handle, sizeof handle, "%p", static_cast<void *>(hd));
    EXPECT_THAT(texts, ElementsAre(handle + std::string(" 0x2b 3"), handle + std::string(" 0x3c 0"),
                                   handle + std::string(" 0x4d")));
}

TEST_F(said, in_an_event_trace_are_event_node_and_peer)
{
    world.clear_calls();
    world.link_of(4).event(L2VPN_IPC_EVT_CONNECTED, 7, 33);
    world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED, 7, 34);
    world.run();
    std::vector<std::string> texts;
    for (const auto &trace : world.calls(fn::gen_dbg_ltrace_ctx))
        texts.push_back(trace.text);
    const std::string node = std::to_string(world.set.nodeid);
    EXPECT_THAT(texts, ElementsAre("event 0 node " + node + " peer 33", "event 1 node " + node + " peer 34"));
}

/* A refused connect gives its status, one without memory for its context the line. */
TEST_F(said, in_an_exit_trace_is_why)
{
    l2vpn_ac_client_hd_t hd = nullptr;
    world.clear_calls();
    EXPECT_EQ(lib.connect(world.evm(), 0, 18, &callbacks, &hd), 22u);
    failing_connect(fn::calloc_named, 12, 5);
    const auto exits = world.calls(fn::gen_dbg_ltrace_ctx);
    ASSERT_EQ(exits.size(), 2u);
    EXPECT_EQ(exits[0].text, "22");
    EXPECT_EQ(exits[1].text, std::to_string(exits[1].line));
}

/* The compact record that goes with a report has the report's line, and is asked for by the same key. */
TEST_F(said, in_a_compact_record_is_the_reports_line)
{
    const auto texts = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    const auto asked = world.calls(fn::l2vpn_check_ltrace_buffer);
    const auto records = world.calls(fn::l2vpn_ltrace);
    ASSERT_EQ(texts.size(), records.size());
    ASSERT_EQ(texts.size(), asked.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(asked[i].args[0], records[i].args[0]);
        const std::string line = std::to_string(texts[i].line);
        if (texts[i].format == "Failed to unicast: %s") {
            EXPECT_EQ(records[i].args[0], 0x2'2002051cu);
            EXPECT_EQ(records[i].text, line + "105");
        } else {
            EXPECT_EQ(records[i].args[0], 0x1'2002051au);
            EXPECT_EQ(records[i].text, line + " ");
        }
    }
}

/* --- whether debug messages are given at all --- */

using init = contract;

TEST_F(init, logs_nothing_when_either_debug_bit_is_off)
{
    for (const auto &[enabled, traced] : {std::pair{true, false}, {false, true}, {false, false}}) {
        world.set_debug_bit(1094, enabled, traced);
        world.fail(fn::l2vpn_ipc_client_init, 1, 13);
        l2vpn_ac_client_hd_t hd = nullptr;
        EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 13u);
        EXPECT_THAT(world.calls(fn::gen_format_debug_fmt), IsEmpty());
    }
    world.set_debug_bit(1094, true, true);
    world.fail(fn::l2vpn_ipc_client_init, 1, 13);
    l2vpn_ac_client_hd_t hd = nullptr;
    lib.connect(world.evm(), 0, 4, &callbacks, &hd);
    EXPECT_EQ(world.calls(fn::gen_format_debug_fmt).size(), 1u);
}

TEST_F(init, takes_a_null_bitset_for_an_empty_one)
{
    for (const auto &[enabled, traced] : {std::pair{true, false}, {false, true}, {true, true}}) {
        world.set_debug_bitsets_null(enabled, traced);
        world.fail(fn::l2vpn_ipc_client_init, 1, 13);
        l2vpn_ac_client_hd_t hd = nullptr;
        EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 13u);
        EXPECT_THAT(world.calls(fn::gen_format_debug_fmt), IsEmpty());
    }
}

TEST_F(init, gives_debug_messages_the_librarys_id)
{
    connect(4);
    const auto messages = world.calls(fn::gen_format_debug_fmt);
    ASSERT_FALSE(messages.empty());
    for (const auto &message : messages) {
        EXPECT_EQ(message.args[0], 1094u);
        EXPECT_FALSE(message.where.empty());
        EXPECT_NE(message.line, 0u);
    }
}

} // namespace
