/*
 * The link by hand, knowing nothing of the platform's own code for it.
 */
#include "harness.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

uint32_t get(const ipc_test::bytes &from, size_t offset, size_t width)
{
    uint32_t value = 0;
    for (size_t i = 0; i < width; ++i) {
        value = value << 8 | from.at(offset + i);
    }
    return value;
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

} // namespace

namespace ipc_test {

void raw_socket::reset()
{
    if (fd_ >= 0) {
        close(std::exchange(fd_, -1));
    }
}

raw_socket raw_socket::listen_at(const std::string &path)
{
    raw_socket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_un address = address_of(path);
    unlink(path.c_str()); /* that of the same test when it ran before */
    EXPECT_EQ(bind(made.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(made.fd(), 16), 0);
    return made;
}

raw_socket raw_socket::connect_to(const std::string &path)
{
    raw_socket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_un address = address_of(path);
    EXPECT_EQ(connect(made.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0)
        << strerror(errno);
    return made;
}

raw_socket raw_socket::accept() const
{
    return raw_socket(accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

bool raw_socket::send(const bytes &packet) const
{
    return ::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

bool raw_socket::receive(bytes *packet) const
{
    packet->resize(1u << 21);
    ssize_t got = 0;
    do {
        got = recv(fd_, packet->data(), packet->size(), 0);
    } while (got < 0 && errno == ECONNRESET);
    packet->resize(got > 0 ? static_cast<size_t>(got) : 0);
    return got >= 0;
}

bool raw_socket::at_end() const
{
    pollfd state{fd_, POLLRDHUP, 0};
    bytes rest;
    return poll(&state, 1, 0) == 1 && receive(&rest) && rest.empty();
}

bytes greeting_bytes(const greeting_fields &fields)
{
    bytes made;
    put(made, fields.magic, 4);
    put(made, fields.version, 2);
    put(made, fields.kind, 2);
    put(made, fields.class_id, 4);
    put(made, fields.nodeid, 4);
    put(made, fields.mtu, 4);
    put(made, fields.status, 4);
    return made;
}

greeting_fields greeting_of(const bytes &packet)
{
    if (packet.size() != 24) {
        ADD_FAILURE() << "a greeting of " << packet.size() << " bytes";
        return {};
    }
    return {get(packet, 0, 4),
            static_cast<uint16_t>(get(packet, 4, 2)),
            static_cast<uint16_t>(get(packet, 6, 2)),
            get(packet, 8, 4),
            get(packet, 12, 4),
            get(packet, 16, 4),
            get(packet, 20, 4)};
}

bool raw_server::take_hello()
{
    peer.reset();
    bytes packet;
    const bool taken = loop_.until([&] {
        if (!peer.is_open()) {
            peer = listener_.accept();
        }
        return peer.is_open() && peer.receive(&packet);
    });
    if (taken) {
        hello = greeting_of(packet);
    }
    return taken;
}

bool raw_server::answer(greeting_fields fields)
{
    return peer.send(greeting_bytes(fields));
}

} // namespace ipc_test
