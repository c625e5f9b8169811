/*
 * The client's side of the links, shared by the calls (client_api.cpp) and the event thread (client.cpp,
 * which waits, and client_link.cpp, which opens, reads and ends).
 *
 * Threads. The calls come from any thread, callbacks too. Everything that opens, reads and ends a link runs
 * on the event manager's thread, which alone calls out. One mutex guards the table of classes and the first
 * group of members of each; it is never held while calling out, waiting or sending a message of the
 * caller's. Whoever works on a class or a link holds a shared pointer to it, so a class can be withdrawn at
 * any moment, also by its own callback: its descriptor closes when the last user has left.
 *
 * The client shows the event manager one descriptor, an epoll set of its own that holds the links, the timer
 * and the watch on the directory. So a link can be dropped by any thread while its event is on the way: the
 * event carries a key that nothing answers to any more, and no pointer.
 *
 * Odd on purpose:
 * - A client is never freed, only reachable from `s_clients`, so that the event manager's argument is valid
 *   whenever an event comes.
 * - Before a class was up for the first time its messages queue, later they fail: a peer that came back
 *   knows nothing of what was sent to its predecessor, and only the owner can tell it anew.
 * - A message that an up link does not take, for lack of room or of memory, ends the link. Both ends would go on
 *   with different beliefs: the owner says everything anew, but what the lost message took away would stay.
 * - The MTU never changes: callers cut their messages by it before there is a link, so a server that takes
 *   less is no server for this process.
 * - The queue is emptied only when all of it has gone out: if the link breaks before, the whole queue goes
 *   to whoever answers next.
 */
#ifndef PLATFORM_POSIX_IPC_CLIENT_H
#define PLATFORM_POSIX_IPC_CLIENT_H

#include "../capture/capture.h"
#include "link.h"
#include "message_queue.h"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <platform/event_loop.h>
#include <platform/ipc.h>
#include <random>
#include <set>
#include <string>
#include <utility>

namespace l2vpn::ipc {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline constexpr milliseconds retry_shortest{50};
inline constexpr milliseconds retry_longest{2000};

enum class link_state {
    waiting,  /* no link; the next attempt is at the deadline */
    greeting, /* the hello is out; the answer must be there by the deadline */
    flushing, /* accepted for the first time; the queue is going out, the next of it by the deadline */
    up,
};

/* One registered class. Only the event thread writes `state`, so it may read it without the lock. */
struct registration {
    uint32_t class_id = 0;
    uint32_t nodeid = 0;
    l2vpn_ipc_msg_cb_t msg_cb = nullptr;
    l2vpn_ipc_evt_cb_t evt_cb = nullptr;
    void *cookie = nullptr;
    std::atomic<bool> withdrawn{false};

    /* Under the client's lock. */
    link_state state = link_state::waiting;
    bool was_up = false;
    uint32_t mtu = 0;
    uint64_t key = 0; /* of the present link in the epoll set */
    link_ptr connection;
    message_queue queue;
    steady::time_point deadline;

    /* The event thread's own. */
    size_t flushed = 0; /* messages of the queue that have gone out */
    uint32_t server_nodeid = 0;
    milliseconds interval = retry_shortest;
    steady::time_point up_since;
    std::set<std::string> told; /* causes of failed attempts that have been logged */
};

using registration_ptr = std::shared_ptr<registration>;

} // namespace l2vpn::ipc

struct l2vpn_ipc_client {
    event_mgr_p evm = nullptr;
    std::string service;
    std::string path;      /* of the socket */
    std::string directory; /* the path's two parts */
    std::string file;
    uint32_t mtu = 0;
    uint32_t send_timeout_ms = 0;
    l2vpn::ipc::unique_fd epoll;
    l2vpn::ipc::unique_fd timer;
    l2vpn::ipc::unique_fd inotify; /* may be missing: then only the timer leads to attempts */
    l2vpn_ipc_client *next = nullptr;

    std::mutex lock;
    std::map<uint32_t, l2vpn::ipc::registration_ptr> classes;
    event_fd_watch_t *watch = nullptr; /* there while a class is registered */
    uint32_t serial = 0;
    l2vpn::ipc::steady::time_point armed = l2vpn::ipc::steady::time_point::max(); /* the timer; max: not */

    /* The event thread's own. */
    std::unique_ptr<uint64_t[]> buffer; /* for one message */
    std::minstd_rand jitter;
};

namespace l2vpn::ipc {

/* Keys of the epoll set. A link's key is {serial above 0, class}. */
inline constexpr uint64_t key_timer = 0;
inline constexpr uint64_t key_directory = 1;

/* The event manager's handler; `arg` is the client. */
void client_ready(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

/* Sets the timer for the earliest deadline. Under the lock. */
void client_arm_timer(l2vpn_ipc_client &client);

/* Takes the link of a class out of the epoll set and of the class. Under the lock. */
link_ptr client_detach_link(const l2vpn_ipc_client &client, registration &of);

/* Records what happens on a link of a class, or, without one, what was not sent. Any thread. */
void client_record(const registration &of, const link *on, capture::record_kind kind, capture::flow direction,
                   qerrno status, const iovec *pieces = nullptr, uint32_t count = 0);

/* Opens a link, as far as that goes at once. Event thread. */
void client_attempt(l2vpn_ipc_client &client, registration &of);

/* An attempt came to nothing; a refusal will not be another one soon. Event thread. */
void client_attempt_failed(l2vpn_ipc_client &client, registration &of, int level, const std::string &cause,
                           bool refused = false);

/* Does what there is to do on the link that `key` belongs to, if it is still there. Event thread. */
void client_link_ready(l2vpn_ipc_client &client, uint64_t key);

} // namespace l2vpn::ipc

#endif
