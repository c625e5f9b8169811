#include "l2vpn_ac_state.h"

#include "l2vpn_ac_callback.h"
#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_delivery.h"
#include "l2vpn_ac_lock.h"
#include "l2vpn_ac_send.h"
#include "probe.h"

#include <cerrno>
#include <cstring>

static constexpr auto relaxed = std::memory_order_relaxed;

void l2vpn_ac_set_state(l2vpn_ac_client_ctx *ctx, uint16_t state)
{
    ctx->state.store(state, relaxed);
    L2VPN_PROBE(l2vpn_ac, state, ctx, ctx->class_id, uint32_t{state});
}

/* --- events ------------------------------------------------------------------------------------------ */

static void stop_timer(const l2vpn_ac_client_ctx *ctx)
{
    if (mgd_timer_leaf_running(ctx->tmr_leaf) != 0)
        mgd_timer_leaf_stop(ctx->tmr_leaf);
}

static void disconnected(l2vpn_ac_client_ctx *ctx, uint32_t event_arg)
{
    L2VPN_AC_DEBUG("l2vpn_ac_evt_cb", "Disconnected from L2VPN process");
    stop_timer(ctx);
    ctx->retry_secs.store(L2VPN_AC_RETRY_AFTER_EVENT, relaxed);
    l2vpn_ac_set_state(ctx, L2VPN_AC_ST_IDLE);
    l2vpn_ac_tell_status(ctx, L2VPN_AC_STATUS_DOWN, event_arg);
}

static void connected(l2vpn_ac_client_ctx *ctx, uint32_t event_arg)
{
    L2VPN_AC_DEBUG("l2vpn_ac_evt_cb", "Connected to L2VPN process");
    if (ctx->state.load(relaxed) == L2VPN_AC_ST_JOINING)
        stop_timer(ctx);
    l2vpn_ac_set_state(ctx, L2VPN_AC_ST_UP);
    ctx->retry_secs.store(L2VPN_AC_RETRY_AFTER_EVENT, relaxed);
    l2vpn_ac_tell_status(ctx, L2VPN_AC_STATUS_UP, event_arg);
}

void l2vpn_ac_evt_cb(l2vpn_ipc_client_t, uint32_t peer, uint32_t, l2vpn_ipc_evt_t event, uint32_t event_arg,
                     void *cookie)
{
    const l2vpn_ac_delivery client(__func__, cookie);
    if (!client)
        return;
    if (event != L2VPN_IPC_EVT_CONNECTED && event != L2VPN_IPC_EVT_DISCONNECTED)
        return;

    L2VPN_AC_TRACE(L2VPN_AC_TRACE_EVENT, __func__, "event %u node %u peer %u", event,
                   s_l2vpn_ac_global.nodeid.load(relaxed), peer);
    if (event == L2VPN_IPC_EVT_DISCONNECTED)
        disconnected(client.get(), event_arg);
    else
        connected(client.get(), event_arg);
}

/* --- retry timer ------------------------------------------------------------------------------------- */

static void start_timer(l2vpn_ac_client_ctx *ctx, const char *function)
{
    if (mgd_timer_leaf_running(ctx->tmr_leaf) != 0)
        return;
    const uint32_t seconds = ctx->retry_secs.fetch_add(1, relaxed);
    L2VPN_AC_DEBUG(function, "%s %d secs", function, seconds);
    L2VPN_PROBE(l2vpn_ac, retry, ctx, ctx->class_id, seconds);
    const timespec duration = {.tv_sec = static_cast<time_t>(seconds), .tv_nsec = 0};
    mgd_timer_leaf_start(ctx->tmr_leaf, &duration);
}

qerrno l2vpn_ac_activate_timer(l2vpn_ac_client_ctx *ctx)
{
    if (ctx == nullptr)
        return EINVAL;
    L2VPN_AC_DEBUG(__func__, "%s", __func__);

    if (ctx->state.load(relaxed) == L2VPN_AC_ST_IDLE || ctx->tmr_leaf == nullptr)
        return ENOENT;
    start_timer(ctx, __func__);

    if (ctx->state.load(relaxed) == L2VPN_AC_ST_UP) {
        l2vpn_ac_tell_status(ctx, L2VPN_AC_STATUS_DOWN, 0);
        L2VPN_AC_DEBUG(__func__, "%s send down to client", __func__);
    }
    return EOK;
}

void l2vpn_ac_connect_expire_fn(mgd_timer_leaf_t *leaf)
{
    const void *const handle = mgd_timer_leaf_get_addl_context(leaf, 0);
    const l2vpn_ac_lock lock(s_l2vpn_ac_global.api_lock, __func__);
    const l2vpn_ac_client_use client(handle);
    if (!client || client->state.load(relaxed) == L2VPN_AC_ST_IDLE)
        return;

    const bool sent = l2vpn_ac_send_join(client.get()) == EOK;

    /* A disconnect event may have come meanwhile; it has said DOWN, and nothing is left to retry. */
    const uint16_t state = client->state.load(relaxed);
    if (state == L2VPN_AC_ST_IDLE)
        return;
    if (sent && state == L2VPN_AC_ST_UP) {
        L2VPN_AC_DEBUG(__func__, "%s send UP to client", __func__);
        client->retry_secs.store(L2VPN_AC_RETRY_AFTER_EVENT, relaxed);
        l2vpn_ac_tell_status(client.get(), L2VPN_AC_STATUS_UP, 0);
        return;
    }
    start_timer(client.get(), __func__);
}

void l2vpn_ac_tmr_expiry_handler(event_context_t *, void *)
{
    if (!l2vpn_ac_initialised())
        return;
    while (mgd_timer_leaf_t *const leaf = mgd_timer_tree_first_expired(s_l2vpn_ac_global.tmr_tree)) {
        mgd_timer_leaf_stop(leaf);
        const mgd_timer_fn_t fn = mgd_timer_leaf_get_context(leaf);
        L2VPN_AC_ASSERT(fn != NULL); // NOLINT(modernize-use-nullptr): the text that people search for
        fn(leaf);
    }
}

/* --- JOIN -------------------------------------------------------------------------------------------- */

qerrno l2vpn_ac_send_join(const l2vpn_ac_client_ctx *ctx)
{
    static constexpr uint8_t join[L2VPN_AC_HDR_LEN] = {0, 0, 0, L2VPN_AC_HDR_MARK};
    static_assert(L2VPN_AC_MSG_JOIN == 0);

    alignas(l2vpn_ac_msg_hdr_t) uint8_t message[L2VPN_AC_HDR_LEN];
    std::memcpy(message, join, sizeof message);
    const qerrno rc = l2vpn_ipc_ucast(s_l2vpn_ac_global.ipc_client, ctx->class_id, L2VPN_AC_DESTINATION,
                                      message, sizeof message, 0);
    L2VPN_PROBE(l2vpn_ac, join, ctx, ctx->class_id, rc);
    return rc;
}
