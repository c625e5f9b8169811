/*
 * The L2VPN AC client library: what a process that owns layer-2 interfaces calls to hand its attachment
 * circuits (ACs) to the L2VPN process, and to exchange MSTP information with it.
 *
 * Order of use: connect once per AC class, then requests, then disconnect. The first connect initialises
 * the library for the life of the process; there is nothing to shut down.
 *
 * Statuses. Every function returns a qerrno: EOK (0) or a POSIX errno number. The library's own are
 * ENOENT (2), ENOMEM (12), EEXIST (17), EINVAL (22) and EDEADLK (35); others come from the platform's IPC,
 * unchanged. qerr_strerror() gives the text.
 *
 * Threads. Requests may come from any thread and are serialised with each other. Connect and disconnect
 * belong on the event manager's thread. A connect from another thread while the loop runs may be overtaken by
 * the event that says the process is there, and then sets the client back to joining (JOIN goes on being sent
 * until the next event; nothing is lost). A disconnect from another thread does not wait for a request or a
 * timer in progress: its DOWN or UP may still be delivered after the disconnect has returned, so what the
 * callbacks use must outlive it. A request of up to 16,384 ACs uses some 130 KiB of the caller's stack at most.
 *
 * Arrays. The arrays of a request are converted to network byte order in place while the request runs and
 * hold what they held before when it returns, whatever it returns. They must be writable, and no other
 * thread may touch them meanwhile. Exceptions: info records and the protection record are only read.
 *
 * Failed sends. When a message cannot be sent while the client is joining or up, the library starts its
 * retry timer, tells an up client DOWN, and the request returns EOK: the rest of it is dropped, and the
 * client is expected to send everything anew on the UP that follows. The status of the send is returned
 * only when the process is known to be away (after a DOWN that came as an event). Two exceptions: an MSTP
 * request without records always returns the status of its send and starts no timer, and
 * l2vpn_mstp_protect() does not report a failed send at all.
 *
 * Limits. How many records one message holds is computed from the MTU and from the class of the LATEST
 * connect, for all clients of the process. A client whose records are larger than that class's must send
 * requests small enough for one message each, or else connect last; messages above the MTU fail to be sent.
 * With an MTU that has no room for one record a request makes no progress: it sends messages without records
 * until one fails, and does not return before. Counts are signed inside: a request of 2^31 records or more is
 * checked and converted, sends nothing, and succeeds.
 */
#ifndef L2VPN_AC_API_H
#define L2VPN_AC_API_H

#include <l2vpn/l2vpn_ac_compiler.h>
#include <l2vpn/l2vpn_ac_msg.h>
#include <l2vpn/l2vpn_ac_types.h>
#include <platform/platform.h>
#include <stdint.h>

L2VPN_AC_BEGIN_DECLS

/* A connected client. Opaque; valid from a successful connect to a successful disconnect. Every function
 * looks it up before use, so a null or stale handle is refused, not followed. It is an address: a later
 * connect may be given the same one, and a stale handle then names the new client. */
typedef struct l2vpn_ac_client_ctx *l2vpn_ac_client_hd_t;

/* What status_cb is told. */
#define L2VPN_AC_STATUS_DOWN 0u /* the L2VPN process went away, or a request could not be sent */
#define L2VPN_AC_STATUS_UP 1u   /* the L2VPN process is there, or a JOIN got through again */
#define L2VPN_AC_STATUS_FLAG 3u /* a message carried the notice flag; the argument is its flags word */

/* The connection states of a client; they are internal and listed for readers of traces. */
#define L2VPN_AC_ST_IDLE 0u    /* the L2VPN process has gone away */
#define L2VPN_AC_ST_JOINING 1u /* JOIN sent, no answer yet */
#define L2VPN_AC_ST_UP 2u      /* the L2VPN process is there */

/*
 * The client's callbacks. They run on the event manager's thread with no lock held, and may call any request,
 * connect, and disconnect other clients; a disconnect of their own client is refused with 35. One exception:
 * UP and DOWN notices that come from the retry timer or from a failed request run under the library's request
 * lock, the DOWN of a failed request on the requesting thread; a disconnect from inside those succeeds. What
 * a callback returns is ignored. Pointers that a callback is given are readable and writable until it
 * returns.
 */
typedef struct l2vpn_ac_callback_vector {
    /* Mandatory. `status` is L2VPN_AC_STATUS_*; `arg` is the event's argument or 0, and the flags word for
     * L2VPN_AC_STATUS_FLAG. On DOWN nothing is to be done; on UP the client sends everything anew. */
    qerrno (*status_cb)(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t arg);

    /* Optional. `bulk` ACs were provisioned: handles, decoded data, and the message's flags, all in host
     * byte order. Data of classes 7, 9 and 17 has no layout: a message with it aborts the process, with or
     * without this callback. */
    qerrno (*prov_cb)(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, l2vpn_ac_xcid_data_t *data,
                      uint32_t flags);

    /* Optional. `bulk` ACs were unprovisioned. Host byte order. */
    qerrno (*unprov_cb)(l2vpn_ac_client_hd_t hd, uint32_t bulk, ifhtype *ifh, uint32_t flags);

    /* Optional. A notice of `bulk` records. Host byte order. */
    qerrno (*bulk_notify_cb)(l2vpn_ac_client_hd_t hd, uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                             uint32_t flags);

    /* Optional. A notice without records: the third and fourth header word, both in NETWORK byte order. */
    qerrno (*hdr_notify_cb)(l2vpn_ac_client_hd_t hd, uint32_t word2, void *null, uint32_t word3);

    /* Copied, never called. */
    void *reserved5;
    void *reserved6;
} l2vpn_ac_callback_vector_t;

L2VPN_AC_STATIC_ASSERT(sizeof(l2vpn_ac_callback_vector_t) == 7 * sizeof(void *), "seven entries");

/*
 * Connects a client of one class.
 *
 *   evm        the event manager on which callbacks run; the same one for every connect of the process
 *              (another one is a fatal error). It must outlive the process's use of the library.
 *   spare      ignored
 *   class_id   0 to 17, without 15
 *   callbacks  copied; `status_cb` must be set
 *   hd         receives the handle, on success only
 *
 * The L2VPN process need not be there: the client is told UP when it is. The message limits of all clients
 * become those of this class (see Limits above).
 *
 *   EOK  connected; a JOIN was sent and the retry timer runs
 *   22   a null argument, a class of 18 or more, a null status_cb; or class 15, after registration and
 *        its undoing
 *   12   no memory for the context, its timer or, at the first connect, the parent of the timers
 *   2    the timer would not take the context; or no timer tree at the first connect
 *   17   the class is connected already; or the context could not be entered among the clients
 *   others: the platform's, from initialisation, class registration, the MTU or the first JOIN
 *
 * A connect that fails leaves no client behind. Off the event manager's thread there is more to it: status_cb
 * may have been called meanwhile, with a handle that is worth nothing any more; and 2 may be returned with
 * `*hd` set, when the client is connected and a disconnect event has overtaken the connect's last step.
 */
qerrno l2vpn_ac_process_connect(event_mgr_p evm, uint32_t spare, l2vpn_ac_class_t class_id,
                                l2vpn_ac_callback_vector_t *callbacks, l2vpn_ac_client_hd_t *hd);

/*
 * The same, with this node's id given instead of asked from the platform. It matters on the connect that
 * initialises the library and is ignored later. 22 also when `nodeid` is 0xFFFFFFFF.
 */
qerrno l2vpn_ac_process_connect_nodeid(event_mgr_p evm, uint32_t spare, l2vpn_ac_class_t class_id,
                                       l2vpn_ac_callback_vector_t *callbacks, uint32_t nodeid,
                                       l2vpn_ac_client_hd_t *hd);

/*
 * Disconnects a client. The handle is invalid afterwards.
 *
 *   EOK  done
 *   22   no such client
 *   35   a callback of the client is running: this is it, or it runs on the event manager's thread
 *        meanwhile. The client stays connected, but its retry timer is gone for good: a request that cannot
 *        be sent still returns EOK and an up client is told DOWN, but no JOIN is repeated, and no UP follows
 *        until the process itself goes and comes back. Disconnect again when the callback has returned.
 *   others: the platform would not withdraw the class; the client stays, as for 35
 */
qerrno l2vpn_ac_process_disconnect(l2vpn_ac_client_hd_t hd);

/*
 * Creates `bulk_size` ACs: for each its handle, its definition and its information.
 *
 *   flags   L2VPN_AC_FLAG_CREATE_START opens a batch that spans several creates, L2VPN_AC_FLAG_CREATE_END
 *           closes it with this one; other bits are carried in every message. Without an open batch each
 *           create is a batch of its own. There is one open batch for the whole library: while it is open
 *           the creates of every client belong to it.
 *   ifh, defns, infos   arrays of `bulk_size`; `infos` is only read
 *
 * A `bulk_size` of 0 sends a message without ACs and closes an open batch; the arrays may be null.
 *
 *   EOK  sent, or a failed send was taken over by the retry logic
 *   2    no such client
 *   22   a null array
 *   12   no memory for the information messages, or for checking a request of more than 16,384 ACs
 *   others: the platform's check refused the entries; or a message could not be sent
 *
 * A client of class 9 must not send ACs: its information has no layout, and the process is aborted.
 */
qerrno l2vpn_ac_create(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh,
                       l2vpn_ac_defn_t *defns, l2vpn_ac_info_t *infos);

/*
 * Updates the information of `bulk_size` ACs.
 *
 *   flags   carried in every message, beside the start and end bits that the library sets
 *   ifh, infos   arrays of `bulk_size`; `infos` is only read
 *
 * A `bulk_size` of 0 sends a message without ACs and without flags; the arrays may be null.
 * Statuses as l2vpn_ac_create(), but 22 for no such client. Class 9 as there.
 */
qerrno l2vpn_ac_update(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh,
                       l2vpn_ac_info_t *infos);

/*
 * Deletes `bulk_size` ACs.
 *
 *   flags   carried in every message, beside the start and end bits that the library sets
 *   ifh     array of `bulk_size`
 *
 * A `bulk_size` of 0 sends nothing; the array may be null.
 *
 *   EOK  sent, or a failed send was taken over by the retry logic
 *   22   no such client; a null array; the platform's check refused the entries, for whatever reason
 *   12   no memory for checking a request of more than 16,384 ACs
 *   others: a message could not be sent
 */
qerrno l2vpn_ac_delete(l2vpn_ac_client_hd_t hd, uint32_t flags, uint32_t bulk_size, ifhtype *ifh);

/*
 * The three MSTP requests that send arrays: MSTI root status, port states, the MSTI-to-VLAN map.
 *
 *   flags   L2VPN_MSTP_FLAG_BEGIN opens a batch that spans several calls, L2VPN_MSTP_FLAG_END closes it with
 *           this one; other bits are carried in every message. Without an open batch each call is a batch of
 *           its own. There is one open batch for each of the three requests in the whole library.
 *   count   records in the array. With 0 a message without records is sent, its flags exactly as given, and
 *           an open batch is closed; the array may be null.
 *
 *   EOK  sent, or a failed send was taken over by the retry logic (never for a `count` of 0)
 *   22   no such client; a null array
 *   others: a message could not be sent
 */
qerrno l2vpn_mstp_root(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_msti_root_t *roots, uint32_t count);
qerrno l2vpn_mstp_port_request(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_mstp_req_t *reqs,
                               uint32_t count);
qerrno l2vpn_msti_vid_map(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_msti_vid_map_t *map, uint32_t count);

/*
 * Sends one protection record, which is only read and must not be null. `flags` are carried as given.
 *
 *   EOK  handed over; a send that failed is not reported
 *   22   no such client
 */
qerrno l2vpn_mstp_protect(l2vpn_ac_client_hd_t hd, uint32_t flags, l2vpn_mstp_prot_t *prot);

L2VPN_AC_END_DECLS

#endif
