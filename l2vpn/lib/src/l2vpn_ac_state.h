/*
 * The connection state of a client and its retry timer.
 *
 *   state     trigger                     next      actions
 *   --------  --------------------------  --------  ------------------------------------------------------
 *   (new)     connect sent JOIN           joining   timer started for 4 s
 *   joining   timer                       joining   JOIN sent; timer started for a second more
 *   joining   event connected             up        timer stopped; UP to the client
 *   idle, up  event connected             up        a running timer is left alone; UP to the client
 *   any       event disconnected          idle      timer stopped; DOWN to the client
 *   idle      timer, failed request       idle      nothing; the request returns its status
 *   joining   failed request              joining   timer started if not running
 *   up        failed request              up        timer started if not running; DOWN to the client
 *   up        timer, JOIN sent            up        UP to the client
 *   up        timer, JOIN not sent        up        timer started for a second more
 *   any       disconnected during JOIN    idle      the event's; the timer's function adds nothing
 *
 * Each start of the timer makes the next one a second longer, without a bound; a connection event, or a
 * JOIN that gets through while up, sets it back to one second. A failed request leaves the state at up: the
 * DOWN it gave is taken back by the UP of the next JOIN that gets through.
 *
 * Events come on the event manager's thread, with no lock held while they are delivered and `busy` set;
 * the timer's function and failed requests run under `api_lock`, without `busy`, so that a client may
 * disconnect from inside the notice. The context is not touched after such a notice.
 */
#ifndef L2VPN_AC_STATE_H
#define L2VPN_AC_STATE_H

#include "l2vpn_ac_global.h"

/* Seconds of the first start after connect, and after a connection event. */
inline constexpr uint32_t L2VPN_AC_RETRY_AFTER_CONNECT = 4;
inline constexpr uint32_t L2VPN_AC_RETRY_AFTER_EVENT = 1;

/* The class's event callback. The cookie is the client context. */
void l2vpn_ac_evt_cb(l2vpn_ipc_client_t client, uint32_t peer, uint32_t spare, l2vpn_ipc_evt_t event,
                     uint32_t event_arg, void *cookie);

/*
 * What every request calls after a failed send, and connect at its end; under `api_lock`.
 *
 * EOK     taken over: the timer runs, and a client that was up was told DOWN
 * EINVAL  no context
 * ENOENT  the client is idle, or has no timer
 */
qerrno l2vpn_ac_activate_timer(l2vpn_ac_client_ctx *ctx);

/* The function of a client's retry timer. */
void l2vpn_ac_connect_expire_fn(mgd_timer_leaf_t *leaf);

/* The event manager's handler that runs all expired timers. Takes no lock. */
void l2vpn_ac_tmr_expiry_handler(event_context_t *context, void *arg);

/* From here on the client is in this state. */
void l2vpn_ac_set_state(l2vpn_ac_client_ctx *ctx, uint16_t state);

/* Sends the JOIN message. */
qerrno l2vpn_ac_send_join(const l2vpn_ac_client_ctx *ctx);

#endif
