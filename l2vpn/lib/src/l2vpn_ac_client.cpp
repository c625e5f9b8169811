/*
 * Connect and disconnect.
 *
 * A connect takes its steps in order, and one that fails undoes exactly those taken, in reverse. It holds
 * `api_lock` from the first to the last. A disconnect holds `cb_lock` instead: what keeps it from pulling a
 * client from under a running callback is the client's `busy`.
 */
#include "l2vpn_ac_class.h"
#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_global.h"
#include "l2vpn_ac_inbound.h"
#include "l2vpn_ac_lock.h"
#include "l2vpn_ac_state.h"

#include <cerrno>
#include <new>

/* --- message limits ---------------------------------------------------------------------------------- */

/*
 * Of the latest connect, for every client; that of two clients the second decides is intended. An MTU below
 * the header's length wraps to a huge room, and the limits keep the low 32 bits of its quotients.
 */
static void set_limits(uint32_t info_size)
{
    static constexpr uint64_t msti_root_share = 12; /* more than the record's 8; agreed with the receiver */
    l2vpn_ac_global &global = s_l2vpn_ac_global;
    const uint64_t room = uint64_t{global.mtu} - L2VPN_AC_HDR_LEN;

    const auto fit = [room](uint64_t size) { return static_cast<uint32_t>(room / size); };
    global.max_create = fit(info_size + L2VPN_AC_IFH_LEN + sizeof(l2vpn_ac_defn_t));
    global.max_msti_root = fit(msti_root_share);
    global.max_updt = fit(info_size + L2VPN_AC_IFH_LEN);
    global.max_mstp_req = fit(sizeof(l2vpn_mstp_req_t));
    global.max_vid_map = fit(sizeof(l2vpn_msti_vid_map_t));
    global.max_half = fit(2);
    global.max_del = fit(L2VPN_AC_IFH_LEN);
}

/* --- connect ----------------------------------------------------------------------------------------- */

namespace {

/* What a failed connect has to undo. Each includes the ones before. */
enum class taken : uint8_t { context, timer, tree_node, registration };

qerrno undo(l2vpn_ac_client_use &client, taken last, qerrno rc)
{
    if (last >= taken::registration)
        (void)l2vpn_ipc_class_deinit(s_l2vpn_ac_global.ipc_client, client->class_id, 0);
    if (last >= taken::tree_node)
        client.leave_tree();
    if (last >= taken::timer)
        mgd_timer_leaf_free(client->tmr_leaf);
    return rc; /* the context is freed by its last use */
}

} // namespace

static const char connect_name[] = "l2vpn_ac_process_connect_internal";

/* The client part of connect, for a context that has nothing yet and is idle. */
static qerrno connect_client(l2vpn_ac_client_use &client, l2vpn_ac_class_t class_id,
                             const l2vpn_ac_callback_vector_t *callbacks, l2vpn_ac_client_hd_t *hd)
{
    l2vpn_ac_global &global = s_l2vpn_ac_global;

    client->tmr_leaf =
        mgd_timer_leaf_new(global.tmr_tree, global.tmr_parent, nullptr, l2vpn_ac_connect_expire_fn);
    if (client->tmr_leaf == nullptr) {
        L2VPN_AC_DEBUG(connect_name, "Failed to alloc AC/MA client timer");
        return undo(client, taken::context, ENOMEM);
    }
    if (mgd_timer_leaf_set_addl_context(client->tmr_leaf, 0, client.get()) < 0) {
        const auto cause = static_cast<qerrno>(errno);
        L2VPN_AC_DEBUG(connect_name, "Failed to store context for leaf timer: %s", qerr_strerror(cause));
        return undo(client, taken::timer, ENOENT);
    }

    client->cbv = *callbacks;
    client->class_id = class_id;
    if (!client.enter_tree()) {
        L2VPN_AC_DEBUG(connect_name, "Failed to insert AC/MA client in wavl");
        return undo(client, taken::timer, EEXIST);
    }

    qerrno rc =
        l2vpn_ipc_class_init(global.ipc_client, class_id, global.nodeid.load(std::memory_order_relaxed),
                             l2vpn_ac_msg_cb, l2vpn_ac_evt_cb, nullptr, client.get());
    if (rc != EOK) {
        L2VPN_AC_DEBUG(connect_name, "Failed to init AC/MA class");
        return undo(client, taken::tree_node, rc);
    }
    rc = l2vpn_ipc_transport_mtu_get(global.ipc_client, class_id, &global.mtu);
    if (rc != EOK) {
        L2VPN_AC_DEBUG(connect_name, "Failed to get transport MTU: %s", qerr_strerror(rc));
        return undo(client, taken::registration, rc);
    }
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(class_id);
    if (row == nullptr) {
        L2VPN_AC_DEBUG(connect_name, "Unable to get info message size for class id %u", class_id);
        return undo(client, taken::registration, EINVAL);
    }
    set_limits(row->info_size);

    rc = l2vpn_ac_send_join(client.get());
    if (rc != EOK) {
        L2VPN_AC_DEBUG(connect_name, "Failed to unicast a JOIN MSG to L2VPN: %s", qerr_strerror(rc));
        return undo(client, taken::registration, rc);
    }

    l2vpn_ac_set_state(client.get(), L2VPN_AC_ST_JOINING);
    client->retry_secs.store(L2VPN_AC_RETRY_AFTER_CONNECT, std::memory_order_relaxed);
    *hd = client.get();
    rc = l2vpn_ac_activate_timer(client.get());
    L2VPN_AC_DEBUG(connect_name, "lib AC connect INIT: MTU=%d, max_create=%d, max_updt=%d, max_del=%d",
                   global.mtu, global.max_create, global.max_updt, global.max_del);
    return rc;
}

static qerrno l2vpn_ac_process_connect_internal(event_mgr_p evm, l2vpn_ac_class_t class_id,
                                                const l2vpn_ac_callback_vector_t *callbacks,
                                                l2vpn_ac_client_hd_t *hd, uint32_t nodeid)
{
    if (callbacks == nullptr || evm == nullptr || class_id >= L2VPN_AC_CLASS_MAX || hd == nullptr ||
        callbacks->status_cb == nullptr) {
        L2VPN_AC_TRACE(L2VPN_AC_TRACE_CONNECT_EXIT, connect_name, "%u", EINVAL);
        return EINVAL;
    }

    const l2vpn_ac_lock lock(s_l2vpn_ac_global.api_lock, connect_name);
    if (!l2vpn_ac_initialised()) {
        const qerrno rc = l2vpn_ac_lib_init(evm, nodeid);
        if (rc != EOK) {
            L2VPN_AC_TRACE(L2VPN_AC_TRACE_INIT_EXIT, connect_name, "%u", rc);
            return rc;
        }
    } else {
        L2VPN_AC_ASSERT(evm == s_l2vpn_ac_global.evm);
    }

    void *const memory = calloc_named(1, sizeof(l2vpn_ac_client_ctx), "L2VPN AC Client ctx");
    if (memory == nullptr) {
        L2VPN_AC_TRACE(L2VPN_AC_TRACE_CONNECT_EXIT, connect_name, "%u", __LINE__);
        return ENOMEM;
    }
    l2vpn_ac_client_use client(l2vpn_ac_client_use::first::use, new (memory) l2vpn_ac_client_ctx{});
    return connect_client(client, class_id, callbacks, hd);
}

qerrno l2vpn_ac_process_connect(event_mgr_p evm, uint32_t, l2vpn_ac_class_t class_id,
                                l2vpn_ac_callback_vector_t *callbacks, l2vpn_ac_client_hd_t *hd)
{
    return l2vpn_ac_process_connect_internal(evm, class_id, callbacks, hd, NODEID_INVALID);
}

qerrno l2vpn_ac_process_connect_nodeid(event_mgr_p evm, uint32_t, l2vpn_ac_class_t class_id,
                                       l2vpn_ac_callback_vector_t *callbacks, uint32_t nodeid,
                                       l2vpn_ac_client_hd_t *hd)
{
    if (nodeid == NODEID_INVALID)
        return EINVAL;
    return l2vpn_ac_process_connect_internal(evm, class_id, callbacks, hd, nodeid);
}

/* --- disconnect -------------------------------------------------------------------------------------- */

qerrno l2vpn_ac_process_disconnect(l2vpn_ac_client_hd_t hd)
{
    const l2vpn_ac_lock lock(s_l2vpn_ac_global.cb_lock, __func__);
    l2vpn_ac_client_use client(hd);
    if (!client)
        return EINVAL;

    /* First and for good, also when the disconnect is refused below: the stale pointer stays, and the
     * platform takes a freed leaf for what it is. */
    mgd_timer_leaf_free(client->tmr_leaf);

    if (client->busy != 0)
        return EDEADLK;
    const qerrno rc = l2vpn_ipc_class_deinit(s_l2vpn_ac_global.ipc_client, client->class_id, 0);
    if (rc != EOK)
        return rc;
    client.leave_tree();
    return EOK;
}
