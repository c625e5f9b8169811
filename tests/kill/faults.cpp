#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <err.h>
#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kill_test {

namespace {

/* What a call that can be interrupted, that waits for room or memory, or that has a peer fails with. */
constexpr std::initializer_list<int> any = {EINTR, EAGAIN, EPIPE, ENOBUFS};

/* True: this is the call that fails, and errno says how. */
bool fails(std::initializer_list<int> possible)
{
    fault_plan &plan = own_plan();
    const int error = plan.error;
    if (plan.left <= 0 || std::ranges::find(possible, error) == possible.end() || plan.left.fetch_sub(1) != 1)
        return false;
    plan.fired = true;
    errno = error;
    return true;
}

/* Fails, or does what the call by this name does behind this program. */
template <typename Result, typename... Arguments>
Result call(const char *name, std::initializer_list<int> possible, Arguments... arguments)
{
    if (fails(possible))
        return -1;
    const auto next = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    return next(arguments...);
}

} // namespace

fault_plan *map_plan(const char *path)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0 || ftruncate(fd, sizeof(fault_plan)) != 0)
        err(1, "%s", path);
    void *const memory = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        err(1, "%s", path);
    close(fd);
    return static_cast<fault_plan *>(memory);
}

fault_plan &own_plan()
{
    static fault_plan of_this_program;
    static const char *const path = getenv(plan_variable);
    static fault_plan *const plan = path != nullptr ? map_plan(path) : &of_this_program;
    return *plan;
}

} // namespace kill_test

using kill_test::any;
using kill_test::call;

#pragma GCC visibility push(default)
extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return call<int>("socket", any, domain, type, protocol);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return call<int>("connect", any, fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    return call<int>("accept4", any, fd, address, size, flags);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return call<ssize_t>("sendmsg", any, fd, message, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return call<ssize_t>("recvmsg", any, fd, message, flags);
}

ssize_t recv(int fd, void *buffer, size_t size, int flags)
{
    return call<ssize_t>("recv", any, fd, buffer, size, flags);
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept
{
    return call<int>("getsockopt", any, fd, level, option, value, size);
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t size) noexcept
{
    return call<int>("setsockopt", any, fd, level, option, value, size);
}

int shutdown(int fd, int how) noexcept
{
    return call<int>("shutdown", any, fd, how);
}

/* These two fail in no other way. */
int poll(pollfd *fds, nfds_t count, int timeout)
{
    return call<int>("poll", {EINTR}, fds, count, timeout);
}

int epoll_wait(int fd, epoll_event *events, int count, int timeout)
{
    return call<int>("epoll_wait", {EINTR}, fd, events, count, timeout);
}

} // extern "C"
#pragma GCC visibility pop
