/*
 * The MSTP requests. Three of them send arrays and are rows of one procedure; protect sends one record.
 *
 * The caller's array is sent from where it lies: it is in network byte order from the conversion until after
 * the unlock, and restored on every path that converted it. Odd on purpose:
 *
 *   - The start mark of a call stays on all its messages, unlike that of the AC requests.
 *   - A call without records reports its failed send itself; the retry logic does not hear of it.
 *   - The log line of a port request lacks the leading blank of the other three.
 *   - A failed send that the retry logic took over is logged with the text of its status, not of success.
 *   - Protect reports no failed send, and never writes its header's `bulk`.
 */
#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_lock.h"
#include "l2vpn_ac_send.h"
#include "l2vpn_ac_wire.h"
#include "probe.h"

#include <cerrno>
#include <sys/uio.h>

/* Non-zero while a batch that a caller opened is open, for all clients; guarded by api_lock. */
static uint32_t s_mstp_is_root_batch;
static uint32_t s_mstp_state_batch;
static uint32_t s_mstp_vid_map_batch;

namespace {

struct mstp_kind {
    const char *function;             /* the public request */
    uint32_t trace_id;                /* of its entry */
    uint32_t msg_type;                /* of its messages */
    const char *called_text;          /* logged when it begins */
    l2vpn_ac_marking marking;         /* of its first and last message */
    uint32_t l2vpn_ac_global::*limit; /* records in one message */
    size_t record_size;
    void (*convert)(std::byte *records, size_t count); /* in place, to the wire or back */
};

constexpr l2vpn_ac_marking mstp_marking(uint32_t *batch)
{
    return {.start = L2VPN_MSTP_FLAG_BEGIN,
            .end = L2VPN_MSTP_FLAG_END,
            .batch = batch,
            .start_first_only = false,
            .end_last_only = true};
}

constexpr mstp_kind root_kind = {
    .function = "l2vpn_mstp_root",
    .trace_id = L2VPN_AC_TRACE_MSTP_ROOT,
    .msg_type = L2VPN_MSTP_MSG_IS_ROOT,
    .called_text = " Called for L2VPN_MSTP_MSG_IS_ROOT",
    .marking = mstp_marking(&s_mstp_is_root_batch),
    .limit = &l2vpn_ac_global::max_msti_root,
    .record_size = sizeof(l2vpn_msti_root_t),
    .convert = l2vpn_ac_convert_records<l2vpn_ac_program<u32(0), u16(4)>, sizeof(l2vpn_msti_root_t)>,
};

constexpr mstp_kind port_request_kind = {
    .function = "l2vpn_mstp_port_request",
    .trace_id = L2VPN_AC_TRACE_MSTP_PORT_REQUEST,
    .msg_type = L2VPN_MSTP_MSG_STATE,
    .called_text = "Called for L2VPN_MSTP_MSG_STATE",
    .marking = mstp_marking(&s_mstp_state_batch),
    .limit = &l2vpn_ac_global::max_mstp_req,
    .record_size = sizeof(l2vpn_mstp_req_t),
    .convert = l2vpn_ac_convert_records<l2vpn_ac_program<u32(0), u16(4), u32(8), u32(12), u16(16), u32(88)>,
                                        sizeof(l2vpn_mstp_req_t)>,
};

constexpr mstp_kind vid_map_kind = {
    .function = "l2vpn_msti_vid_map",
    .trace_id = L2VPN_AC_TRACE_MSTI_VID_MAP,
    .msg_type = L2VPN_MSTP_MSG_VID_MAP,
    .called_text = " Called for L2VPN_MSTP_MSG_VID_MAP",
    .marking = mstp_marking(&s_mstp_vid_map_batch),
    .limit = &l2vpn_ac_global::max_vid_map,
    .record_size = sizeof(l2vpn_msti_vid_map_t),
    .convert = l2vpn_ac_convert_records<l2vpn_ac_program<u16(0), u16(2)>, sizeof(l2vpn_msti_vid_map_t)>,
};

qerrno send_empty(const mstp_kind &kind, const l2vpn_ac_client_ctx *ctx, uint32_t flags, l2vpn_ac_lock &lock)
{
    const qerrno rc = l2vpn_ac_send_header(ctx, {L2VPN_AC_HDR_MARK, kind.msg_type, 0, flags});
    *kind.marking.batch = 0;
    lock.unlock();
    if (rc != EOK)
        l2vpn_ac_report_failed_send(kind.function, __LINE__, rc);
    return rc;
}

qerrno send_records(const mstp_kind &kind, l2vpn_ac_client_ctx *ctx, uint32_t flags, void *records,
                    uint32_t count, l2vpn_ac_lock &lock)
{
    const uint32_t word = l2vpn_ac_open_marks(kind.marking, flags);
    auto *const bytes = static_cast<std::byte *>(records);
    const l2vpn_ac_pieces pieces = {{{bytes, kind.record_size, false}}, 1};

    kind.convert(bytes, count);
    const qerrno status = l2vpn_ac_send_records(ctx, kind.msg_type, kind.marking, flags, word,
                                                s_l2vpn_ac_global.*kind.limit, pieces, count);
    qerrno rc = EOK;
    if (status == EOK)
        l2vpn_ac_close_marks(kind.marking, flags);
    else
        rc = l2vpn_ac_send_failed(ctx, status);
    lock.unlock();

    if (status != EOK)
        l2vpn_ac_report_failed_send(kind.function, __LINE__, status);
    kind.convert(bytes, count);
    return rc;
}

qerrno send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, uint32_t flags, void *records, uint32_t count)
{
    L2VPN_AC_TRACE(kind.trace_id, kind.function, "%p 0x%x %u", static_cast<void *>(hd), flags, count);

    l2vpn_ac_lock lock(s_l2vpn_ac_global.api_lock, kind.function);
    const l2vpn_ac_client_use client(hd);
    if (!client || (count > 0 && records == nullptr))
        return EINVAL;
    L2VPN_AC_DEBUG(kind.function, "%s", kind.called_text);
    return count == 0 ? send_empty(kind, client.get(), flags, lock)
                      : send_records(kind, client.get(), flags, records, count, lock);
}

qerrno mstp_send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, uint32_t flags, void *records,
                 uint32_t count)
{
    L2VPN_PROBE(l2vpn_ac, request__entry, kind.msg_type, hd, count, flags);
    const qerrno rc = send(kind, hd, flags, records, count);
    L2VPN_PROBE(l2vpn_ac, request__return, kind.msg_type, rc);
    return rc;
}

} // namespace

qerrno l2vpn_mstp_root(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_msti_root_t *roots, uint32_t count)
{
    return mstp_send(root_kind, hd, flags, roots, count);
}

qerrno l2vpn_mstp_port_request(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_mstp_req_t *reqs,
                               uint32_t count)
{
    return mstp_send(port_request_kind, hd, flags, reqs, count);
}

qerrno l2vpn_msti_vid_map(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_msti_vid_map_t *map, uint32_t count)
{
    return mstp_send(vid_map_kind, hd, flags, map, count);
}

qerrno l2vpn_mstp_protect(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_mstp_prot_t *prot)
{
    L2VPN_PROBE(l2vpn_ac, request__entry, L2VPN_MSTP_MSG_PROTECTED, hd, uint32_t{1}, flags);
    L2VPN_AC_TRACE(L2VPN_AC_TRACE_MSTP_PROTECT, __func__, "%p 0x%x", static_cast<void *>(hd), flags);

    const l2vpn_ac_lock lock(s_l2vpn_ac_global.api_lock, __func__);
    const l2vpn_ac_client_use client(hd);
    if (!client) {
        L2VPN_PROBE(l2vpn_ac, request__return, L2VPN_MSTP_MSG_PROTECTED, qerrno{EINVAL});
        return EINVAL;
    }

    /* Static, under the lock: `bulk` is never written, and never leaks what a stack held. */
    static l2vpn_ac_msg_hdr_t hdr;
    hdr.mark = l2vpn_ac_convert(uint32_t{L2VPN_AC_HDR_MARK});
    hdr.msg_type = l2vpn_ac_convert(uint32_t{L2VPN_MSTP_MSG_PROTECTED});
    hdr.flags = l2vpn_ac_convert(flags);
    L2VPN_AC_DEBUG(__func__, " Called for L2VPN_MSTP_MSG_PROTECTED");

    l2vpn_mstp_prot_t copy = *prot;
    copy.word = l2vpn_ac_convert(copy.word);
    const iovec pieces[] = {{&hdr, sizeof hdr}, {&copy, sizeof copy}};
    (void)l2vpn_ac_send_pieces(client.get(), pieces, 2);
    L2VPN_PROBE(l2vpn_ac, request__return, L2VPN_MSTP_MSG_PROTECTED, qerrno{EOK});
    return EOK;
}
