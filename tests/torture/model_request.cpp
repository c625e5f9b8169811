/*
 * The requests, and what comes from the L2VPN process.
 */
#include "model.h"

#include "ac_classes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>

namespace torture {

namespace {

constexpr std::uint32_t header_bytes = 16;
constexpr std::uint32_t on_stack = 16384; /* entries of the check; more stand in a mapping */

std::string status_text(qerrno status)
{
    return qerr_strerror(status);
}

} // namespace

/* --- the AC requests --------------------------------------------------------------------------------- */

const std::map<op, model::ac_kind> model::ac_kinds = {
    {op::create, {"l2vpn_ac_create", "CREATE", 2, 0x1, 0x2, true, true, ENOENT}},
    {op::update, {"l2vpn_ac_update", "UPDATE", 3, 0x4, 0x8, false, true, EINVAL}},
    {op::remove, {"l2vpn_ac_delete", "DELETE", 6, 0x10, 0x20, false, false, EINVAL}},
};

qerrno model::send(id client, std::uint32_t type, std::uint32_t bulk, std::uint32_t flags, std::size_t length,
                   std::size_t pieces)
{
    return call(fn::l2vpn_ipc_ucastv,
                text_of_message(of(client).class_id, type, bulk, flags, header_bytes + length, pieces));
}

qerrno model::ac_request(const ac_kind &kind, const step &s)
{
    lock(kind.function);
    const auto done = [&](qerrno status) {
        unlock(kind.function);
        return status;
    };
    const id client = find(slot_[s.slot]);
    if (client == nobody) {
        if (s.what == op::create)
            debug(kind.function, "No such L2VPN AC client handle");
        return done(kind.unknown);
    }
    if (s.argument == wrong::array)
        return done(EINVAL);
    if (s.count > on_stack && fails(target_named("mmap")))
        return done(ENOMEM);
    const std::uint32_t class_id = of(client).class_id;
    if (const qerrno rc = call(fn::l2vpn_ac_data_sanitize, text_of_sanitize(class_id, s.count)))
        return done(s.what == op::remove ? EINVAL : rc);
    char flags_text[16];
    std::snprintf(flags_text, sizeof flags_text, "0x%x", s.flags);
    debug(kind.function, "Flags from AC_class=" + std::to_string(class_id) + ": " + flags_text +
                             " bulk_size=" + std::to_string(s.count));

    const auto taken_over = [&](qerrno status) { return activate(client) == EOK ? EOK : status; };
    if (s.count == 0) {
        if (s.what == op::remove)
            return done(EOK);
        qerrno rc = send(client, kind.type, 0, s.what == op::create ? s.flags : 0, 0, 1);
        if (rc != EOK) {
            rc = taken_over(rc);
            debug(kind.function,
                  "Failed to unicast an empty " + kind.called + " to L2VPN:" + status_text(rc));
        }
        batch_[s.what] = 0;
        return done(rc);
    }

    /* Only create has batches that span calls. */
    std::uint32_t &batch = batch_[s.what];
    std::uint32_t word = s.flags;
    if (s.what != op::create)
        word |= kind.start;
    else if (batch == 0 && (batch = s.flags & kind.start) == 0)
        word |= kind.start;
    const std::uint32_t end_asked = s.flags & kind.end;

    if (const qerrno rc = prepare(kind, client, s.count)) {
        debug(kind.function, "Failed to convert l2vpn_ac_info_t struct:" + status_text(rc));
        return done(rc);
    }
    const std::size_t element =
        4 + (kind.defns ? 616u : 0u) + (kind.infos ? std::size_t{ac_classes::rows[class_id].info} : 0u);
    const std::size_t pieces = 2u + (kind.defns ? 1u : 0u) + (kind.infos ? 1u : 0u);

    for (std::uint32_t remaining = s.count; remaining > 0;) {
        const bool last = remaining <= limit_[s.what];
        const std::uint32_t n = last ? remaining : limit_[s.what];
        if (s.what != op::create)
            word |= last ? kind.end : 0;
        else if (!last)
            word &= ~kind.end;
        else
            word |= batch == 0 ? kind.end : end_asked;
        if (const qerrno status = send(client, kind.type, n, word, n * element, pieces)) {
            const qerrno rc = taken_over(status);
            debug(kind.function, "Failed to unicast a " + kind.called + " to L2VPN:" + status_text(rc));
            return done(rc);
        }
        word &= ~kind.start;
        remaining -= n;
    }
    if (end_asked != 0)
        batch = 0;
    return done(EOK);
}

qerrno model::prepare(const ac_kind &kind, id client, std::uint32_t count)
{
    static const std::string self = "l2vpn_ac_info_to_msg";
    if (!kind.infos)
        return EOK;
    if (call_fails(fn::calloc_named, "AC info msg array")) {
        report(self, "Cannot allocate memory for info msg array", "%u ");
        return ENOMEM;
    }
    if (of(client).class_id == 17) {
        for (std::uint32_t i = 0; i < count; ++i)
            effect(fn::l2vpn_gen_assert_errmsg);
    }
    return EOK;
}

/* --- the MSTP requests ------------------------------------------------------------------------------- */

const std::map<op, model::mstp_kind> model::mstp_kinds = {
    {op::root, {"l2vpn_mstp_root", " Called for L2VPN_MSTP_MSG_IS_ROOT", 14, 8}},
    {op::port_request, {"l2vpn_mstp_port_request", "Called for L2VPN_MSTP_MSG_STATE", 11, 96}},
    {op::vid_map, {"l2vpn_msti_vid_map", " Called for L2VPN_MSTP_MSG_VID_MAP", 9, 4}},
};

qerrno model::mstp_request(const mstp_kind &kind, const step &s)
{
    constexpr std::uint32_t begin = 0x1, end = 0x2;

    lock(kind.function);
    const auto done = [&](qerrno status) {
        unlock(kind.function);
        return status;
    };
    const id client = find(slot_[s.slot]);
    if (client == nobody || s.argument == wrong::array)
        return done(EINVAL);
    debug(kind.function, kind.called);
    const auto failed = [&](qerrno status) {
        report(kind.function, "Failed to unicast: " + status_text(status), "%u%u");
    };

    std::uint32_t &batch = batch_[s.what];
    if (s.count == 0) {
        const qerrno rc = send(client, kind.type, 0, s.flags, 0, 1);
        batch = 0;
        if (rc != EOK)
            failed(rc);
        return done(rc);
    }
    std::uint32_t word = s.flags;
    if (batch == 0 && (batch = s.flags & begin) == 0)
        word |= begin;

    for (std::uint32_t remaining = s.count; remaining > 0;) {
        const bool last = remaining <= limit_[s.what];
        const std::uint32_t n = last ? remaining : limit_[s.what];
        if (!last)
            word &= ~end;
        else
            word |= batch == 0 ? end : s.flags & end;
        if (const qerrno status = send(client, kind.type, n, word, n * kind.record, 2)) {
            const qerrno rc = activate(client) == EOK ? EOK : status;
            failed(status);
            return done(rc);
        }
        remaining -= n;
    }
    if ((s.flags & end) != 0)
        batch = 0;
    return done(EOK);
}

/* A failed send is neither logged nor told. */
qerrno model::protect(const step &s)
{
    static const std::string self = "l2vpn_mstp_protect";

    lock(self);
    const id client = find(slot_[s.slot]);
    if (client != nobody) {
        debug(self, " Called for L2VPN_MSTP_MSG_PROTECTED");
        (void)send(client, 12, 0, s.flags, 72, 2);
    }
    unlock(self);
    return client == nobody ? EINVAL : EOK;
}

/* --- messages of the L2VPN process ------------------------------------------------------------------- */

void model::message(const step &s)
{
    static const std::string self = "l2vpn_ac_msg_cb";
    if (slot_[s.slot] == nobody)
        return;

    lock(self);
    const id client = find(slot_[s.slot]);
    unlock(self);
    if (client == nobody)
        return;
    of(client).busy = true;
    dispatch(client, s);

    /* The header of a header notice lies in network order again. */
    const std::uint32_t flags = s.number == L2VPN_AC_MSG_HDR_NOTIFY ? htonl(s.flags) : s.flags;
    if ((flags & 2) != 0)
        notify(client, "status 3 " + std::to_string(flags));
    lock(self);
    of(client).busy = false;
    unlock(self);
}

void model::dispatch(id client, const step &s)
{
    static const std::string self = "l2vpn_ac_msg_cb";
    const std::string sizes = "len=" + std::to_string(header_bytes + s.payload) +
                              ", bulk=" + std::to_string(static_cast<int>(s.count));
    const auto holds = [&](std::uint64_t size) { return size * s.count == s.payload; };
    const std::string records = std::to_string(s.count) + " flags " + std::to_string(s.flags);

    if (s.number >= 17) {
        char text[128];
        std::snprintf(text, sizeof text,
                      "Invalid message type(0x%x) possible endian mismatch file l2vpn/lib/src/l2vpn_ac_api",
                      s.number);
        lines.push_back(std::string("syslog 6: ") + text);
    }
    switch (s.number) {
    case L2VPN_AC_MSG_PROV:
        debug(self, "Receiving prov AC msg " + sizes);
        if (s.count == 0)
            return;
        if (!ac_classes::valid(s.class_id))
            return debug(self,
                         "Unable to get AC data size for class id " + std::to_string(of(client).class_id));
        if (!holds(ac_classes::rows[s.class_id].data))
            return debug(self, "incorrect provision msg " + sizes);
        return provision(client, s);
    case L2VPN_AC_MSG_UNPROV:
        debug(self, "Receiving unprov AC msg " + sizes);
        if (s.count == 0)
            return;
        if (!holds(4))
            return debug(self, "incorrect unprovision msg " + sizes);
        if (!of(client).bare)
            notify(client, "unprov " + records);
        return;
    case L2VPN_AC_MSG_BULK_NOTIFY:
        if (s.count == 0)
            return;
        if (!holds(32))
            return debug(self, "incorrect unprovision msg " + sizes);
        if (!of(client).bare)
            notify(client, "bulk_notify " + records);
        return;
    case L2VPN_AC_MSG_HDR_NOTIFY:
        if (!of(client).bare)
            notify(client, "hdr_notify " + std::to_string(htonl(s.count)) + " flags " +
                               std::to_string(htonl(s.flags)));
        return;
    default:
        return;
    }
}

/* Without memory the client is not called. */
void model::provision(id client, const step &s)
{
    if (call_fails(fn::calloc_named, "AC data array"))
        return debug("l2vpn_ac_data_base_to_ac_data", "Cannot allocate memory for AC data array");
    if (!of(client).bare)
        notify(client, "prov " + std::to_string(s.count) + " flags " + std::to_string(s.flags));
}

} // namespace torture
