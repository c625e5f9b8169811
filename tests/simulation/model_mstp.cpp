/*
 * The MSTP requests: three that send arrays, and protection.
 */
#include "model.h"

namespace simulation {

namespace {

constexpr std::uint32_t begin_bit = 1;
constexpr std::uint32_t end_bit = 2;
constexpr std::uint64_t record_of_failed_send = std::uint64_t{2} << 32;

struct mstp_kind {
    const char *where;
    const char *called;
    std::uint64_t trace;
    std::uint32_t type;
    std::size_t size;
};

const mstp_kind &mstp_kind_of(op what)
{
    static const mstp_kind root = {"l2vpn_mstp_root", " Called for L2VPN_MSTP_MSG_IS_ROOT", 1083, 14,
                                   root_size};
    static const mstp_kind port = {"l2vpn_mstp_port_request", "Called for L2VPN_MSTP_MSG_STATE", 1084, 11,
                                   port_size};
    static const mstp_kind vid = {"l2vpn_msti_vid_map", " Called for L2VPN_MSTP_MSG_VID_MAP", 1085, 9,
                                  vid_size};
    return what == op::root ? root : what == op::port_request ? port : vid;
}

} // namespace

std::uint32_t model::mstp_request(const step &what, const settled &call, std::size_t number)
{
    const mstp_kind &kind = mstp_kind_of(call.what);
    const std::uint32_t limit = call.what == op::root           ? max_root_
                                : call.what == op::port_request ? max_port_
                                                                : max_vid_;
    std::uint32_t &batch = mstp_batch_[call.what];
    platform_.say({"gen_dbg_ltrace_ctx", {kind.trace}, kind.where});

    const client_ptr from = find(call.handle);
    if (from == nullptr) {
        hit(initialised() ? feature::request_unknown : feature::request_uninitialised);
        return einval;
    }
    if (call.count > 0 && (what.variant & null_first) != 0) {
        hit(feature::request_null_array);
        return einval;
    }
    platform_.debug(kind.where, kind.called);
    const auto not_sent = [&](std::uint32_t status) {
        platform_.report(kind.where, "Failed to unicast: " + text_of(status), record_of_failed_send, "%u%u");
    };

    if (call.count == 0) {
        hit(feature::request_empty);
        const std::uint32_t status = send(*from, kind.type, what.flags, {}, 0, 0);
        if (batch != 0)
            hit(feature::mstp_batch_closed_empty);
        batch = 0;
        if (status != 0) {
            hit(feature::request_empty_failed);
            not_sent(status);
        }
        return status;
    }

    std::uint32_t word = what.flags;
    if (batch != 0) {
        hit(feature::mstp_in_batch);
    } else {
        batch = what.flags & begin_bit;
        if (batch != 0)
            hit(feature::mstp_batch_opened);
        word |= begin_bit;
    }
    bytes records = call.given->first;
    turn_mstp(kind.type, records);
    const std::vector<piece> pieces = {{records, kind.size, array_number(number, 0)}};
    if (limit == 0)
        hit(feature::limit_of_zero);
    hit(call.count == limit  ? feature::request_exact
        : call.count < limit ? feature::request_whole
                             : feature::request_cut);

    std::uint32_t remaining = call.count;
    std::uint32_t status = 0;
    while (remaining > 0 && status == 0) {
        const bool last = remaining <= limit;
        const std::uint32_t n = last ? remaining : limit;
        if (!last)
            word &= ~end_bit;
        else if (batch == 0)
            word |= end_bit;
        else /* the caller's own; cleared on an earlier message it is set again */
            word |= what.flags & end_bit;
        status = send(*from, kind.type, word, pieces, call.count - remaining, n);
        if (status == 0)
            remaining -= n;
        if (mistaken(fault::mstp_begin_once))
            word &= ~begin_bit;
    }
    if (status == 0) {
        if ((what.flags & end_bit) != 0) {
            if (batch != 0)
                hit(feature::mstp_batch_closed);
            batch = 0;
        }
        return 0;
    }
    if (remaining < call.count)
        hit(feature::request_failed_midway);
    const std::uint32_t result = failed_send(from, status);
    not_sent(status);
    return result;
}

std::uint32_t model::protect(const step &what, const settled &call)
{
    static const std::string where = "l2vpn_mstp_protect";
    platform_.say({"gen_dbg_ltrace_ctx", {1086}, where});
    const client_ptr from = find(call.handle);
    if (from == nullptr) {
        hit(initialised() ? feature::request_unknown : feature::request_uninitialised);
        return einval;
    }
    platform_.debug(where, " Called for L2VPN_MSTP_MSG_PROTECTED");
    bytes record = call.given->first;
    turn_mstp(12, record);
    bytes message = header_of(12, 0, what.flags); /* `bulk` is never written */
    message.insert(message.end(), record.begin(), record.end());
    if (platform_.ucastv(from->class_id, message, {header_size, prot_size}, {0, 0}) != 0)
        hit(feature::protect_failed);
    return 0;
}

} // namespace simulation
