/*
 * Linked into an l2vpnd, this has it die of a DELETE that names the AC 0xDEAD, when it receives it.
 */
#include "interposed.h"

#include <csignal>
#include <string_view>
#include <sys/socket.h>

#pragma GCC visibility push(default)
extern "C" ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    static constexpr std::string_view what("\0\0\0\3\0\0\0\6\0\0\0\1", 12);
    static constexpr std::string_view whom("\0\0\xde\xad", 4);
    constexpr size_t length = 20; /* its flags between the two do not count */
    const auto got = interposed::pass_on<ssize_t>("recvmsg", fd, message, flags);
    const std::string_view bytes(static_cast<const char *>(message->msg_iov->iov_base),
                                 got == static_cast<ssize_t>(length) ? length : 0);
    if (bytes.starts_with(what) && bytes.ends_with(whom)) {
        raise(SIGKILL); /* as any other signal, and it leaves no core */
    }
    return got;
}
#pragma GCC visibility pop
