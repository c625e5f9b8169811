/*
 * The messages between the library and the L2VPN process: header, type codes, flags.
 *
 * Every message begins with a 16-byte header of four 32-bit words. On the wire all multi-byte fields are in
 * network byte order; single bytes and byte strings travel as they are.
 */
#ifndef L2VPN_AC_MSG_H
#define L2VPN_AC_MSG_H

#include <l2vpn/l2vpn_ac_compiler.h>
#include <stddef.h>
#include <stdint.h>

/* The header, its words in the byte order that the context says. */
typedef struct l2vpn_ac_msg_hdr {
    uint32_t mark;     /* L2VPN_AC_HDR_MARK in every message of the library; not looked at on reception */
    uint32_t msg_type; /* L2VPN_AC_MSG_*, L2VPN_MSTP_MSG_* */
    uint32_t bulk;     /* number of records that follow */
    uint32_t flags;    /* the request's flags, see below */
} l2vpn_ac_msg_hdr_t;

#define L2VPN_AC_HDR_MARK 3u
#define L2VPN_AC_HDR_LEN 16u

L2VPN_AC_STATIC_ASSERT(sizeof(l2vpn_ac_msg_hdr_t) == L2VPN_AC_HDR_LEN, "four words, no padding");
L2VPN_AC_STATIC_ASSERT(offsetof(l2vpn_ac_msg_hdr_t, msg_type) == 4, "second word");
L2VPN_AC_STATIC_ASSERT(offsetof(l2vpn_ac_msg_hdr_t, bulk) == 8, "third word");
L2VPN_AC_STATIC_ASSERT(offsetof(l2vpn_ac_msg_hdr_t, flags) == 12, "fourth word");

/* Message types. Codes 1, 4, 5, 10 and 16 are neither sent nor handled. */
#define L2VPN_AC_MSG_JOIN 0u         /* to the process: header alone, all of it 0 but the mark */
#define L2VPN_AC_MSG_CREATE 2u       /* to the process: handles, definitions, info messages */
#define L2VPN_AC_MSG_UPDATE 3u       /* to the process: handles, info messages */
#define L2VPN_AC_MSG_DELETE 6u       /* to the process: handles */
#define L2VPN_AC_MSG_PROV 7u         /* to the client: handles, AC data */
#define L2VPN_AC_MSG_UNPROV 8u       /* to the client: handles */
#define L2VPN_MSTP_MSG_VID_MAP 9u    /* to the process: l2vpn_msti_vid_map_t */
#define L2VPN_MSTP_MSG_STATE 11u     /* to the process: l2vpn_mstp_req_t */
#define L2VPN_MSTP_MSG_PROTECTED 12u /* to the process: one l2vpn_mstp_prot_t */
#define L2VPN_AC_MSG_BULK_NOTIFY 13u /* to the client: l2vpn_ac_bulk_notify_t */
#define L2VPN_MSTP_MSG_IS_ROOT 14u   /* to the process: l2vpn_msti_root_t */
#define L2VPN_AC_MSG_HDR_NOTIFY 15u  /* to the client: header alone */
#define L2VPN_AC_MSG_TYPE_MAX 17u    /* this and above: no message type */

/* First and last message of a bulk request, in the header's `flags`. The two CREATE bits may also be given
 * by the caller, to let one batch span several calls. */
#define L2VPN_AC_FLAG_CREATE_START 0x1u
#define L2VPN_AC_FLAG_CREATE_END 0x2u
#define L2VPN_AC_FLAG_UPDATE_START 0x4u
#define L2VPN_AC_FLAG_UPDATE_END 0x8u
#define L2VPN_AC_FLAG_DELETE_START 0x10u
#define L2VPN_AC_FLAG_DELETE_END 0x20u

/* First and last message of an MSTP batch, in the caller's flags and in the header's. */
#define L2VPN_MSTP_FLAG_BEGIN 0x1u
#define L2VPN_MSTP_FLAG_END 0x2u

/* In a message to the client: raises status_cb with L2VPN_AC_STATUS_FLAG after the message's own callback. */
#define L2VPN_AC_FLAG_NOTICE 0x2u

#endif
