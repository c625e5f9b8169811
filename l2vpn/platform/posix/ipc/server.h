/*
 * The server's side of the links. Everything here belongs to the event manager's thread: there are no locks.
 *
 * A peer that is dropped, be it by its own fault, by its own callback or by another peer's, leaves the table
 * at once but stays in `dropped` until the handler in progress is over, so that nobody up the stack holds a
 * dead pointer. `closed` is told only of peers that the accept callback took and the caller did not close.
 *
 * server_socket.cpp makes the listening socket and decides whose the socket file is; server.cpp accepts and
 * keeps the time; server_peer.cpp greets, reads and writes one peer.
 *
 * Who may connect is the socket file's mode: the kernel asks for write permission, so that root, the server's
 * own user and those whom mode and group admit come through, and nobody else. The accept callback decides
 * on the rest.
 */
#ifndef PLATFORM_POSIX_IPC_SERVER_H
#define PLATFORM_POSIX_IPC_SERVER_H

#include "../capture/capture.h"
#include "link.h"
#include "message_queue.h"

#include <chrono>
#include <deque>
#include <memory>
#include <platform/event_loop.h>
#include <platform/ipc_server.h>
#include <string>
#include <sys/stat.h>
#include <unordered_map>
#include <utility>
#include <vector>

struct l2vpn_ipc_peer {
    enum class peer_state { greeting, open, dropped };

    l2vpn_ipc_peer(l2vpn_ipc_server &owner, l2vpn::ipc::unique_fd socket)
        : server(owner), connection(std::move(socket))
    {
    }

    l2vpn_ipc_server &server;
    l2vpn::ipc::link connection;
    l2vpn_ipc_peer_info_t info{};
    std::array<char, 16> name{}; /* of its program, when its messages are recorded */
    peer_state state = peer_state::greeting;
    bool greeted = false; /* its class is known */
    bool end_recorded = false;
    event_fd_watch_t *watch = nullptr;
    l2vpn::ipc::message_queue queue;
    void *arg = nullptr;
};

namespace l2vpn::ipc {

using steady = std::chrono::steady_clock;

/* The listening socket and what goes with it. */
struct listening {
    std::string path;
    unique_fd socket;
    unique_fd lock;      /* of the lock file; none for a socket that was passed in */
    struct stat file {}; /* the socket file that was made */
};

/*
 * Listens at `path`, or with a duplicate of `options.listen_fd`. On failure nothing is left behind, and
 * `*error` is a line for people.
 */
qerrno listening_open(const std::string &path, const l2vpn_ipc_server_options_t &options, listening *opened,
                      std::string *error);

/* Removes the socket file, if it is still the one that was made, and the lock file. */
void listening_close(listening &ended);

} // namespace l2vpn::ipc

struct l2vpn_ipc_server {
    event_mgr_p evm = nullptr;
    l2vpn_ipc_server_callbacks_t callbacks{};
    void *arg = nullptr;
    uint32_t nodeid = 0;
    uint32_t mtu = 0;
    uint32_t max_peers = 0;

    l2vpn::ipc::listening listening;
    event_fd_watch_t *listen_watch = nullptr;
    l2vpn::ipc::unique_fd timer;
    event_fd_watch_t *timer_watch = nullptr;
    std::unique_ptr<uint64_t[]> buffer; /* for one message */

    std::unordered_map<uint64_t, std::unique_ptr<l2vpn_ipc_peer>> peers;
    std::vector<std::unique_ptr<l2vpn_ipc_peer>> dropped;
    std::deque<std::pair<l2vpn::ipc::steady::time_point, uint64_t>> silent; /* greeting deadlines, in order */
    l2vpn::ipc::steady::time_point accept_again;                            /* the epoch: accepting */
    uint64_t latest_peer_id = 0;
    unsigned handlers = 0; /* in progress */
    bool full_told = false;
};

namespace l2vpn::ipc {

/* Stands for a handler in progress: dropped peers live until the outermost one ends. */
class handler_scope {
public:
    explicit handler_scope(l2vpn_ipc_server &server) : server_(server) { ++server_.handlers; }
    handler_scope(const handler_scope &) = delete;
    handler_scope &operator=(const handler_scope &) = delete;
    ~handler_scope()
    {
        if (--server_.handlers == 0) {
            server_.dropped.clear();
        }
    }

private:
    l2vpn_ipc_server &server_;
};

void server_log(l2vpn_ipc_server &server, int level, const std::string &text);

/* The event manager's handler of a peer's socket; `arg` is the peer. */
void peer_ready(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

/* Ends the link of a peer and takes it out of the table. */
void peer_drop(l2vpn_ipc_peer &peer);

/* Tells the peer that it is refused, and drops it. */
void peer_refuse(l2vpn_ipc_peer &peer, qerrno status, int level, const std::string &why);

/* "peer 7 (pid 4711, uid 1000)" */
std::string peer_name(const l2vpn_ipc_peer &peer);

} // namespace l2vpn::ipc

#endif
