/*
 * IPC to the L2VPN process: one client handle a process, one registration a class, unicast messages.
 *
 * Callbacks run on the event manager's thread, one at a time, never from inside a call of this interface,
 * and never after l2vpn_ipc_class_deinit() has returned on that thread. Every function may be called from
 * any thread, also from the callbacks.
 */
#ifndef PLATFORM_IPC_H
#define PLATFORM_IPC_H

#include <platform/compiler.h>
#include <platform/event_mgr.h>
#include <platform/qerr.h>
#include <stdint.h>
#include <sys/uio.h>

PLATFORM_BEGIN_DECLS

typedef struct l2vpn_ipc_client *l2vpn_ipc_client_t;

typedef uint32_t l2vpn_ipc_evt_t;
#define L2VPN_IPC_EVT_CONNECTED 0u
#define L2VPN_IPC_EVT_DISCONNECTED 1u

/* The destination that means "the L2VPN process", the only one there is. */
#define L2VPN_IPC_DEST_L2VPN 0xFFFFFFFFu

/*
 * A message arrived for `class_id`. `message` is writable, 8-aligned, `length` (16 at least) bytes long and
 * the receiver's to change until it returns; it is not readable afterwards. `cookie` is the one given at
 * registration; the spare arguments are 0.
 */
typedef void (*l2vpn_ipc_msg_cb_t)(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t spare,
                                   void *message, uint32_t length, uint32_t spare2, void *cookie);

/*
 * The L2VPN process became reachable (L2VPN_IPC_EVT_CONNECTED) or went away (L2VPN_IPC_EVT_DISCONNECTED,
 * after everything it had sent was delivered). `peer` is its node id, `event_arg` 0 or, for a disconnect,
 * the status that ended the link.
 */
typedef void (*l2vpn_ipc_evt_cb_t)(l2vpn_ipc_client_t client, uint32_t peer, uint32_t spare,
                                   l2vpn_ipc_evt_t event, uint32_t event_arg, void *cookie);

/*
 * Makes the client of `service`, whose callbacks will run on `evm`. Opens no connection yet. The handle
 * lives as long as the process; a second call makes a second handle. `service` is copied.
 *
 * EOK           `*client` is written
 * EINVAL        a null argument, or a service name that is empty or no plain file name
 * ENAMETOOLONG  the socket's path would not fit a socket address
 * ENOMEM, EMFILE, ENFILE
 */
qerrno l2vpn_ipc_client_init(event_mgr_p evm, const char *service, l2vpn_ipc_client_t *client);

/*
 * Registers `class_id`. The L2VPN process need not be there: the connection is opened and reopened in the
 * background, and until it is up for the first time messages wait in order in a bounded queue. Who listens
 * must be root, this process's own user, or the user to whom root has given the runtime directory; others
 * are not spoken to. The log says what keeps a class from being connected (L2VPN_LOG).
 *
 * EOK     registered
 * EINVAL  a null client or callback
 * EEXIST  the class is registered already on this client
 * ENOMEM
 */
qerrno l2vpn_ipc_class_init(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t nodeid,
                            l2vpn_ipc_msg_cb_t msg_cb, l2vpn_ipc_evt_cb_t evt_cb, void *spare, void *cookie);

/*
 * Withdraws the registration and closes its connection. Neither delivers nor waits for callbacks; what
 * waits in the queue is dropped. `options` is 0.
 *
 * EOK     withdrawn
 * EINVAL  a null client
 * ENOENT  the class is not registered
 */
qerrno l2vpn_ipc_class_deinit(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t options);

/*
 * Writes the largest message of the class, in bytes, header included, through `mtu`. It is the configured
 * one (L2VPN_MTU), known before there is a link, and never changes: a server that takes less is not
 * connected to, with a line in the log.
 *
 * EOK; EINVAL: a null argument; ENOENT: the class is not registered
 */
qerrno l2vpn_ipc_transport_mtu_get(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t *mtu);

/*
 * Sends one message of `length` bytes to the L2VPN process, whole or not at all. The bytes belong to the
 * caller again when the call returns. `destination` is L2VPN_IPC_DEST_L2VPN, `options` 0.
 *
 * EOK        handed to the transport (or put in the queue, before the first connection)
 * EINVAL     a null argument, a message shorter than 16 bytes, or another destination
 * ENOENT     the class is not registered, or was withdrawn while the message waited for room
 * EMSGSIZE   longer than the MTU
 * ENOTCONN   the link was up and is down
 * ENOBUFS    the queue of a link that was never up is full
 * ENOMEM     no memory to queue it, or to send it
 * ETIMEDOUT  the peer made no room in time; nothing was sent
 * others     the transport's own errno; nothing was sent
 *
 * ETIMEDOUT, and ENOMEM and others of the transport, end a link that is up: L2VPN_IPC_EVT_DISCONNECTED follows,
 * with that status, and a new link is opened. A queue that has no room is not touched.
 */
qerrno l2vpn_ipc_ucast(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                       const void *message, uint32_t length, uint32_t options);

/*
 * The same, for a message that lies in `count` pieces (1 to 16). Pieces of length 0 are allowed. Nothing
 * is copied before the transport takes it. EINVAL also for a `count` out of range.
 */
qerrno l2vpn_ipc_ucastv(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                        const struct iovec *pieces, uint32_t count, uint32_t options);

PLATFORM_END_DECLS

#endif
