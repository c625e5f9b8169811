#include "calls.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <iterator>
#include <new>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

namespace failing {

namespace {

thread_local order *s_order = nullptr;

bool fails(const char *call, int otherwise)
{
    const int cause = s_order != nullptr ? s_order->cause_for(call, otherwise) : 0;
    errno = cause != 0 ? cause : errno;
    return cause != 0;
}

/* The errno of calls that fail only when they are ordered by name: no server or client can do without them. */
constexpr int by_name_only = 0;

/* What the call does behind this program. */
template <typename Result = int, typename... Arguments>
Result pass_on(const char *call, Arguments... arguments)
{
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, call))(arguments...);
}

template <typename... Arguments>
int fail_or_pass_on(const char *call, int cause, Arguments... arguments)
{
    return fails(call, cause) ? -1 : pass_on(call, arguments...);
}

void *allocate(size_t size)
{
    return fails(allocation.data(), ENOMEM) ? nullptr : std::malloc(size != 0 ? size : 1);
}

void *allocate_or_throw(size_t size)
{
    void *const memory = allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

void order::begin()
{
    s_order = this;
}

void order::end()
{
    if (s_order == this)
        s_order = nullptr;
}

int order::cause_for(std::string_view call, int otherwise)
{
    if (m_left == 0 || (m_call.empty() ? otherwise == 0 : m_call != call) || --m_left > 0)
        return 0;
    m_failed = {call, m_cause != 0 ? m_cause : otherwise};
    return m_failed.cause;
}

std::string text_of(const failure &what)
{
    return std::string(what.call) + ": " + strerror(what.cause);
}

size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

} // namespace failing

using failing::fail_or_pass_on;
using failing::fails;
using failing::pass_on;

#pragma GCC visibility push(default)

void *operator new(size_t size)
{
    return failing::allocate_or_throw(size);
}
void *operator new[](size_t size)
{
    return failing::allocate_or_throw(size);
}
void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    return failing::allocate(size);
}
void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, const std::nothrow_t & /*tag*/) noexcept
{
    std::free(memory);
}

extern "C" {

int epoll_create1(int flags) noexcept
{
    return fail_or_pass_on("epoll_create1", EMFILE, flags);
}

/* Only what is added needs memory. */
int epoll_ctl(int set, int operation, int fd, epoll_event *event) noexcept
{
    return operation == EPOLL_CTL_ADD ? fail_or_pass_on("epoll_ctl", ENOSPC, set, operation, fd, event)
                                      : pass_on("epoll_ctl", set, operation, fd, event);
}

int epoll_wait(int set, epoll_event *events, int count, int timeout)
{
    return fail_or_pass_on("epoll_wait", failing::by_name_only, set, events, count, timeout);
}

int eventfd(unsigned count, int flags) noexcept
{
    return fail_or_pass_on("eventfd", ENFILE, count, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    return fail_or_pass_on("timerfd_create", EMFILE, clock, flags);
}

int inotify_init1(int flags) noexcept
{
    return fail_or_pass_on("inotify_init1", EMFILE, flags);
}

int socket(int domain, int type, int protocol) noexcept
{
    return fail_or_pass_on("socket", ENFILE, domain, type, protocol);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    return fail_or_pass_on("bind", EROFS, fd, address, size);
}

int listen(int fd, int backlog) noexcept
{
    return fail_or_pass_on("listen", ENOBUFS, fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return fail_or_pass_on("connect", EACCES, fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    return fail_or_pass_on("accept4", EMFILE, fd, address, size, flags);
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept
{
    return fail_or_pass_on("getsockopt", failing::by_name_only, fd, level, option, value, size);
}

int getsockname(int fd, sockaddr *address, socklen_t *size) noexcept
{
    return fail_or_pass_on("getsockname", ENOBUFS, fd, address, size);
}

int open(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return fail_or_pass_on("open", EACCES, path, flags, mode);
}

/* No call of the platform's gives it a pointer. */
int fcntl(int fd, int command, ...)
{
    va_list values;
    va_start(values, command);
    void *const value = va_arg(values, void *);
    va_end(values);
    return fail_or_pass_on("fcntl", EMFILE, fd, command, value);
}

int flock(int fd, int operation) noexcept
{
    return fail_or_pass_on("flock", ENOLCK, fd, operation);
}

int fchmod(int fd, mode_t mode) noexcept
{
    return fail_or_pass_on("fchmod", EPERM, fd, mode);
}

int chmod(const char *path, mode_t mode) noexcept
{
    return fail_or_pass_on("chmod", EPERM, path, mode);
}

int lchown(const char *path, uid_t user, gid_t group) noexcept
{
    return fail_or_pass_on("lchown", EPERM, path, user, group);
}

int mkdir(const char *path, mode_t mode) noexcept
{
    return fail_or_pass_on("mkdir", ENOSPC, path, mode);
}

int unlink(const char *path) noexcept
{
    return fail_or_pass_on("unlink", EBUSY, path);
}

int lstat(const char *path, struct stat *found) noexcept
{
    return fail_or_pass_on("lstat", failing::by_name_only, path, found);
}

int getgrnam_r(const char *name, group *entry, char *room, size_t size, group **found)
{
    if (fails("getgrnam_r", EIO)) {
        *found = nullptr;
        return errno;
    }
    return pass_on("getgrnam_r", name, entry, room, size, found);
}

int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept
{
    return fails("pthread_mutex_init", ENOMEM) ? errno : pass_on("pthread_mutex_init", mutex, attributes);
}

} // extern "C"
#pragma GCC visibility pop
