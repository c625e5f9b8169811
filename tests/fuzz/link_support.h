/*
 * What the two targets of the link share: a link whose other end is the target's, and packets for it.
 */
#ifndef TESTS_FUZZ_LINK_SUPPORT_H
#define TESTS_FUZZ_LINK_SUPPORT_H

#include "fuzz.h"

#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace fuzz {

struct socket_pair {
    int ours = -1;
    int theirs = -1;

    socket_pair()
    {
        int ends[2];
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
        ours = ends[0];
        theirs = ends[1];
    }
    ~socket_pair()
    {
        hang_up();
        if (ours >= 0)
            close(ours);
    }
    socket_pair(const socket_pair &) = delete;
    socket_pair &operator=(const socket_pair &) = delete;

    /* True also when nobody is there to take it any more. */
    bool give(bytes packet) const
    {
        return send(theirs, packet.data(), packet.size(), MSG_NOSIGNAL) >= 0 || errno == EPIPE ||
               errno == ECONNRESET;
    }
    void hang_up()
    {
        if (const int fd = std::exchange(theirs, -1); fd >= 0)
            close(fd);
    }
};

/* A length, 255 for one of two bytes behind it, and as many bytes. */
inline bytes take_packet(input &in)
{
    const uint8_t length = in.u8();
    return in.take(length == 255 ? in.u16() : length);
}

} // namespace fuzz

#endif
