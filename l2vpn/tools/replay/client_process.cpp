#include "client_process.h"

#include "control_link.h"
#include "reap.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace l2vpnctl {

using l2vpn::platform_posix::unique_fd;

namespace {

/* An errno number, and with 0 a descriptor beside it. */
void answer(int to, int status, int descriptor)
{
    iovec piece{&status, sizeof status};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptor)> room{};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (status == 0) {
        message.msg_control = room.data();
        message.msg_controllen = room.size();
        cmsghdr *const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof descriptor);
        memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    }
    static_cast<void>(sendmsg(to, &message, MSG_NOSIGNAL)); /* whoever asked and is gone needs none */
}

/* Connects once for each byte that comes, and lives as long as the other end. */
[[noreturn]] void serve(int asked, const sockaddr_un &address)
{
    signal(SIGINT, SIG_IGN); /* the other end is told, and closes */
    signal(SIGHUP, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    if (dup2(asked, 3) < 0 || close_range(4, ~0U, 0) != 0) {
        _exit(1);
    }
    char request = 0;
    while (read(3, &request, 1) == 1) {
        const int made = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const bool good =
            made >= 0 && ::connect(made, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        answer(3, good ? 0 : errno, made);
        close(made);
    }
    _exit(0);
}

} // namespace

client_process::client_process(const std::string &path)
{
    std::array<int, 2> ends{};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw failure{exit_failed, std::string("cannot stand for another client: ") + strerror(errno)};
    }
    m_socket.reset(ends[0]);
    const unique_fd other(ends[1]);
    m_pid = fork();
    if (m_pid == 0) {
        serve(other.get(), address);
    }
    if (m_pid < 0) {
        throw failure{exit_failed, std::string("cannot stand for another client: ") + strerror(errno)};
    }
}

client_process::~client_process()
{
    kill(m_pid, SIGKILL); /* which may wait in connect() */
    reap(m_pid);
}

unique_fd client_process::connect(std::chrono::milliseconds patience)
{
    const char request = 0;
    pollfd ready{m_socket.get(), POLLIN, 0};
    int status = 0;
    iovec piece{&status, sizeof status};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> room{};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = room.data();
    message.msg_controllen = room.size();
    if (::send(m_socket.get(), &request, 1, MSG_NOSIGNAL) != 1 ||
        poll(&ready, 1, static_cast<int>(patience.count())) <= 0 ||
        recvmsg(m_socket.get(), &message, MSG_CMSG_CLOEXEC) != sizeof status) {
        throw failure{exit_unreachable, "l2vpnd takes no new link in time"};
    }
    int made = -1;
    if (const cmsghdr *const head = CMSG_FIRSTHDR(&message); status == 0 && head != nullptr) {
        memcpy(&made, CMSG_DATA(head), sizeof made);
    } else {
        throw failure{exit_unreachable, std::string("cannot reach l2vpnd: ") + strerror(status)};
    }
    return unique_fd(made);
}

} // namespace l2vpnctl
