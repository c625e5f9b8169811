#include "supervisor.h"

#include <cstring>
#include <platform/qerr.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

namespace l2vpnd {

namespace {

/* Empty: it has no place in the file system. */
std::string path_of(int fd)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0 || address.sun_path[0] != '/') {
        return {};
    }
    return {address.sun_path, strnlen(address.sun_path, sizeof address.sun_path)};
}

bool listens(int fd, int type)
{
    return sd_is_socket_unix(fd, type, 1, nullptr, 0) > 0;
}

} // namespace

bool take_passed_sockets(passed_sockets *passed, std::string *error)
{
    const int count = sd_listen_fds(1);
    if (count < 0) {
        *error = std::string("cannot take the sockets that were passed in: ") +
                 qerr_strerror(static_cast<qerrno>(-count));
        return false;
    }
    for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; fd++) {
        int *const place = listens(fd, SOCK_SEQPACKET) ? &passed->owners
                           : listens(fd, SOCK_STREAM)  ? &passed->operators
                                                       : nullptr;
        const std::string path = path_of(fd);
        const char *const wrong = place == nullptr ? "is no listening Unix socket of packets or a stream"
                                  : *place >= 0    ? "is one too many of its kind"
                                  : path.empty()   ? "has no path"
                                                   : nullptr;
        if (wrong != nullptr) {
            *error = "descriptor " + std::to_string(fd) + ", which was passed in, " + wrong;
            return false;
        }
        *place = fd;
        if (place == &passed->operators) {
            passed->operators_path = path;
        }
    }
    return true;
}

void tell_ready(const std::string &where)
{
    sd_notifyf(0, "%s\nSTATUS=Serving on %s", "READY=1", where.c_str());
}

void tell_reloading()
{
    sd_notify(0, "RELOADING=1");
}

void tell_stopping()
{
    sd_notify(0, "STOPPING=1");
}

} // namespace l2vpnd
