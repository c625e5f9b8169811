/*
 * The other end of <platform/ipc.h>: what the L2VPN process uses to accept owners.
 *
 * A peer is one registration of one class by one client process. All functions and callbacks belong to the
 * event manager's thread.
 */
#ifndef PLATFORM_IPC_SERVER_H
#define PLATFORM_IPC_SERVER_H

#include <platform/compiler.h>
#include <platform/event_mgr.h>
#include <platform/qerr.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

PLATFORM_BEGIN_DECLS

typedef struct l2vpn_ipc_server *l2vpn_ipc_server_t;
typedef struct l2vpn_ipc_peer *l2vpn_ipc_peer_t;

typedef struct l2vpn_ipc_peer_info {
    uint64_t peer_id;  /* counts up from 1, never used again in the life of the server */
    uint32_t class_id; /* as registered */
    uint32_t nodeid;   /* as registered */
    uint32_t mtu;      /* largest message in either direction, header included, in bytes */
    pid_t pid;         /* the kernel's word, taken when the peer connected */
    uid_t uid;
    gid_t gid;
} l2vpn_ipc_peer_info_t;

typedef struct l2vpn_ipc_server_callbacks {
    /* A peer has opened its link properly. EOK accepts it; any other status refuses it, is told to the
     * peer, and ends the link (no `closed` follows). */
    qerrno (*accept)(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t *info,
                     void *arg);
    /* A message came: 16 bytes at least, 8-aligned, writable until the callback returns. */
    void (*message)(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                    void *arg);
    /* The link of an accepted peer has ended; everything it had sent was delivered. EOK: the peer closed
     * it; EPROTO: it broke the protocol; else the transport's errno. `peer` is not valid afterwards. */
    void (*closed)(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, qerrno reason, void *arg);
    /* A line for the log: refused peers, garbage, errors of the listening socket. `level` as syslog(3). May be
     * null: then the lines go to the system's log. The other three may not. */
    void (*log)(l2vpn_ipc_server_t server, int level, const char *text, void *arg);
} l2vpn_ipc_server_callbacks_t;

typedef struct l2vpn_ipc_server_options {
    uint32_t nodeid;    /* told to the peers as `peer` of their events */
    uint32_t mtu;       /* 0: the platform's default; else 16 to 1048576. A peer that may send more is
                         * refused (EMSGSIZE), one that sends less is sent no more than that */
    uint32_t max_peers; /* 0: the platform's default */
    int listen_fd;      /* -1: make the socket; else a listening SOCK_SEQPACKET socket, which becomes the
                         * server's, but stays the caller's when the call fails */
    mode_t socket_mode; /* 0: the platform's default, 0660 */
    const char *group;  /* null: the process's own; else the name of the socket's group */
} l2vpn_ipc_server_options_t;

/*
 * Listens for `service`. A stale socket file of a server that died is replaced.
 *
 * EOK           `*server` is written; the caller owns it
 * EINVAL        a null argument, a bad service name, an MTU out of range, no listening socket passed in
 * EADDRINUSE    another server listens there
 * ENAMETOOLONG  the socket's path would not fit a socket address
 * ENOTSOCK      something else than a socket lies there; it is left alone
 * ENOENT        there is no such group
 * EACCES, ...   the errno of what failed; l2vpn_ipc_server_error() names it
 */
qerrno l2vpn_ipc_server_new(event_mgr_p evm, const char *service, const l2vpn_ipc_server_options_t *options,
                            const l2vpn_ipc_server_callbacks_t *callbacks, void *arg,
                            l2vpn_ipc_server_t *server);

/* One line for people on why the latest l2vpn_ipc_server_new() of this thread failed, with the path. */
const char *l2vpn_ipc_server_error(void);

/* The path of the listening socket. */
const char *l2vpn_ipc_server_path(l2vpn_ipc_server_t server);

/* Closes all links and the listening socket, removes the socket file (unless it was passed in), and frees
 * the server. `closed` is not called. Not from a callback. Null is allowed. */
void l2vpn_ipc_server_free(l2vpn_ipc_server_t server);

/*
 * Sends one message to a peer. It goes out at once or, when the peer's socket is full, waits in that
 * peer's bounded queue: the server never blocks.
 *
 * EOK; EMSGSIZE: longer than the peer's MTU; EINVAL: a null argument, or shorter than 16 bytes; ENOBUFS: the
 * queue is full, ENOMEM: there is no memory, and the message was not taken; others, ENOTCONN mostly: the link
 * is broken (a `closed` follows, when what the peer had sent was delivered).
 */
qerrno l2vpn_ipc_server_sendv(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, const struct iovec *pieces,
                              uint32_t count);

/* Bytes that wait in the peer's queue. */
uint64_t l2vpn_ipc_server_queued(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer);

/* Ends a peer's link. `closed` is not called. May be called from a callback, for any peer. */
void l2vpn_ipc_server_close(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer);

/* Something of the caller's, kept with the peer. */
void l2vpn_ipc_peer_set_arg(l2vpn_ipc_peer_t peer, void *arg);
void *l2vpn_ipc_peer_get_arg(l2vpn_ipc_peer_t peer);
const l2vpn_ipc_peer_info_t *l2vpn_ipc_peer_get_info(l2vpn_ipc_peer_t peer);

PLATFORM_END_DECLS

#endif
