/*
 * The list. To add a scenario, add a row: all modes run it, and the model predicts it. A scenario ends with
 * nothing of its own left connected; what a failure leaves behind is disconnected by the harness.
 */
#include "scenario.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace torture {

namespace {

/* --- steps, by short names --------------------------------------------------------------------------- */

constexpr std::uint32_t A = 4;  /* the class of most clients */
constexpr std::uint32_t B = 11; /* that of a second one */

step connect(unsigned slot, std::uint32_t class_id)
{
    return {.what = op::connect, .slot = slot, .class_id = class_id};
}
step connect_bare(unsigned slot, std::uint32_t class_id)
{
    return {.what = op::connect, .slot = slot, .class_id = class_id, .bare = true};
}
step connect_nodeid(unsigned slot, std::uint32_t class_id, std::uint32_t nodeid)
{
    return {.what = op::connect_nodeid, .slot = slot, .class_id = class_id, .number = nodeid};
}
step connect_wrongly(wrong argument, std::uint32_t class_id = A)
{
    return {.what = op::connect, .class_id = class_id, .argument = argument};
}
step disconnect(unsigned slot)
{
    return {.what = op::disconnect, .slot = slot};
}
step request(op what, unsigned slot, std::uint32_t count, std::uint32_t flags = 0)
{
    return {.what = what, .slot = slot, .flags = flags, .count = count};
}
step without_array(op what)
{
    return {.what = what, .count = 1, .argument = wrong::array};
}
step protect(unsigned slot, std::uint32_t flags = 0)
{
    return {.what = op::protect, .slot = slot, .flags = flags};
}
step event(unsigned slot, std::uint32_t number, std::uint32_t arg = 0)
{
    return {.what = op::event, .slot = slot, .number = number, .arg = arg};
}
step up(unsigned slot)
{
    return event(slot, L2VPN_IPC_EVT_CONNECTED, 7);
}
step down(unsigned slot)
{
    return event(slot, L2VPN_IPC_EVT_DISCONNECTED, 9);
}
step message(unsigned slot, std::uint32_t class_id, std::uint32_t type, std::uint32_t count,
             std::uint32_t payload, std::uint32_t flags = 0)
{
    return {.what = op::message,
            .slot = slot,
            .class_id = class_id,
            .flags = flags,
            .count = count,
            .number = type,
            .payload = payload};
}
step advance(std::uint32_t seconds)
{
    return {.what = op::advance, .number = seconds};
}
step refuse(fn function, std::uint32_t number = 1)
{
    return {.what = op::refuse, .number = number, .function = function, .status = ENOTCONN};
}
step during(step nested)
{
    return {.what = op::during, .nested = {nested}};
}

/* --- the scenarios ----------------------------------------------------------------------------------- */

constexpr std::uint32_t large = 16385; /* one more than the platform's check is given on the stack */

constexpr std::uint32_t header_size = L2VPN_AC_HDR_LEN;
constexpr std::uint32_t mtu = 65536;

/* An MTU that has room for two records of a request of a client of class A. */
constexpr std::uint32_t room_for_two(op kind)
{
    switch (kind) {
    case op::create:
        return header_size + 2 * (620 + 16);
    case op::update:
        return header_size + 2 * (4 + 16);
    case op::root:
        return header_size + 2 * 12;
    case op::port_request:
        return header_size + 2 * 96;
    default:
        return header_size + 2 * 4;
    }
}

struct named_kind {
    op kind;
    const char *name;
    std::uint32_t begin;
    std::uint32_t end;
};

const named_kind kinds[] = {
    {op::create, "create", L2VPN_AC_FLAG_CREATE_START, L2VPN_AC_FLAG_CREATE_END},
    {op::update, "update", L2VPN_AC_FLAG_UPDATE_START, L2VPN_AC_FLAG_UPDATE_END},
    {op::remove, "delete", L2VPN_AC_FLAG_DELETE_START, L2VPN_AC_FLAG_DELETE_END},
    {op::root, "root", L2VPN_MSTP_FLAG_BEGIN, L2VPN_MSTP_FLAG_END},
    {op::port_request, "port_request", L2VPN_MSTP_FLAG_BEGIN, L2VPN_MSTP_FLAG_END},
    {op::vid_map, "vid_map", L2VPN_MSTP_FLAG_BEGIN, L2VPN_MSTP_FLAG_END},
};

/* A request of three messages, an empty one and one that goes well, in each state of the client. */
void add_requests(std::vector<scenario> &list)
{
    struct {
        const char *name;
        std::vector<step> reach;
    } const states[] = {{"joining", {}}, {"up", {up(0)}}, {"idle", {down(0)}}};

    for (const named_kind &k : kinds) {
        for (const auto &state : states) {
            scenario s = {std::string(k.name) + "_" + state.name, room_for_two(k.kind), {connect(0, A)}};
            s.steps.insert(s.steps.end(), state.reach.begin(), state.reach.end());
            s.steps.insert(s.steps.end(), {request(k.kind, 0, 5, 0x100), request(k.kind, 0, 0, 0x200 | k.end),
                                           request(k.kind, 0, 2), advance(6), disconnect(0)});
            list.push_back(s);
        }
    }
}

/* A batch that spans calls of two clients, closed by the last; one closed by an empty call. */
void add_batches(std::vector<scenario> &list)
{
    for (const named_kind &k : kinds) {
        list.push_back(
            {std::string(k.name) + "_batch",
             room_for_two(k.kind),
             {connect(0, B), connect(1, A), request(k.kind, 0, 3, k.begin), request(k.kind, 1, 3),
              request(k.kind, 1, 3, k.begin), request(k.kind, 0, 3, k.end), request(k.kind, 0, 1, k.begin),
              request(k.kind, 1, 0, k.end | 0x100), request(k.kind, 1, 1),
              request(k.kind, 1, 1, k.begin | k.end), disconnect(0), disconnect(1)}});
    }
}

void add_large(std::vector<scenario> &list)
{
    for (const op kind : {op::create, op::update, op::remove}) {
        const auto name = std::ranges::find(kinds, kind, &named_kind::kind)->name;
        list.push_back({std::string("large_") + name,
                        header_size + (large / 2 + 1) * (620 + 16),
                        {connect(0, A), up(0), request(kind, 0, large), disconnect(0)}});
    }
}

const std::vector<scenario> fixed = {
    {"connect", mtu, {connect(0, A), disconnect(0)}},
    {"connect_nodeid",
     mtu,
     {connect_nodeid(0, A, 0x0b000001), disconnect(0), connect_nodeid(1, B, 1), disconnect(1),
      connect_nodeid(2, A, NODEID_INVALID)}},
    {"connect_again",
     mtu,
     {connect(0, A), disconnect(0), connect(1, B), disconnect(1), connect(2, A), disconnect(2),
      disconnect(2)}},
    {"two_clients",
     mtu,
     {connect(0, A), connect(1, B), up(1), request(op::remove, 0, 2), disconnect(0),
      request(op::update, 1, 2), disconnect(1)}},
    {"same_class_twice", mtu, {connect(0, A), connect(1, A), request(op::remove, 0, 1), disconnect(0)}},
    {"bad_class", mtu, {connect(0, 15), connect(0, 18), connect(1, A), disconnect(1)}},
    {"bad_arguments",
     mtu,
     {connect_wrongly(wrong::callbacks), connect_wrongly(wrong::status_cb),
      connect_wrongly(wrong::event_manager), connect_wrongly(wrong::handle), connect(0, A),
      without_array(op::create), without_array(op::update), without_array(op::remove),
      without_array(op::root), without_array(op::port_request), without_array(op::vid_map), disconnect(0)}},
    {"no_client",
     mtu,
     {disconnect(0), request(op::create, 0, 1), request(op::update, 0, 1), request(op::remove, 0, 1),
      request(op::root, 0, 1), request(op::port_request, 0, 1), request(op::vid_map, 0, 1), protect(0),
      connect(1, A), disconnect(0), request(op::create, 0, 1), request(op::update, 0, 0),
      request(op::remove, 0, 0), request(op::root, 0, 0), request(op::port_request, 0, 1),
      request(op::vid_map, 0, 1), protect(0), disconnect(1)}},
    {"every_function",
     mtu,
     {connect(0, A), connect_nodeid(1, B, 3), up(0), request(op::create, 0, 2), request(op::update, 0, 2),
      request(op::remove, 0, 2), request(op::root, 0, 2), request(op::port_request, 0, 2),
      request(op::vid_map, 0, 2), protect(0, 0x300), disconnect(1), disconnect(0)}},
    {"protect",
     mtu,
     {connect(0, A), protect(0, 1), up(0), protect(0, 2), down(0), protect(0, 3), disconnect(0)}},
    {"only_heads",
     mtu,
     {connect(0, 17), request(op::create, 0, 2), request(op::update, 0, 3), disconnect(0)}},
    {"refused_by_check",
     mtu,
     {connect(0, A), refuse(fn::l2vpn_ac_data_sanitize), request(op::create, 0, 2),
      refuse(fn::l2vpn_ac_data_sanitize), request(op::update, 0, 2), refuse(fn::l2vpn_ac_data_sanitize),
      request(op::remove, 0, 2), refuse(fn::l2vpn_ac_data_sanitize), request(op::create, 0, 0),
      disconnect(0)}},
    {"limit_of_zero",
     header_size + 3,
     {connect(0, A), refuse(fn::l2vpn_ipc_ucastv, 3), request(op::create, 0, 2),
      refuse(fn::l2vpn_ipc_ucastv, 3), request(op::update, 0, 2), refuse(fn::l2vpn_ipc_ucastv, 3),
      request(op::remove, 0, 2), refuse(fn::l2vpn_ipc_ucastv, 3), request(op::root, 0, 2),
      refuse(fn::l2vpn_ipc_ucastv, 3), request(op::port_request, 0, 2), refuse(fn::l2vpn_ipc_ucastv, 3),
      request(op::vid_map, 0, 2), disconnect(0)}},
    {"tiny_mtu", 3, {connect(0, A), request(op::remove, 0, 3), request(op::vid_map, 0, 3), disconnect(0)}},

    /* Events and the timer. */
    {"joining", mtu, {connect(0, A), advance(4), advance(5), advance(6), up(0), advance(60), disconnect(0)}},
    {"up_and_down",
     mtu,
     {connect(0, A), up(0), down(0), request(op::remove, 0, 1), advance(10), up(0), up(0), down(0), down(0),
      event(0, 2), disconnect(0)}},
    {"down_while_joining", mtu, {connect(0, A), down(0), advance(10), up(0), disconnect(0)}},
    {"retry",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::remove, 0, 1), advance(1),
      request(op::remove, 0, 1), disconnect(0)}},
    {"retry_fails",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::root, 0, 1),
      refuse(fn::l2vpn_ipc_ucast), advance(1), refuse(fn::l2vpn_ipc_ucastv), request(op::create, 0, 1),
      advance(2), advance(10), disconnect(0)}},
    {"retry_while_joining",
     mtu,
     {connect(0, A), refuse(fn::l2vpn_ipc_ucast), advance(4), advance(5), refuse(fn::l2vpn_ipc_ucastv),
      request(op::update, 0, 1), advance(6), disconnect(0)}},
    {"down_while_retrying",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::vid_map, 0, 1), down(0), advance(5),
      up(0), disconnect(0)}},
    {"up_while_retrying",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::update, 0, 0), up(0), advance(5),
      disconnect(0)}},
    {"two_timers",
     mtu,
     {connect(0, A), connect(1, B), advance(4), up(1), advance(5), disconnect(0), advance(6), disconnect(1)}},
    {"disconnect_with_timer", mtu, {connect(0, A), advance(4), disconnect(0), advance(20)}},

    /* What a client does from inside a callback. */
    {"disconnect_inside_event",
     mtu,
     {connect(0, A), during(disconnect(0)), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::remove, 0, 1),
      advance(5), down(0), disconnect(0)}},
    {"disconnect_inside_message",
     mtu,
     {connect(0, A), during(disconnect(0)), message(0, A, L2VPN_AC_MSG_UNPROV, 1, 4, 2), disconnect(0)}},
    {"disconnect_inside_failed_send",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), during(disconnect(0)), request(op::create, 0, 2),
      connect(1, B), up(1), refuse(fn::l2vpn_ipc_ucastv), during(disconnect(1)), request(op::root, 1, 2)}},
    {"disconnect_inside_retry",
     mtu,
     {connect(0, A), up(0), refuse(fn::l2vpn_ipc_ucastv), request(op::remove, 0, 1), during(disconnect(0)),
      advance(1)}},
    {"requests_inside",
     mtu,
     {connect(0, A), during(request(op::create, 0, 2)), up(0), during(request(op::update, 0, 2)),
      message(0, A, L2VPN_AC_MSG_PROV, 2, 64), during(request(op::root, 0, 2)),
      message(0, A, L2VPN_AC_MSG_UNPROV, 2, 8), during(request(op::remove, 0, 2)),
      message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 1, 32), during(protect(0)),
      message(0, A, L2VPN_AC_MSG_HDR_NOTIFY, 1, 0), refuse(fn::l2vpn_ipc_ucastv),
      during(request(op::vid_map, 0, 2)), request(op::remove, 0, 1), disconnect(0)}},
    {"connect_inside", mtu, {connect(0, A), during(connect(1, B)), up(0), disconnect(1), disconnect(0)}},

    /* Messages of the L2VPN process. */
    {"inbound",
     mtu,
     {connect(0, A), message(0, A, L2VPN_AC_MSG_PROV, 2, 64), message(0, A, L2VPN_AC_MSG_PROV, 0, 0, 2),
      message(0, A, L2VPN_AC_MSG_PROV, 1, 32, 3), message(0, A, L2VPN_AC_MSG_UNPROV, 3, 12, 2),
      message(0, A, L2VPN_AC_MSG_UNPROV, 0, 0), message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 2, 64, 2),
      message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 0, 0), message(0, A, L2VPN_AC_MSG_HDR_NOTIFY, 5, 0, 2),
      message(0, A, L2VPN_AC_MSG_HDR_NOTIFY, 5, 0, 0x02000000), message(0, A, 10, 1, 0, 2), disconnect(0)}},
    {"inbound_classes",
     mtu,
     {connect(0, 0), message(0, 0, L2VPN_AC_MSG_PROV, 2, 72), connect(1, 2),
      message(1, 2, L2VPN_AC_MSG_PROV, 1, 36), connect(2, 8), message(2, 8, L2VPN_AC_MSG_PROV, 2, 5360),
      connect(3, 11), message(3, 11, L2VPN_AC_MSG_PROV, 3, 213), disconnect(3), disconnect(2), disconnect(1),
      disconnect(0)}},
    {"inbound_bare",
     mtu,
     {connect_bare(0, A), up(0), message(0, A, L2VPN_AC_MSG_PROV, 2, 64, 2),
      message(0, A, L2VPN_AC_MSG_UNPROV, 2, 8, 2), message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 1, 32, 2),
      message(0, A, L2VPN_AC_MSG_HDR_NOTIFY, 1, 0, 0x02000000), down(0), disconnect(0)}},
    {"inbound_to_two",
     mtu,
     {connect(0, A), connect(1, B), message(1, B, L2VPN_AC_MSG_PROV, 1, 71),
      message(0, A, L2VPN_AC_MSG_PROV, 1, 32), up(1), message(0, A, L2VPN_AC_MSG_UNPROV, 1, 4), disconnect(0),
      message(1, B, L2VPN_AC_MSG_UNPROV, 1, 4), disconnect(1)}},
};

std::vector<scenario> all_scenarios()
{
    std::vector<scenario> list = fixed;
    add_requests(list);
    add_batches(list);
    add_large(list);
    return list;
}

const malformed bad_messages[] = {
    {"short_provision", message(0, A, L2VPN_AC_MSG_PROV, 2, 63, 2)},
    {"long_provision", message(0, A, L2VPN_AC_MSG_PROV, 2, 65)},
    {"provision_of_bad_class", message(0, 15, L2VPN_AC_MSG_PROV, 1, 36)},
    {"provision_of_no_class", message(0, 18, L2VPN_AC_MSG_PROV, 1, 36)},
    {"wrapping_provision", message(0, A, L2VPN_AC_MSG_PROV, 0x08000001, 32)},
    {"short_unprovision", message(0, A, L2VPN_AC_MSG_UNPROV, 2, 7)},
    {"wrapping_unprovision", message(0, A, L2VPN_AC_MSG_UNPROV, 0x40000001, 4, 2)},
    {"short_notice", message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 1, 31)},
    {"wrapping_notice", message(0, A, L2VPN_AC_MSG_BULK_NOTIFY, 0xffffffff, 0)},
    {"first_invalid_type", message(0, A, L2VPN_AC_MSG_TYPE_MAX, 1, 4)},
    {"foreign_byte_order", message(0, A, 0x07000000, 0x01000000, 32, 2)},
    {"outbound_type", message(0, A, L2VPN_AC_MSG_CREATE, 1, 636)},
};

} // namespace

std::span<const scenario> scenarios()
{
    static const std::vector<scenario> list = all_scenarios();
    return list;
}

const scenario &scenario_named(const std::string &name)
{
    const auto found = std::ranges::find(scenarios(), name, &scenario::name);
    if (found == scenarios().end())
        throw std::invalid_argument("no scenario: " + name);
    return *found;
}

std::span<const malformed> malformed_messages()
{
    return bad_messages;
}

std::string to_string(const step &s)
{
    static const char *const names[] = {
        "connect", "connect_nodeid", "disconnect", "create",  "update",  "delete", "root",   "port_request",
        "vid_map", "protect",        "event",      "message", "advance", "refuse", "during", "sweep"};
    const std::string name = names[static_cast<std::size_t>(s.what)];
    switch (s.what) {
    case op::connect:
    case op::connect_nodeid:
        return name + " " + std::to_string(s.slot) + " class " + std::to_string(s.class_id);
    case op::message:
    case op::event:
        return name + " " + std::to_string(s.number) + " to " + std::to_string(s.slot);
    case op::advance:
        return name + " " + std::to_string(s.number);
    case op::refuse:
        return name + " " + name_of(s.function);
    case op::during:
    case op::sweep:
        return name;
    default:
        return name + " " + std::to_string(s.slot) + " count " + std::to_string(s.count) + " flags " +
               std::to_string(s.flags);
    }
}

} // namespace torture
