/* A C program against the public headers: every name that is promised, in a place where only its type fits. */
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/platform.h>

#include <stddef.h>
#include <string.h>

static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t arg)
{
    (void)hd;
    (void)arg;
    return status == L2VPN_AC_STATUS_UP || status == L2VPN_AC_STATUS_DOWN || status == L2VPN_AC_STATUS_FLAG
               ? EOK
               : 22;
}

static qerrno on_prov(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *data,
                      uint32_t flags)
{
    (void)hd;
    (void)flags;
    return bulk > 0 && ifh[0] == data[0].words[0] ? EOK : 22;
}

static const uint32_t types[] = {L2VPN_AC_MSG_JOIN,        L2VPN_AC_MSG_CREATE,    L2VPN_AC_MSG_UPDATE,
                                 L2VPN_AC_MSG_DELETE,      L2VPN_AC_MSG_PROV,      L2VPN_AC_MSG_UNPROV,
                                 L2VPN_MSTP_MSG_VID_MAP,   L2VPN_MSTP_MSG_STATE,   L2VPN_MSTP_MSG_PROTECTED,
                                 L2VPN_AC_MSG_BULK_NOTIFY, L2VPN_MSTP_MSG_IS_ROOT, L2VPN_AC_MSG_HDR_NOTIFY,
                                 L2VPN_AC_MSG_TYPE_MAX};
static const uint32_t codes[] = {0, 2, 3, 6, 7, 8, 9, 11, 12, 13, 14, 15, 17};

_Static_assert(L2VPN_AC_HDR_MARK == 3 && L2VPN_AC_HDR_LEN == 16, "header");
_Static_assert(L2VPN_AC_FLAG_CREATE_START == 0x1 && L2VPN_AC_FLAG_CREATE_END == 0x2, "create marks");
_Static_assert(L2VPN_AC_FLAG_UPDATE_START == 0x4 && L2VPN_AC_FLAG_UPDATE_END == 0x8, "update marks");
_Static_assert(L2VPN_AC_FLAG_DELETE_START == 0x10 && L2VPN_AC_FLAG_DELETE_END == 0x20, "delete marks");
_Static_assert(L2VPN_MSTP_FLAG_BEGIN == 0x1 && L2VPN_MSTP_FLAG_END == 0x2, "MSTP marks");
_Static_assert(L2VPN_AC_STATUS_DOWN == 0 && L2VPN_AC_STATUS_UP == 1 && L2VPN_AC_STATUS_FLAG == 3, "statuses");
_Static_assert(L2VPN_AC_ST_IDLE == 0 && L2VPN_AC_ST_JOINING == 1 && L2VPN_AC_ST_UP == 2, "states");
_Static_assert(L2VPN_IPC_EVT_CONNECTED == 0 && L2VPN_IPC_EVT_DISCONNECTED == 1, "events");

_Static_assert(sizeof(l2vpn_ac_info_t) == 2360 && _Alignof(l2vpn_ac_info_t) == 8, "info");
_Static_assert(sizeof(l2vpn_ac_defn_t) == 616, "definition");
_Static_assert(sizeof(l2vpn_ac_xcid_data_t) == 2676, "AC data");
_Static_assert(sizeof(l2vpn_ac_bulk_notify_t) == 32, "bulk notice");
_Static_assert(sizeof(l2vpn_msti_root_t) == 8, "root");
_Static_assert(sizeof(l2vpn_mstp_req_t) == 96, "port request");
_Static_assert(sizeof(l2vpn_msti_vid_map_t) == 4, "map");
_Static_assert(sizeof(l2vpn_mstp_prot_t) == 72, "protection");

int main(void)
{
    if (memcmp(types, codes, sizeof types) != 0)
        return 1;

    l2vpn_ac_msg_hdr_t hdr = {.mark = 3, .msg_type = 0, .bulk = 0, .flags = 0};
    l2vpn_mstp_req_t req = {.word = 1,
                            .half = 2,
                            .octets = {3, 4},
                            .word2 = 5,
                            .word3 = 6,
                            .half2 = 7,
                            .opaque = {8},
                            .word4 = 9,
                            .tail = {10}};
    l2vpn_msti_root_t root = {.word = 1, .half = 2, .octets = {3, 4}};
    l2vpn_msti_vid_map_t entry = {.half = 1, .half2 = 2};
    l2vpn_mstp_prot_t prot = {.opaque = {1}, .tail = {2}, .word = 3};
    l2vpn_ac_callback_vector_t callbacks = {.status_cb = on_status, .prov_cb = on_prov};
    if (hdr.mark != 3 || req.tail[0] != 10 || root.half != 2 || entry.half2 != 2 || prot.word != 3 ||
        callbacks.reserved6 != NULL)
        return 2;

    /* No client is connected: every function says so, from C. */
    l2vpn_ac_client_hd_t hd = NULL;
    event_mgr_p evm = NULL;
    if (l2vpn_ac_process_connect(evm, 0, 4, &callbacks, &hd) != 22 ||
        l2vpn_ac_process_connect_nodeid(evm, 0, 4, &callbacks, NODEID_INVALID, &hd) != 22 ||
        l2vpn_ac_process_disconnect(hd) != 22 || l2vpn_ac_create(hd, 0, 0, NULL, NULL, NULL) != 2 ||
        l2vpn_ac_update(hd, 0, 0, NULL, NULL) != 22 || l2vpn_ac_delete(hd, 0, 0, NULL) != 22 ||
        l2vpn_mstp_root(hd, 0, &root, 1) != 22 || l2vpn_mstp_port_request(hd, 0, &req, 1) != 22 ||
        l2vpn_msti_vid_map(hd, 0, &entry, 1) != 22 || l2vpn_mstp_protect(hd, 0, &prot) != 22)
        return 3;
    return 0;
}
