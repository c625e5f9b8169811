#include "interposed.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

using interposed::cause_of;
using interposed::pass_on;

template <typename Result = int, typename... Arguments>
Result fail_or_pass_on(const char *call, Arguments... arguments)
{
    if (const int cause = cause_of(call); cause != 0) {
        errno = cause;
        return Result{-1};
    }
    return pass_on<Result>(call, arguments...);
}

/* An eventfd, a timerfd, a signalfd or an inotify descriptor: what has no type of file. */
bool counts_events(int fd)
{
    struct stat found {};
    return fstat(fd, &found) == 0 && (found.st_mode & S_IFMT) == 0;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return fail_or_pass_on("socket", domain, type, protocol);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    return fail_or_pass_on("bind", fd, address, size);
}

int listen(int fd, int backlog) noexcept
{
    return fail_or_pass_on("listen", fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return fail_or_pass_on("connect", fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    return fail_or_pass_on("accept4", fd, address, size, flags);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return fail_or_pass_on<ssize_t>("sendmsg", fd, message, flags);
}

ssize_t send(int fd, const void *buffer, size_t size, int flags)
{
    return fail_or_pass_on<ssize_t>("send", fd, buffer, size, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return fail_or_pass_on<ssize_t>("recvmsg", fd, message, flags);
}

ssize_t recv(int fd, void *buffer, size_t size, int flags)
{
    return fail_or_pass_on<ssize_t>("recv", fd, buffer, size, flags);
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept
{
    return fail_or_pass_on("getsockopt", fd, level, option, value, size);
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t size) noexcept
{
    return fail_or_pass_on("setsockopt", fd, level, option, value, size);
}

int getsockname(int fd, sockaddr *address, socklen_t *size) noexcept
{
    return fail_or_pass_on("getsockname", fd, address, size);
}

int shutdown(int fd, int how) noexcept
{
    return fail_or_pass_on("shutdown", fd, how);
}

int poll(pollfd *fds, nfds_t count, int timeout)
{
    return fail_or_pass_on("poll", fds, count, timeout);
}

int epoll_create1(int flags) noexcept
{
    return fail_or_pass_on("epoll_create1", flags);
}

/* Only what is added needs memory. */
int epoll_ctl(int set, int operation, int fd, epoll_event *event) noexcept
{
    return operation == EPOLL_CTL_ADD ? fail_or_pass_on("epoll_ctl", set, operation, fd, event)
                                      : pass_on<int>("epoll_ctl", set, operation, fd, event);
}

int epoll_wait(int set, epoll_event *events, int count, int timeout)
{
    return fail_or_pass_on("epoll_wait", set, events, count, timeout);
}

int eventfd(unsigned count, int flags) noexcept
{
    return fail_or_pass_on("eventfd", count, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    return fail_or_pass_on("timerfd_create", clock, flags);
}

int signalfd(int fd, const sigset_t *mask, int flags) noexcept
{
    return fail_or_pass_on("signalfd", fd, mask, flags);
}

int inotify_init1(int flags) noexcept
{
    return fail_or_pass_on("inotify_init1", flags);
}

int inotify_add_watch(int fd, const char *path, uint32_t events) noexcept
{
    return fail_or_pass_on("inotify_add_watch", fd, path, events);
}

/* Files are read whole, or there is no file. */
ssize_t read(int fd, void *buffer, size_t size)
{
    return counts_events(fd) ? fail_or_pass_on<ssize_t>("read", fd, buffer, size)
                             : pass_on<ssize_t>("read", fd, buffer, size);
}

int open(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return std::string_view(path).ends_with(".profraw") /* coverage's own */
               ? pass_on<int>("open", path, flags, mode)
               : fail_or_pass_on("open", path, flags, mode);
}

/* No call of the platform's gives it a pointer. */
int fcntl(int fd, int command, ...)
{
    va_list values;
    va_start(values, command);
    void *const value = va_arg(values, void *);
    va_end(values);
    return fail_or_pass_on("fcntl", fd, command, value);
}

int flock(int fd, int operation) noexcept
{
    return fail_or_pass_on("flock", fd, operation);
}

int fchmod(int fd, mode_t mode) noexcept
{
    return fail_or_pass_on("fchmod", fd, mode);
}

int chmod(const char *path, mode_t mode) noexcept
{
    return fail_or_pass_on("chmod", path, mode);
}

int lchown(const char *path, uid_t user, gid_t group) noexcept
{
    return fail_or_pass_on("lchown", path, user, group);
}

int mkdir(const char *path, mode_t mode) noexcept
{
    return fail_or_pass_on("mkdir", path, mode);
}

int unlink(const char *path) noexcept
{
    return fail_or_pass_on("unlink", path);
}

int lstat(const char *path, struct stat *found) noexcept
{
    return fail_or_pass_on("lstat", path, found);
}

/* These two return their cause. That a group is not there is none. */
int getgrnam_r(const char *name, group *entry, char *room, size_t size, group **found)
{
    if (const int cause = cause_of("getgrnam_r"); cause != 0) {
        *found = nullptr;
        return cause == ENOENT ? 0 : cause;
    }
    return pass_on<int>("getgrnam_r", name, entry, room, size, found);
}

void *mmap(void *place, size_t size, int protection, int flags, int fd, off_t offset) noexcept
{
    if (const int cause = cause_of("mmap"); cause != 0) {
        errno = cause;
        return MAP_FAILED;
    }
    return pass_on<void *>("mmap", place, size, protection, flags, fd, offset);
}

int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept
{
    const int cause = cause_of("pthread_mutex_init");
    return cause != 0 ? cause : pass_on<int>("pthread_mutex_init", mutex, attributes);
}

} // extern "C"
#pragma GCC visibility pop
