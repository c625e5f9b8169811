/*
 * Calling an owner, with the probes around it. What a callback returns is for the probe alone.
 */
#ifndef L2VPN_AC_CALLBACK_H
#define L2VPN_AC_CALLBACK_H

#include "l2vpn_ac_global.h"
#include "probe.h"

/*
 * Calls `function`, which is not null; `which` is the type of the message that it is told of, L2VPN_AC_MSG_JOIN
 * for status_cb. The callback may be the end of the context.
 */
template <uint32_t which, typename... Types, typename... Values>
[[gnu::always_inline]] inline void l2vpn_ac_call(l2vpn_ac_client_ctx *ctx,
                                                 qerrno (*function)(l2vpn_ac_client_hd_t, uint32_t, Types...),
                                                 uint32_t first, Values... values)
{
    L2VPN_PROBE(l2vpn_ac, callback__entry, which, ctx, ctx->class_id, first);
    [[maybe_unused]] const qerrno rc = function(ctx, first, values...);
    L2VPN_PROBE(l2vpn_ac, callback__return, which, rc);
}

inline void l2vpn_ac_tell_status(l2vpn_ac_client_ctx *ctx, uint32_t status, uint32_t argument)
{
    l2vpn_ac_call<L2VPN_AC_MSG_JOIN>(ctx, ctx->cbv.status_cb, status, argument);
}

#endif
