/*
 * Sending arrays of records: the marks of first and last message, the cut into messages, and what happens
 * when a send fails. The AC requests and the MSTP requests are both built on this.
 *
 * Everything here runs under `api_lock`.
 */
#ifndef L2VPN_AC_SEND_H
#define L2VPN_AC_SEND_H

#include "l2vpn_ac_global.h"

#include <cstddef>
#include <sys/uio.h>

/* How one kind of request marks the first and the last message of a batch. */
struct l2vpn_ac_marking {
    uint32_t start;
    uint32_t end;
    uint32_t *batch;       /* the library-wide flag of a batch that spans calls; null: there is none */
    bool start_first_only; /* the start mark is dropped after the first message */
    bool end_last_only;    /* a caller's end mark rides on the last message only */
};

/* One of the arrays that a request sends: `element` bytes a record, the first at `base`. */
struct l2vpn_ac_piece {
    std::byte *base;
    size_t element;
    bool narrow; /* the length of a message's share is a 32-bit product */
};

/* Where the platform delivers to the L2VPN process, wherever it runs. */
inline constexpr uint32_t L2VPN_AC_DESTINATION = 0xffffffff;

inline constexpr uint32_t L2VPN_AC_PIECES_MAX = 3;

struct l2vpn_ac_pieces {
    l2vpn_ac_piece piece[L2VPN_AC_PIECES_MAX];
    uint32_t count;
};

/*
 * Opens a request's marks: the flags word of its first message. A call made while no batch is open either
 * opens one, if the caller says so, or is a batch of its own, and is given the start mark; a call inside an
 * open batch goes out as the caller marked it.
 */
uint32_t l2vpn_ac_open_marks(const l2vpn_ac_marking &marking, uint32_t flags);

/* Closes the batch after the last message, if the caller said so. */
void l2vpn_ac_close_marks(const l2vpn_ac_marking &marking, uint32_t flags);

/* Sends one message that lies in `count` pieces. */
qerrno l2vpn_ac_send_pieces(const l2vpn_ac_client_ctx *ctx, const iovec *pieces, uint32_t count);

/* Sends a message that is the header alone, in host order here. */
qerrno l2vpn_ac_send_header(const l2vpn_ac_client_ctx *ctx, const l2vpn_ac_msg_hdr_t &hdr);

/*
 * Sends `count` records in messages of at most `limit` records, which is read for each. `flags` are the
 * caller's, `word` what l2vpn_ac_open_marks() made of them.
 *
 * The count is a signed one here: 2^31 and more send nothing. With a limit of 0 there is no progress:
 * messages without records go out until one fails.
 *
 * Returns the status of the first send that fails; what was sent stays sent.
 */
qerrno l2vpn_ac_send_records(const l2vpn_ac_client_ctx *ctx, uint32_t msg_type,
                             const l2vpn_ac_marking &marking, uint32_t flags, uint32_t word,
                             const uint32_t &limit, const l2vpn_ac_pieces &pieces, uint32_t count);

/* Hands a failed send to the retry logic: EOK when that has taken it over, else the send's status. */
qerrno l2vpn_ac_send_failed(l2vpn_ac_client_ctx *ctx, qerrno status);

#endif
