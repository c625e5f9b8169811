#include "drain.h"

#include <algorithm>
#include <err.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t message_max = 1u << 20;

[[noreturn]] void take_all(int socket)
{
    std::vector<char> room(message_max);
    while (recv(socket, room.data(), room.size(), 0) > 0)
        ;
    _exit(0);
}

} // namespace

void fit_socket(int socket, size_t bytes)
{
    const int room = static_cast<int>(std::max<size_t>(128u << 10, 4 * (bytes + 1024)));
    if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0)
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
}

drain::drain()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        err(1, "socketpair");
    process_ = fork();
    if (process_ < 0)
        err(1, "fork");
    if (process_ == 0) {
        close(ends[0]);
        take_all(ends[1]);
    }
    close(ends[1]);
    socket_ = ends[0];
}

drain::~drain()
{
    close(socket_);
    waitpid(process_, nullptr, 0);
}

void drain::put(const iovec *pieces, size_t count)
{
    msghdr header = {};
    header.msg_iov = const_cast<iovec *>(pieces);
    header.msg_iovlen = count;
    if (sendmsg(socket_, &header, MSG_NOSIGNAL) < 0)
        err(1, "sendmsg");
}
