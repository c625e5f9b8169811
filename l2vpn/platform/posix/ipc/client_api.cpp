/*
 * The calls of <platform/ipc.h>. What happens on the event thread is in client.cpp and client_link.cpp;
 * client.h says who may touch what.
 */
#include "client.h"

#include "../capture/capture.h"
#include "../config_internal.h"
#include "probe.h"

#include <cerrno>
#include <platform/config.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>

using namespace l2vpn::ipc;

namespace {

constexpr uint32_t message_pieces_max = 16;

/* All clients, so that tools that look for lost memory find them. */
std::atomic<l2vpn_ipc_client *> s_clients{nullptr};

qerrno last_errno()
{
    return errno != 0 ? static_cast<qerrno>(errno) : qerrno{EIO};
}

bool add_to_set(const l2vpn_ipc_client &client, int fd, uint64_t key)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = key;
    return epoll_ctl(client.epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

qerrno open_descriptors(l2vpn_ipc_client &client)
{
    client.epoll = unique_fd(epoll_create1(EPOLL_CLOEXEC));
    client.timer = unique_fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const unique_fd probe = link_socket();
    if (!client.epoll || !client.timer || !probe || !add_to_set(client, client.timer.get(), key_timer)) {
        return last_errno();
    }
    client.mtu = link_fit_mtu(probe.get(), client.mtu);
    client.inotify = unique_fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (client.inotify && !add_to_set(client, client.inotify.get(), key_directory)) {
        client.inotify = unique_fd();
    }
    return EOK;
}

qerrno make_client(event_mgr_p evm, const char *service, const char *path, l2vpn_ipc_client_t *made)
{
    auto client = std::make_unique<l2vpn_ipc_client>();
    client->evm = evm;
    client->service = service;
    client->path = path;
    const size_t slash = client->path.rfind('/');
    client->directory = client->path.substr(0, slash);
    client->file = client->path.substr(slash + 1);
    client->mtu = l2vpn::platform_posix::config().mtu;
    client->send_timeout_ms = l2vpn::platform_posix::config().send_timeout_ms;
    if (const qerrno status = open_descriptors(*client); status != EOK) {
        return status;
    }
    client->buffer = std::make_unique<uint64_t[]>(client->mtu / sizeof(uint64_t) + 1);
    client->jitter.seed(static_cast<uint32_t>(steady::now().time_since_epoch().count()) ^
                        static_cast<uint32_t>(getpid()));
    client->next = s_clients.load();
    while (!s_clients.compare_exchange_weak(client->next, client.get())) {
    }
    *made = client.release();
    return EOK;
}

qerrno add_class(l2vpn_ipc_client &client, const registration_ptr &added)
{
    const std::lock_guard guard(client.lock);
    const auto [at, is_new] = client.classes.emplace(added->class_id, added);
    if (!is_new) {
        return EEXIST;
    }
    if (client.watch == nullptr) {
        client.watch = event_fd_watch(client.evm, client.epoll.get(), EVENT_FD_READ, client_ready, &client);
        if (client.watch == nullptr) {
            const qerrno status = last_errno();
            client.classes.erase(at);
            return status;
        }
    }
    client_arm_timer(client);
    return EOK;
}

registration_ptr find_class(const l2vpn_ipc_client &client, uint32_t class_id)
{
    const auto found = client.classes.find(class_id);
    return found == client.classes.end() ? nullptr : found->second;
}

/* The length of a message in pieces, or 0 if it is none. */
uint64_t message_length(const iovec *pieces, uint32_t count)
{
    if (pieces == nullptr || count == 0 || count > message_pieces_max) {
        return 0;
    }
    uint64_t length = 0;
    for (const iovec *piece = pieces; piece != pieces + count; ++piece) {
        if (piece->iov_base == nullptr && piece->iov_len > 0) {
            return 0;
        }
        if (__builtin_add_overflow(length, piece->iov_len, &length)) {
            length = UINT64_MAX;
            break;
        }
    }
    return length >= message_min ? length : 0;
}

/* Whose message it is, and the link that it was given to. */
struct sending {
    registration_ptr from;
    link_ptr on;
    bool waits = false; /* it is recorded when it goes out */
};

qerrno send_or_queue(l2vpn_ipc_client &client, uint32_t class_id, const iovec *pieces, uint32_t count,
                     uint64_t length, sending &what)
{
    {
        const std::lock_guard guard(client.lock);
        what.from = find_class(client, class_id);
        if (!what.from) {
            return ENOENT;
        }
        registration &from = *what.from;
        if (length > from.mtu) {
            return EMSGSIZE;
        }
        if (from.state != link_state::up) {
            const qerrno status = from.was_up ? qerrno{ENOTCONN} : from.queue.push(pieces, count, length);
            what.waits = status == EOK;
            return status;
        }
        what.on = from.connection;
    }
    const qerrno status = what.on->send(pieces, count, client.send_timeout_ms);
    if (status != EOK) {
        what.on->hang_up(status);
    }
    return status == ENOTCONN && what.on->cause() == ENOENT ? qerrno{ENOENT} : status;
}

} // namespace

extern "C" qerrno l2vpn_ipc_client_init(event_mgr_p evm, const char *service, l2vpn_ipc_client_t *client)
{
    if (evm == nullptr || service == nullptr || client == nullptr) {
        return EINVAL;
    }
    char path[sizeof(sockaddr_un::sun_path)];
    if (const qerrno status = platform_service_path(service, path, sizeof path); status != EOK) {
        return status;
    }
    try {
        l2vpn::capture::begin_owner();
        return make_client(evm, service, path, client);
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

extern "C" qerrno l2vpn_ipc_class_init(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t nodeid,
                                       l2vpn_ipc_msg_cb_t msg_cb, l2vpn_ipc_evt_cb_t evt_cb, void *,
                                       void *cookie)
{
    if (client == nullptr || msg_cb == nullptr || evt_cb == nullptr) {
        return EINVAL;
    }
    try {
        const auto added = std::make_shared<registration>();
        added->class_id = class_id;
        added->nodeid = nodeid;
        added->msg_cb = msg_cb;
        added->evt_cb = evt_cb;
        added->cookie = cookie;
        added->mtu = client->mtu;
        added->deadline = steady::now();
        return add_class(*client, added);
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

extern "C" qerrno l2vpn_ipc_class_deinit(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t)
{
    if (client == nullptr) {
        return EINVAL;
    }
    registration_ptr gone;
    link_ptr connection;
    bool was_up = false;
    {
        const std::lock_guard guard(client->lock);
        gone = find_class(*client, class_id);
        if (!gone) {
            return ENOENT;
        }
        client->classes.erase(class_id);
        gone->withdrawn = true;
        was_up = gone->state == link_state::up;
        connection = client_detach_link(*client, *gone);
        client_arm_timer(*client);
        if (client->classes.empty()) {
            event_fd_unwatch(std::exchange(client->watch, nullptr));
        }
    }
    if (connection) {
        connection->hang_up(ENOENT);
    }
    if (was_up) {
        client_record(*gone, connection.get(), l2vpn::capture::record_kind::link_down,
                      l2vpn::capture::flow::none, ECANCELED);
    }
    return EOK;
}

extern "C" qerrno l2vpn_ipc_transport_mtu_get(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t *mtu)
{
    if (client == nullptr || mtu == nullptr) {
        return EINVAL;
    }
    const std::lock_guard guard(client->lock);
    const registration_ptr of = find_class(*client, class_id);
    if (!of) {
        return ENOENT;
    }
    *mtu = of->mtu;
    return EOK;
}

extern "C" qerrno l2vpn_ipc_ucastv(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                                   const struct iovec *pieces, uint32_t count, uint32_t)
{
    const uint64_t length = message_length(pieces, count);
    if (client == nullptr || length == 0 || destination != L2VPN_IPC_DEST_L2VPN) {
        return EINVAL;
    }
    sending what;
    const qerrno status = send_or_queue(*client, class_id, pieces, count, length, what);
    L2VPN_PROBE(l2vpn_platform, message__sent, class_id, length, status, pieces->iov_base, uint64_t{0});
    if (what.from && !what.waits) {
        client_record(*what.from, what.on.get(), l2vpn::capture::record_kind::message,
                      l2vpn::capture::flow::to_process, status, pieces, count);
    }
    return status;
}

extern "C" qerrno l2vpn_ipc_ucast(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                                  const void *message, uint32_t length, uint32_t options)
{
    const iovec piece{const_cast<void *>(message), length};
    return l2vpn_ipc_ucastv(client, class_id, destination, &piece, 1, options);
}
