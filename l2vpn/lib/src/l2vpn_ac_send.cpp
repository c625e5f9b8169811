#include "l2vpn_ac_send.h"

#include "l2vpn_ac_state.h"
#include "l2vpn_ac_wire.h"

#include <sys/uio.h>

/* --- marks ------------------------------------------------------------------------------------------- */

uint32_t l2vpn_ac_open_marks(const l2vpn_ac_marking &marking, uint32_t flags)
{
    if (marking.batch == nullptr)
        return flags | marking.start;
    if (*marking.batch != 0)
        return flags;
    *marking.batch = flags & marking.start;
    return flags | marking.start;
}

void l2vpn_ac_close_marks(const l2vpn_ac_marking &marking, uint32_t flags)
{
    if (marking.batch != nullptr && (flags & marking.end) != 0)
        *marking.batch = 0;
}

static uint32_t mark_message(const l2vpn_ac_marking &marking, uint32_t flags, uint32_t word, bool last)
{
    if (!last)
        return marking.end_last_only ? word & ~marking.end : word;
    const bool in_batch = marking.batch != nullptr && *marking.batch != 0;
    return word | (in_batch ? flags & marking.end : marking.end);
}

/* --- messages ---------------------------------------------------------------------------------------- */

qerrno l2vpn_ac_send_pieces(const l2vpn_ac_client_ctx *ctx, const iovec *pieces, uint32_t count)
{
    return l2vpn_ipc_ucastv(s_l2vpn_ac_global.ipc_client, ctx->class_id, L2VPN_AC_DESTINATION, pieces, count,
                            0);
}

qerrno l2vpn_ac_send_header(const l2vpn_ac_client_ctx *ctx, const l2vpn_ac_msg_hdr_t &hdr)
{
    l2vpn_ac_msg_hdr_t wire = hdr;
    l2vpn_ac_convert_hdr(&wire);
    const iovec piece = {&wire, sizeof wire};
    return l2vpn_ac_send_pieces(ctx, &piece, 1);
}

qerrno l2vpn_ac_send_records(const l2vpn_ac_client_ctx *ctx, uint32_t msg_type,
                             const l2vpn_ac_marking &marking, uint32_t flags, uint32_t word,
                             const uint32_t &limit, const l2vpn_ac_pieces &pieces, uint32_t count)
{
    uint32_t remaining = count;
    size_t done = 0;

    while (static_cast<int32_t>(remaining) > 0) {
        const bool last = remaining <= limit;
        const uint32_t n = last ? remaining : limit;
        word = mark_message(marking, flags, word, last);

        l2vpn_ac_msg_hdr_t wire = {L2VPN_AC_HDR_MARK, msg_type, n, word};
        l2vpn_ac_convert_hdr(&wire);

        iovec list[1 + L2VPN_AC_PIECES_MAX];
        list[0] = {&wire, sizeof wire};
        for (uint32_t i = 0; i < pieces.count; ++i) {
            const l2vpn_ac_piece &piece = pieces.piece[i];
            const size_t length = piece.narrow ? n * static_cast<uint32_t>(piece.element) : n * piece.element;
            list[1 + i] = {piece.base + done * piece.element, length};
        }

        const qerrno rc = l2vpn_ac_send_pieces(ctx, list, 1 + pieces.count);
        if (rc != EOK)
            return rc;

        if (marking.start_first_only)
            word &= ~marking.start;
        done += n;
        remaining -= n;
    }
    return EOK;
}

qerrno l2vpn_ac_send_failed(l2vpn_ac_client_ctx *ctx, qerrno status)
{
    return l2vpn_ac_activate_timer(ctx) == EOK ? EOK : status;
}
