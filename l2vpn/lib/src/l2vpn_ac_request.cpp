/*
 * The three AC requests, a row each.
 */
#include "l2vpn_ac_bulk.h"
#include "l2vpn_ac_debug.h"
#include "probe.h"

#include <cerrno>

/* Non-zero while a create batch that a caller opened is open, for all clients; guarded by api_lock. */
static uint32_t s_ac_create_batch;

static constexpr l2vpn_ac_kind create_kind = {
    .function = "l2vpn_ac_create",
    .trace_id = L2VPN_AC_TRACE_CREATE,
    .msg_type = L2VPN_AC_MSG_CREATE,
    .marking = {.start = L2VPN_AC_FLAG_CREATE_START,
                .end = L2VPN_AC_FLAG_CREATE_END,
                .batch = &s_ac_create_batch,
                .start_first_only = true,
                .end_last_only = true},
    .limit = &l2vpn_ac_global::max_create,
    .has_defns = true,
    .has_infos = true,
    .empty = l2vpn_ac_empty::header_with_flags,
    .not_found = ENOENT,
    .not_found_text = "No such L2VPN AC client handle",
    .refused = EOK,
    .empty_failed_text = "Failed to unicast an empty CREATE to L2VPN:%s",
    .failed_text = "Failed to unicast a CREATE to L2VPN:%s",
};

static constexpr l2vpn_ac_kind update_kind = {
    .function = "l2vpn_ac_update",
    .trace_id = L2VPN_AC_TRACE_UPDATE,
    .msg_type = L2VPN_AC_MSG_UPDATE,
    .marking = {.start = L2VPN_AC_FLAG_UPDATE_START,
                .end = L2VPN_AC_FLAG_UPDATE_END,
                .batch = nullptr,
                .start_first_only = true,
                .end_last_only = false},
    .limit = &l2vpn_ac_global::max_updt,
    .has_defns = false,
    .has_infos = true,
    .empty = l2vpn_ac_empty::header_without_flags,
    .not_found = EINVAL,
    .not_found_text = nullptr,
    .refused = EOK,
    .empty_failed_text = "Failed to unicast an empty UPDATE to L2VPN:%s",
    .failed_text = "Failed to unicast a UPDATE to L2VPN:%s",
};

static constexpr l2vpn_ac_kind delete_kind = {
    .function = "l2vpn_ac_delete",
    .trace_id = L2VPN_AC_TRACE_DELETE,
    .msg_type = L2VPN_AC_MSG_DELETE,
    .marking = {.start = L2VPN_AC_FLAG_DELETE_START,
                .end = L2VPN_AC_FLAG_DELETE_END,
                .batch = nullptr,
                .start_first_only = true,
                .end_last_only = false},
    .limit = &l2vpn_ac_global::max_del,
    .has_defns = false,
    .has_infos = false,
    .empty = l2vpn_ac_empty::nothing,
    .not_found = EINVAL,
    .not_found_text = nullptr,
    .refused = EINVAL,
    .empty_failed_text = nullptr,
    .failed_text = "Failed to unicast a DELETE to L2VPN:%s",
};

/* A function of its own for each kind: what its probes tell is in registers anyway. */
template <const l2vpn_ac_kind &kind>
static qerrno request(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh,
                      l2vpn_ac_defn_t *defns, l2vpn_ac_info_t *infos)
{
    L2VPN_PROBE(l2vpn_ac, request__entry, kind.msg_type, hd, bulk_size, flags);
    const qerrno rc = l2vpn_ac_bulk_send(kind, hd, flags, bulk_size, ifh, defns, infos);
    L2VPN_PROBE(l2vpn_ac, request__return, kind.msg_type, rc);
    return rc;
}

qerrno l2vpn_ac_create(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh,
                       l2vpn_ac_defn_t *defns, l2vpn_ac_info_t *infos)
{
    return request<create_kind>(hd, flags, bulk_size, ifh, defns, infos);
}

qerrno l2vpn_ac_update(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh,
                       l2vpn_ac_info_t *infos)
{
    return request<update_kind>(hd, flags, bulk_size, ifh, nullptr, infos);
}

qerrno l2vpn_ac_delete(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh)
{
    return request<delete_kind>(hd, flags, bulk_size, ifh, nullptr, nullptr);
}
