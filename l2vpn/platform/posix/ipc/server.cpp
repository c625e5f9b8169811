/*
 * The server as a whole: its birth and end, accepting, deadlines. server.h describes the parts.
 */
#include "server.h"

#include "../config_internal.h"
#include "../timer_fd.h"

#include <algorithm>
#include <cerrno>
#include <platform/config.h>
#include <platform/debug.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>

using namespace l2vpn::ipc;

namespace {

constexpr uint32_t max_peers_default = 4096;
constexpr rlim_t spare_descriptors = 256;
constexpr int accepts_a_dispatch = 64;
constexpr std::chrono::milliseconds accept_pause{100};

thread_local std::string t_error;

/* The peers' descriptors must fit below the soft limit; the hard one is the administrator's word. */
void raise_descriptor_limit(uint32_t max_peers)
{
    rlimit limit{};
    const rlim_t wanted = max_peers + spare_descriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(limit.rlim_max, wanted);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

bool accepting(const l2vpn_ipc_server &server)
{
    return server.accept_again == steady::time_point{};
}

/* Sets the timer for the next greeting that is due, or for accepting again. */
void arm_timer(l2vpn_ipc_server &server)
{
    auto next = accepting(server) ? steady::time_point::max() : server.accept_again;
    if (!server.silent.empty()) {
        next = std::min(next, server.silent.front().first);
    }
    l2vpn::platform_posix::set_timer(server.timer, next);
}

/* Without a pause, a listening socket that cannot be served would be readable over and over again. */
void pause_accepting(l2vpn_ipc_server &server, qerrno cause)
{
    server_log(server, LOG_ERR,
               "cannot accept at " + server.listening.path + ", will try again: " + qerr_strerror(cause));
    server.accept_again = steady::now() + accept_pause;
    event_fd_modify(server.listen_watch, 0);
    arm_timer(server);
}

void add_peer(l2vpn_ipc_server &server, unique_fd socket)
{
    const int fd = socket.get();
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        server_log(server, LOG_ERR,
                   std::string("a peer without credentials: ") + qerr_strerror(static_cast<qerrno>(errno)));
        return;
    }
    const uint32_t mtu = link_fit_mtu(fd, server.mtu);
    auto made = std::make_unique<l2vpn_ipc_peer>(server, std::move(socket));
    l2vpn_ipc_peer &peer = *made;
    const uint64_t id = ++server.latest_peer_id;
    peer.info = {id, 0, 0, mtu, credentials.pid, credentials.uid, credentials.gid};
    peer.watch = event_fd_watch(server.evm, fd, EVENT_FD_READ, peer_ready, &peer);
    if (peer.watch == nullptr) {
        server_log(server, LOG_ERR,
                   peer_name(peer) + " cannot be watched: " + qerr_strerror(static_cast<qerrno>(errno)));
        return;
    }
    server.peers.emplace(id, std::move(made));
    if (server.peers.size() > server.max_peers) {
        const bool told = server.full_told;
        peer_refuse(peer, EUSERS, told ? LOG_DEBUG : LOG_WARNING, "is one too many");
        server.full_told = true;
        return;
    }
    server.silent.emplace_back(steady::now() + std::chrono::milliseconds(greeting_timeout_ms), id);
    if (server.silent.size() == 1) {
        arm_timer(server);
    }
}

void listen_ready(event_fd_watch_t *, int fd, uint32_t, void *arg)
{
    auto &server = *static_cast<l2vpn_ipc_server *>(arg);
    const handler_scope scope(server);
    for (int taken = 0; taken < accepts_a_dispatch; ++taken) {
        unique_fd socket(accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket) {
            add_peer(server, std::move(socket));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            pause_accepting(server, static_cast<qerrno>(errno));
            return;
        }
    }
}

void timer_ready(event_fd_watch_t *, int fd, uint32_t, void *arg)
{
    auto &server = *static_cast<l2vpn_ipc_server *>(arg);
    const handler_scope scope(server);
    uint64_t expirations = 0;
    [[maybe_unused]] const ssize_t got = read(fd, &expirations, sizeof expirations);
    const auto now = steady::now();
    if (!accepting(server) && server.accept_again <= now) {
        server.accept_again = {};
        event_fd_modify(server.listen_watch, EVENT_FD_READ);
    }
    while (!server.silent.empty() && server.silent.front().first <= now) {
        const auto peer = server.peers.find(server.silent.front().second);
        server.silent.pop_front();
        if (peer != server.peers.end() && peer->second->state == l2vpn_ipc_peer::peer_state::greeting) {
            peer_refuse(*peer->second, ETIMEDOUT, LOG_WARNING, "says nothing");
        }
    }
    arm_timer(server);
}

bool valid(const l2vpn_ipc_server_options_t *options, const l2vpn_ipc_server_callbacks_t *callbacks)
{
    return options != nullptr && callbacks != nullptr && callbacks->accept != nullptr &&
           callbacks->message != nullptr && callbacks->closed != nullptr &&
           (options->mtu == 0 || (options->mtu >= message_min && options->mtu <= mtu_max));
}

/* With all that stands for it elsewhere: its socket's file, and its watches. */
struct free_server {
    void operator()(l2vpn_ipc_server_t server) const { l2vpn_ipc_server_free(server); }
};

/* Everything that can fail, in the order in which it may be undone by freeing the server. */
qerrno start(l2vpn_ipc_server &server, const char *path, const l2vpn_ipc_server_options_t &options)
{
    server.buffer = std::make_unique<uint64_t[]>(server.mtu / sizeof(uint64_t) + 1);
    server.timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    server.timer_watch =
        server.timer ? event_fd_watch(server.evm, server.timer.get(), EVENT_FD_READ, timer_ready, &server)
                     : nullptr;
    if (server.timer_watch == nullptr) {
        const auto status = static_cast<qerrno>(errno);
        t_error = std::string("cannot make a timer: ") + qerr_strerror(status);
        return status;
    }
    if (const qerrno status = listening_open(path, options, &server.listening, &t_error); status != EOK) {
        return status;
    }
    server.listen_watch =
        event_fd_watch(server.evm, server.listening.socket.get(), EVENT_FD_READ, listen_ready, &server);
    if (server.listen_watch == nullptr) {
        const auto status = static_cast<qerrno>(errno);
        t_error = "cannot watch " + server.listening.path + ": " + qerr_strerror(status);
        return status;
    }
    return EOK;
}

} // namespace

void l2vpn::ipc::server_log(l2vpn_ipc_server &server, int level, const std::string &text)
{
    if (server.callbacks.log != nullptr) {
        server.callbacks.log(&server, level, text.c_str(), server.arg);
    } else {
        vy_syslog(level, "%s", text.c_str());
    }
}

extern "C" qerrno l2vpn_ipc_server_new(event_mgr_p evm, const char *service,
                                       const l2vpn_ipc_server_options_t *options,
                                       const l2vpn_ipc_server_callbacks_t *callbacks, void *arg,
                                       l2vpn_ipc_server_t *server)
{
    try {
        if (evm == nullptr || service == nullptr || server == nullptr || !valid(options, callbacks)) {
            t_error = "a server needs an event manager, a service, callbacks and an MTU of 16 to 1048576";
            return EINVAL;
        }
        char path[sizeof(sockaddr_un::sun_path)];
        if (const qerrno status = platform_service_path(service, path, sizeof path); status != EOK) {
            t_error = std::string("service ") + service + ": " + qerr_strerror(status);
            return status;
        }
        std::unique_ptr<l2vpn_ipc_server, free_server> made(new l2vpn_ipc_server);
        made->evm = evm;
        made->callbacks = *callbacks;
        made->arg = arg;
        made->nodeid = options->nodeid;
        made->mtu = options->mtu != 0 ? options->mtu : l2vpn::platform_posix::config().mtu;
        made->max_peers = options->max_peers != 0 ? options->max_peers : max_peers_default;
        raise_descriptor_limit(made->max_peers);
        if (const qerrno status = start(*made, path, *options); status != EOK) {
            return status;
        }
        if (options->listen_fd >= 0) {
            close(options->listen_fd); /* it has a duplicate */
        }
        t_error.clear();
        *server = made.release();
        return EOK;
    } catch (const std::bad_alloc &) {
        t_error = "out of memory"; /* short enough to need none */
        return ENOMEM;
    }
}

extern "C" const char *l2vpn_ipc_server_error(void)
{
    return t_error.c_str();
}

extern "C" const char *l2vpn_ipc_server_path(l2vpn_ipc_server_t server)
{
    return server->listening.path.c_str();
}

extern "C" void l2vpn_ipc_server_free(l2vpn_ipc_server_t server)
{
    if (server == nullptr) {
        return;
    }
    while (!server->peers.empty()) {
        peer_drop(*server->peers.begin()->second);
    }
    event_fd_unwatch(server->listen_watch);
    event_fd_unwatch(server->timer_watch);
    listening_close(server->listening);
    delete server;
}
