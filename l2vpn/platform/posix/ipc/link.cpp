#include "link.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace l2vpn::ipc {

namespace {

constexpr uint32_t messages_in_socket = 4;
constexpr uint32_t socket_room_min = 128u << 10;
constexpr uint32_t packet_overhead = 1024; /* the kernel's own bookkeeping, which counts as well */
constexpr uint32_t packet_reserve = 32;    /* what the kernel holds back of a socket's room */

/* Waits until the socket takes messages again. False when `deadline` has passed. */
bool wait_for_room(int fd, std::chrono::steady_clock::time_point deadline)
{
    using std::chrono::ceil;
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd room{fd, POLLOUT, 0};
        const int ready = poll(&room, 1, static_cast<int>(left));
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true;
        }
    }
}

} // namespace

greeting greeting_swap(const greeting &from)
{
    return {htonl(from.magic),  htons(from.version), htons(from.kind),  htonl(from.class_id),
            htonl(from.nodeid), htonl(from.mtu),     htonl(from.status)};
}

qerrno greeting_read(const void *packet, uint32_t length, greeting_kind expected, greeting *read)
{
    greeting wire{};
    memcpy(&wire, packet, std::min<size_t>(length, sizeof wire));
    *read = greeting_swap(wire);
    if (length < offsetof(greeting, class_id) || read->magic != link_magic) {
        return EPROTO;
    }
    if (read->version != link_version) {
        return EPROTONOSUPPORT;
    }
    return length == sizeof wire && read->kind == static_cast<uint16_t>(expected) ? EOK : EPROTO;
}

std::string packet_fault(const packet &faulty, uint32_t mtu)
{
    switch (faulty.kind) {
    case packet_kind::empty:
        return "an empty packet";
    case packet_kind::runt:
        return "a packet of " + std::to_string(faulty.length) + " bytes, shorter than a message's header";
    case packet_kind::oversize:
        return "a packet of " + std::to_string(faulty.length) + " bytes, longer than the MTU of " +
               std::to_string(mtu);
    default:
        return "nothing wrong";
    }
}

bool link::note(qerrno cause)
{
    qerrno none = EOK;
    return cause_.compare_exchange_strong(none, cause, std::memory_order_acq_rel);
}

/* A receive of no bytes is an empty packet or the end of the link. Once the peer is gone, only a packet
 * behind it can tell the two apart; at the very end there is nothing left to lose. */
bool link::peer_is_gone() const
{
    pollfd state{socket_.get(), POLLRDHUP, 0};
    if (poll(&state, 1, 0) == 0) {
        return false;
    }
    char next = 0;
    return recv(socket_.get(), &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

packet link::receive(void *buffer, uint32_t size)
{
    for (bool reset = false;;) {
        iovec piece{buffer, size};
        msghdr header{};
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        const ssize_t got = recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_TRUNC);
        if (got > 0) {
            const auto length = static_cast<uint32_t>(got);
            if ((header.msg_flags & MSG_TRUNC) != 0) {
                return {packet_kind::oversize, length};
            }
            return {length < message_min ? packet_kind::runt : packet_kind::message, length};
        }
        if (got == 0) {
            return {peer_is_gone() ? packet_kind::end : packet_kind::empty, 0};
        }
        if (errno == EAGAIN) {
            return {packet_kind::nothing, 0};
        }
        if (errno == EINTR) {
            continue;
        }
        const bool first_reset = errno == ECONNRESET && !reset;
        note(static_cast<qerrno>(errno));
        if (!first_reset) {
            return {packet_kind::end, 0};
        }
        reset = true;
    }
}

qerrno link::try_send(const iovec *pieces, uint32_t count)
{
    msghdr header{};
    header.msg_iov = const_cast<iovec *>(pieces);
    header.msg_iovlen = count;
    for (;;) {
        if (sendmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return EOK;
        }
        switch (errno) {
        case EINTR:
            break;
        case EPIPE:
        case ECONNRESET:
        case ENOTCONN:
            hang_up(static_cast<qerrno>(errno));
            return ENOTCONN;
        default:
            return static_cast<qerrno>(errno);
        }
    }
}

qerrno link::send(const iovec *pieces, uint32_t count, uint32_t timeout_ms)
{
    qerrno status = try_send(pieces, count);
    if (status == EAGAIN) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (status == EAGAIN && wait_for_room(socket_.get(), deadline)) {
            status = try_send(pieces, count);
        }
    }
    return status == EAGAIN ? qerrno{ETIMEDOUT} : status;
}

void link::hang_up(qerrno cause)
{
    note(cause);
    shutdown(socket_.get(), SHUT_RDWR);
}

unique_fd link_socket()
{
    return unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

uint32_t link_fit_mtu(int fd, uint32_t mtu)
{
    const int wanted = static_cast<int>(
        std::max(socket_room_min, messages_in_socket * (std::min(mtu, mtu_max) + packet_overhead)));
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof wanted) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
    }
    int room = 0;
    socklen_t size = sizeof room;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &size) != 0 || room <= 0) {
        return mtu;
    }
    return std::min(mtu, static_cast<uint32_t>(room) - packet_reserve);
}

sockaddr_un link_address(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

} // namespace l2vpn::ipc
