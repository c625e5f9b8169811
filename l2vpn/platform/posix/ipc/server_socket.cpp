/*
 * The listening socket and its file.
 *
 * A socket file outlives its server, so a file says nothing about life. A lock file beside it does: it is
 * held for as long as the server lives and the kernel lets go of it when the process dies, however it dies.
 * Only the holder of the lock removes or makes the socket file. Sockets that were made elsewhere and passed
 * in have no lock; that is why a file without a locked lock file is still asked whether anybody listens.
 *
 * The file is made with a mode that admits the owner alone and gets its group and mode when the socket
 * listens: nobody can connect too early, and clients that watch the directory see the change of mode.
 */
#include "server.h"

#include "../config_internal.h"
#include "../file_access.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>

namespace l2vpn::ipc {

namespace {

constexpr mode_t socket_mode_default = 0660;
constexpr mode_t lock_mode = 0600;
constexpr mode_t directory_mode = 0750;
constexpr int lock_attempts = 16;

qerrno failed(std::string *error, qerrno status, const std::string &what)
{
    *error = what + ": " + qerr_strerror(status);
    return status;
}

qerrno failed_errno(std::string *error, const std::string &what)
{
    return failed(error, static_cast<qerrno>(errno), what);
}

qerrno find_group(const char *name, gid_t *group, std::string *error)
{
    const qerrno status = platform_posix::find_group(name, group);
    if (status == EOK) {
        return EOK;
    }
    return failed(error, status,
                  (status == ENOENT ? "no group " : "cannot look up the group ") + std::string(name));
}

qerrno give_access(const std::string &path, const char *group, gid_t group_id, mode_t mode,
                   std::string *error)
{
    using platform_posix::access_fault;
    switch (platform_posix::give_access(path, group_id, mode)) {
    case access_fault::group:
        return failed_errno(error, "cannot give " + path + " to the group " + group);
    case access_fault::mode:
        return failed_errno(error, "cannot set the mode of " + path);
    default:
        return EOK;
    }
}

/* Makes the runtime directory where missing. A new one is opened to the socket's group, or its members could
 * not reach the socket. */
qerrno make_directory(const l2vpn_ipc_server_options_t &options, gid_t group_id, std::string *error)
{
    const std::string &directory = platform_posix::config().runtime_dir;
    struct stat found {};
    const bool is_new = stat(directory.c_str(), &found) != 0;
    if (const qerrno status = platform_posix::make_runtime_dir(*error); status != EOK) {
        return status;
    }
    /* The group gets in whatever the umask took away. */
    return is_new && options.group != nullptr
               ? give_access(directory, options.group, group_id, directory_mode, error)
               : EOK;
}

bool same_file(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

std::string lock_path(const std::string &path)
{
    return path + ".lock";
}

/* Locks the lock file that is there when the lock is held: a server that ends removes its own. */
qerrno take_lock(const std::string &path, unique_fd *taken, std::string *error)
{
    const std::string file = lock_path(path);
    for (int attempt = 0; attempt < lock_attempts; ++attempt) {
        unique_fd lock(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lock_mode));
        if (!lock) {
            return failed_errno(error, "cannot open the lock file " + file);
        }
        int status = 0;
        do {
            status = flock(lock.get(), LOCK_EX | LOCK_NB);
        } while (status != 0 && errno == EINTR);
        if (status != 0 && errno == EWOULDBLOCK) {
            break;
        }
        if (status != 0) {
            return failed_errno(error, "cannot lock " + file);
        }
        struct stat held {};
        struct stat there {};
        if (fstat(lock.get(), &held) == 0 && stat(file.c_str(), &there) == 0 && same_file(held, there)) {
            *taken = std::move(lock);
            return EOK;
        }
    }
    return failed(error, EADDRINUSE, path + " belongs to a server that runs");
}

/* Removes the socket file of a server that died. */
qerrno remove_stale(const std::string &path, std::string *error)
{
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? EOK : failed_errno(error, path);
    }
    if (!S_ISSOCK(found.st_mode)) {
        return failed(error, ENOTSOCK, path + " is in the way");
    }
    const unique_fd probe = link_socket();
    const sockaddr_un address = link_address(path);
    if (!probe) {
        return failed_errno(error, "cannot make a socket");
    }
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN) {
        return failed(error, EADDRINUSE, path + " belongs to a server that runs");
    }
    if (errno != ECONNREFUSED && errno != ENOENT) {
        return failed_errno(error, "cannot tell whose socket " + path + " is");
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT
               ? EOK
               : failed_errno(error, "cannot remove the stale socket " + path);
}

/* Binds, listens and opens the file to its group, in this order. */
qerrno make_socket(const l2vpn_ipc_server_options_t &options, gid_t group_id, listening &made,
                   std::string *error)
{
    const std::string &path = made.path;
    made.socket = link_socket();
    if (!made.socket) {
        return failed_errno(error, "cannot make a socket");
    }
    const sockaddr_un address = link_address(path);
    /* The mode of the descriptor is that of the file it is bound to. */
    if (fchmod(made.socket.get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(made.socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return failed_errno(error, "cannot bind " + path);
    }
    if (lstat(path.c_str(), &made.file) != 0 || !S_ISSOCK(made.file.st_mode)) {
        return failed(error, EADDRINUSE, path + " was taken away");
    }
    if (listen(made.socket.get(), SOMAXCONN) != 0) {
        return failed_errno(error, "cannot listen at " + path);
    }
    const mode_t mode = options.socket_mode != 0 ? options.socket_mode : socket_mode_default;
    return give_access(path, options.group, group_id, mode, error);
}

bool socket_option_is(int fd, int option, int wanted)
{
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 && value == wanted;
}

qerrno take_socket(int fd, listening &taken, std::string *error)
{
    if (!socket_option_is(fd, SO_DOMAIN, AF_UNIX) || !socket_option_is(fd, SO_TYPE, SOCK_SEQPACKET) ||
        !socket_option_is(fd, SO_ACCEPTCONN, 1)) {
        return failed(error, EINVAL,
                      "descriptor " + std::to_string(fd) +
                          " is no listening SOCK_SEQPACKET socket of AF_UNIX");
    }
    const int flags = fcntl(fd, F_GETFL);
    unique_fd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!own || flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return failed_errno(error, "descriptor " + std::to_string(fd));
    }
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 && address.sun_path[0] == '/') {
        taken.path.assign(address.sun_path, strnlen(address.sun_path, sizeof address.sun_path));
    }
    taken.socket = std::move(own);
    return EOK;
}

} // namespace

qerrno listening_open(const std::string &path, const l2vpn_ipc_server_options_t &options, listening *opened,
                      std::string *error)
{
    opened->path = path;
    if (options.listen_fd >= 0) {
        return take_socket(options.listen_fd, *opened, error);
    }
    gid_t group_id = platform_posix::same_group;
    qerrno status = find_group(options.group, &group_id, error);
    if (status == EOK) {
        status = make_directory(options, group_id, error);
    }
    if (status == EOK) {
        status = take_lock(path, &opened->lock, error);
    }
    if (status != EOK) {
        return status;
    }
    status = remove_stale(path, error);
    if (status == EOK) {
        status = make_socket(options, group_id, *opened, error);
    }
    if (status != EOK) {
        listening_close(*opened);
    }
    return status;
}

void listening_close(listening &ended)
{
    if (ended.lock) {
        struct stat there {};
        if (ended.file.st_ino != 0 && lstat(ended.path.c_str(), &there) == 0 &&
            same_file(there, ended.file)) {
            unlink(ended.path.c_str());
        }
        struct stat held {};
        const std::string lock_file = lock_path(ended.path);
        if (fstat(ended.lock.get(), &held) == 0 && lstat(lock_file.c_str(), &there) == 0 &&
            same_file(there, held)) {
            unlink(lock_file.c_str());
        }
        ended.lock.reset();
    }
    ended.socket.reset();
}

} // namespace l2vpn::ipc
