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

/* Every field of the records, each where only its type fits. */
static const l2vpn_ac_defn_t defn = {.opaque = {1},
                                     .word = 2,
                                     .word2 = 3,
                                     .word3 = 4,
                                     .by_class = {.half = {5, 6}},
                                     .by_class2 = {.half = 7},
                                     .opaque2 = {8},
                                     .word4 = 9,
                                     .word5 = 10};
static const l2vpn_ac_info_t infos[] = {
    {.words = {1, 2, 3, 4}, .by_class.class0 = {.octets = {5, 6}, .half = 7}},
    {.by_class.class2 = {.half = 1, .half2 = 2}},
    {.by_class.class6 = {.half = 1,
                         .octets = {2, 3},
                         .word = 4,
                         .bit_a = 1,
                         .bit_b = 0,
                         .bit_c = 1,
                         .bit_d = 0,
                         .bits_e = 2,
                         .bits_f = 3,
                         .octet = 5,
                         .half2 = 6,
                         .word2 = 7,
                         .word3 = 8,
                         .octets2 = {9},
                         .quad = 10,
                         .opaque = {11},
                         .quad2 = 12,
                         .opaque2 = {13},
                         .word4 = 14}},
    {.by_class.class7 = {.opaque = {1}, .word = 2, .opaque2 = {3}, .words = {4, 5, 6, 7}}},
    {.by_class.class8 = {.opaque = {1}}},
    {.by_class.class11 = {.word = 1, .word2 = 2}},
};
static const l2vpn_ac_xcid_data_t data[] = {
    {.words = {1, 2, 3, 4, 5, 6, 7}, .by_class.class0 = {.half = 8}},
    {.by_class.class2 = {.half = 1, .half2 = 2}},
    {.by_class.class8 = {.opaque = {1},
                         .word = 2,
                         .opaque2 = {3},
                         .words = {4, 5, 6, 7},
                         .word2 = 8,
                         .octets = {9},
                         .words2 = {10, 11, 12, 13},
                         .word3 = 14,
                         .word4 = 15}},
    {.by_class.class11 = {1}},
};
static const l2vpn_ac_bulk_notify_t notice = {
    .word = 1, .half = 2, .octets = {3, 4}, .words = {5, 6, 7, 8}, .opaque = {9}, .word2 = 10};

static qerrno on_unprov(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, uint32_t flags)
{
    (void)hd;
    return bulk > 0 && ifh[0] == flags ? EOK : 22;
}

static qerrno on_bulk_notify(l2vpn_ac_client_hd_t hd, uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                             uint32_t flags)
{
    (void)hd;
    return bulk > 0 && records[0].word == notice.word && (flags & L2VPN_AC_FLAG_NOTICE) != 0 ? EOK : 22;
}

static qerrno on_hdr_notify(l2vpn_ac_client_hd_t hd, uint32_t word2, void *null, uint32_t word3)
{
    (void)hd;
    return null == NULL && word2 == word3 ? EOK : 22;
}

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
    l2vpn_ac_callback_vector_t callbacks = {.status_cb = on_status,
                                            .prov_cb = on_prov,
                                            .unprov_cb = on_unprov,
                                            .bulk_notify_cb = on_bulk_notify,
                                            .hdr_notify_cb = on_hdr_notify,
                                            .reserved5 = NULL,
                                            .reserved6 = NULL};
    if (hdr.mark != 3 || req.tail[0] != 10 || root.half != 2 || entry.half2 != 2 || prot.word != 3 ||
        callbacks.reserved6 != NULL || defn.by_class2.half != 7 || infos[2].by_class.class6.bits_f != 3 ||
        data[2].by_class.class8.word4 != 15 || notice.word2 != 10)
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
