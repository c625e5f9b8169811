/*
 * The bulk procedure under create, update and delete. A kind of request is a row; where two kinds differ the
 * row says so.
 */
#ifndef L2VPN_AC_BULK_H
#define L2VPN_AC_BULK_H

#include "l2vpn_ac_send.h"

/* What a kind sends for a request without ACs. */
enum class l2vpn_ac_empty : uint8_t {
    nothing,
    header_without_flags,
    header_with_flags, /* and the batch is closed */
};

struct l2vpn_ac_kind {
    const char *function;             /* the public request */
    uint32_t trace_id;                /* of its entry */
    uint32_t msg_type;                /* of its messages */
    l2vpn_ac_marking marking;         /* of its first and last message */
    uint32_t l2vpn_ac_global::*limit; /* ACs in one message */
    bool has_defns;
    bool has_infos;
    l2vpn_ac_empty empty;
    qerrno not_found;           /* for a handle that is no client's */
    const char *not_found_text; /* logged then; null: nothing is */
    qerrno refused;             /* when the platform's check refuses; EOK: the check's own status */
    const char *empty_failed_text;
    const char *failed_text;
};

/*
 * Runs a request of `kind` with the arguments of the public function; `defns` and `infos` are null where the
 * kind has none. Returns what the public function returns.
 */
qerrno l2vpn_ac_bulk_send(const l2vpn_ac_kind &kind, l2vpn_ac_client_hd_t hd, uint32_t flags,
                          uint32_t bulk_size, ifhtype *ifh, l2vpn_ac_defn_t *defns, l2vpn_ac_info_t *infos);

#endif
