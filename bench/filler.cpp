#include "filler.h"

#include "drain.h"

#include <algorithm>
#include <csignal>
#include <err.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void fill(int socket, stream &from)
{
    for (size_t i = 0;; i = (i + 1) % from.count()) {
        if (send(socket, from[i].data(), from[i].size(), MSG_NOSIGNAL) < 0)
            _exit(0);
    }
}

} // namespace

void stream::add(std::span<const uint64_t> message, size_t size)
{
    places_.push_back({words_.size(), size});
    words_.insert(words_.end(), message.begin(), message.end());
}

size_t stream::longest() const
{
    return std::ranges::max(places_, {}, &place::size).size;
}

void copy_all(stream &from, std::span<std::byte> room)
{
    for (size_t i = 0; i < from.count(); ++i) {
        std::ranges::copy(from[i], room.begin());
        asm volatile("" : : "r"(room.data()) : "memory");
    }
}

filler::filler(stream &from) : room_((from.longest() + 7) / 8)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        err(1, "socketpair");
    fit_socket(ends[1], from.longest());
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ < 0)
        err(1, "fork");
    if (process_ == 0) {
        /* Others that fill inherit this end, so that its loss alone would not tell that nobody takes any more. */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(0);
        close(ends[0]);
        fill(ends[1], from);
    }
    close(ends[1]);
    socket_ = ends[0];
}

filler::~filler()
{
    close(socket_);
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

std::span<std::byte> filler::take()
{
    iovec piece = {room_.data(), room_.size() * sizeof room_[0]};
    msghdr header = {};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    const ssize_t size = recvmsg(socket_, &header, 0);
    if (size <= 0)
        err(1, "recvmsg");
    return {reinterpret_cast<std::byte *>(room_.data()), static_cast<size_t>(size)};
}
