/*
 * One peer of the server: its greeting, its messages, its queue, its end.
 */
#include "server.h"

#include "probe.h"

#include <cerrno>
#include <sys/socket.h>
#include <syslog.h>

namespace l2vpn::ipc {

namespace {

using peer_state = l2vpn_ipc_peer::peer_state;

constexpr int packets_a_dispatch = 32; /* of one peer */
constexpr int sends_a_dispatch = 128;  /* to one peer */
constexpr uint32_t pieces_max = 1024;  /* what the kernel takes in one call */

void record(const l2vpn_ipc_peer &peer, capture::record_kind kind, capture::flow direction, qerrno status,
            const iovec *pieces = nullptr, uint32_t count = 0)
{
    if (!capture::is_off()) {
        const l2vpn_ipc_peer_info_t &info = peer.info;
        capture::record(kind, direction,
                        {peer.greeted ? info.class_id : capture::no_class, info.nodeid, info.peer_id,
                         static_cast<uint32_t>(info.pid), info.uid, peer.name.data()},
                        status, pieces, count);
    }
}

void record_sent(const l2vpn_ipc_peer &peer, qerrno status, const iovec *pieces, uint32_t count)
{
    record(peer, capture::record_kind::message, capture::flow::to_owner, status, pieces, count);
}

void record_end(l2vpn_ipc_peer &peer, qerrno reason)
{
    if (peer.state == peer_state::open && !std::exchange(peer.end_recorded, true)) {
        record(peer, capture::record_kind::link_down, capture::flow::none, reason);
    }
}

void end(l2vpn_ipc_peer &peer, qerrno reason)
{
    if (peer.state == peer_state::open) {
        record_end(peer, reason);
        peer.server.callbacks.closed(&peer.server, &peer, reason, peer.server.arg);
    }
    peer_drop(peer);
}

void want_room(l2vpn_ipc_peer &peer, bool wanted)
{
    event_fd_modify(peer.watch, wanted ? EVENT_FD_READ | EVENT_FD_WRITE : EVENT_FD_READ);
}

/* The socket is full, or the kernel short of memory: the message waits in the peer's queue. */
bool must_wait(qerrno status)
{
    return status == EAGAIN || status == ENOBUFS || status == ENOMEM;
}

/* Sends what waits. A broken link is left to the reader, which finds its end. */
void flush(l2vpn_ipc_peer &peer)
{
    for (int sent = 0; sent < sends_a_dispatch && !peer.queue.empty(); ++sent) {
        const iovec message = peer.queue.at(0);
        const qerrno status = peer.connection.try_send(&message, 1);
        if (must_wait(status)) {
            break;
        }
        record_sent(peer, status, &message, 1);
        if (status != EOK) {
            peer.connection.hang_up(status);
            peer.queue.clear();
            break;
        }
        peer.queue.pop();
    }
    want_room(peer, !peer.queue.empty());
}

/* A message that waits is as good as sent: the peer gets it, or its link ends. It is recorded when it goes out. */
qerrno send_or_queue(l2vpn_ipc_peer &peer, const iovec *pieces, uint32_t count, size_t length)
{
    if (peer.state == peer_state::open && peer.queue.empty()) {
        const qerrno status = peer.connection.try_send(pieces, count);
        if (status != EOK && !must_wait(status)) {
            peer.connection.hang_up(status);
        }
        if (!must_wait(status)) {
            record_sent(peer, status, pieces, count);
            return status;
        }
    }
    const qerrno status = peer.queue.push(pieces, count, length);
    if (status != EOK) {
        record_sent(peer, status, pieces, count);
    } else if (peer.queue.size() == 1) {
        want_room(peer, true);
    }
    return status;
}

/* A peer that cannot be told begins anew: it must not wait for what never comes. */
void answer(l2vpn_ipc_peer &peer, qerrno status)
{
    const greeting wire =
        greeting_swap({link_magic, link_version, static_cast<uint16_t>(greeting_kind::answer),
                       peer.info.class_id, peer.server.nodeid, peer.info.mtu, status});
    iovec piece{const_cast<greeting *>(&wire), sizeof wire};
    if (const qerrno sent = peer.connection.try_send(&piece, 1); sent != EOK) {
        peer.connection.hang_up(sent);
    }
}

/* False: the peer is gone. */
bool greet(l2vpn_ipc_peer &peer, const void *bytes, const packet &received)
{
    l2vpn_ipc_server &server = peer.server;
    greeting hello{};
    qerrno status = EPROTO;
    if (received.kind == packet_kind::message) {
        status = greeting_read(bytes, received.length, greeting_kind::hello, &hello);
    }
    if (status == EPROTONOSUPPORT) {
        peer_refuse(peer, status, LOG_ERR,
                    "has version " + std::to_string(hello.version) + " of the link, not " +
                        std::to_string(link_version));
        return false;
    }
    if (status != EOK || hello.mtu < message_min) {
        peer_refuse(peer, EPROTO, LOG_ERR,
                    "sent garbage of " + std::to_string(received.length) + " bytes for a greeting");
        return false;
    }
    peer.greeted = true;
    peer.info.class_id = hello.class_id;
    peer.info.nodeid = hello.nodeid;
    if (hello.mtu > peer.info.mtu) {
        peer_refuse(peer, EMSGSIZE, LOG_ERR,
                    "sends up to " + std::to_string(hello.mtu) + " bytes a message, more than the " +
                        std::to_string(peer.info.mtu) + " of this server");
        return false;
    }
    peer.info.mtu = hello.mtu;
    if (!capture::is_off()) {
        peer.name = capture::name_of_process(peer.info.pid);
    }
    status = server.callbacks.accept(&server, &peer, &peer.info, server.arg);
    if (peer.state == peer_state::dropped) {
        return false;
    }
    if (status != EOK) {
        peer_refuse(peer, status, LOG_WARNING, "is refused");
        return false;
    }
    answer(peer, EOK);
    peer.state = peer_state::open;
    record(peer, capture::record_kind::link_up, capture::flow::none, EOK);
    flush(peer);
    return true;
}

void record_received(const l2vpn_ipc_peer &peer, void *buffer, uint32_t length)
{
    const iovec message{buffer, length};
    L2VPN_PROBE(l2vpn_platform, message__received, peer.info.class_id, uint64_t{length}, buffer,
                peer.info.peer_id);
    record(peer, capture::record_kind::message, capture::flow::to_process, EOK, &message, 1);
}

/* Takes the next packet. False: there is none, or the peer is gone. */
bool read_packet(l2vpn_ipc_peer &peer)
{
    l2vpn_ipc_server &server = peer.server;
    const bool open = peer.state == peer_state::open;
    alignas(8) char room[greeting_room];
    void *buffer = open ? static_cast<void *>(server.buffer.get()) : room;
    const packet received = peer.connection.receive(buffer, open ? peer.info.mtu : greeting_room);
    switch (received.kind) {
    case packet_kind::nothing:
        return false;
    case packet_kind::end:
        end(peer, peer.connection.cause());
        return false;
    case packet_kind::message:
        if (!open) {
            return greet(peer, buffer, received);
        }
        record_received(peer, buffer, received.length);
        server.callbacks.message(&server, &peer, buffer, received.length, server.arg);
        return peer.state != peer_state::dropped;
    default:
        if (!open) {
            return greet(peer, buffer, received);
        }
        server_log(server, LOG_ERR, peer_name(peer) + " sent " + packet_fault(received, peer.info.mtu));
        end(peer, EPROTO);
        return false;
    }
}

} // namespace

std::string peer_name(const l2vpn_ipc_peer &peer)
{
    const l2vpn_ipc_peer_info_t &info = peer.info;
    return "peer " + std::to_string(info.peer_id) + " (pid " + std::to_string(info.pid) + ", uid " +
           std::to_string(info.uid) +
           (peer.state == peer_state::open ? ", class " + std::to_string(info.class_id) + ")" : ")");
}

void peer_drop(l2vpn_ipc_peer &peer)
{
    if (peer.state == peer_state::dropped) {
        return;
    }
    l2vpn_ipc_server &server = peer.server;
    record_end(peer, ECANCELED);
    peer.state = peer_state::dropped;
    event_fd_unwatch(std::exchange(peer.watch, nullptr));
    peer.connection.hang_up(ECANCELED);
    peer.queue.clear();
    const auto found = server.peers.find(peer.info.peer_id);
    std::unique_ptr<l2vpn_ipc_peer> last = std::move(found->second);
    server.peers.erase(found);
    server.full_told = false;
    if (server.handlers > 0) {
        server.dropped.push_back(std::move(last));
    }
}

void peer_refuse(l2vpn_ipc_peer &peer, qerrno status, int level, const std::string &why)
{
    server_log(peer.server, level, peer_name(peer) + " " + why + ": " + qerr_strerror(status));
    record(peer, capture::record_kind::link_refused, capture::flow::none, status);
    answer(peer, status);
    peer_drop(peer);
}

void peer_ready(event_fd_watch_t *, int, uint32_t events, void *arg)
{
    auto &peer = *static_cast<l2vpn_ipc_peer *>(arg);
    const handler_scope scope(peer.server);
    if ((events & EVENT_FD_WRITE) != 0) {
        flush(peer);
    }
    for (int read = 0; read < packets_a_dispatch && read_packet(peer); ++read) {
    }
}

} // namespace l2vpn::ipc

using namespace l2vpn::ipc;

extern "C" qerrno l2vpn_ipc_server_sendv(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer,
                                         const struct iovec *pieces, uint32_t count)
{
    if (server == nullptr || peer == nullptr || pieces == nullptr || count > pieces_max) {
        return EINVAL;
    }
    size_t length = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (__builtin_add_overflow(length, pieces[i].iov_len, &length)) {
            return EMSGSIZE;
        }
    }
    if (length < message_min) {
        return EINVAL;
    }
    if (length > peer->info.mtu) {
        return EMSGSIZE;
    }
    if (peer->state == peer_state::dropped) {
        return ENOTCONN;
    }
    const qerrno status = send_or_queue(*peer, pieces, count, length);
    L2VPN_PROBE(l2vpn_platform, message__sent, peer->info.class_id, length, status, pieces->iov_base,
                peer->info.peer_id);
    return status;
}

extern "C" uint64_t l2vpn_ipc_server_queued(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer)
{
    return peer == nullptr ? 0 : peer->queue.bytes();
}

extern "C" void l2vpn_ipc_server_close(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer)
{
    if (peer != nullptr) {
        peer_drop(*peer);
    }
}

extern "C" void l2vpn_ipc_peer_set_arg(l2vpn_ipc_peer_t peer, void *arg)
{
    peer->arg = arg;
}

extern "C" void *l2vpn_ipc_peer_get_arg(l2vpn_ipc_peer_t peer)
{
    return peer->arg;
}

extern "C" const l2vpn_ipc_peer_info_t *l2vpn_ipc_peer_get_info(l2vpn_ipc_peer_t peer)
{
    return &peer->info;
}
