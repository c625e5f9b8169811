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

template <typename Function>
Function real(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
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
using kill_test::fails;

/* A call by the same name, which the platform finds before the C library's. */
#define FAULTY(result, name, parameters, arguments, specifier, possible)                                     \
    extern "C" __attribute__((visibility("default"))) result name parameters specifier                       \
    {                                                                                                        \
        static const auto next = kill_test::real<result(*) parameters>(#name);                               \
        return fails(possible) ? -1 : next arguments;                                                        \
    }

FAULTY(int, socket, (int domain, int type, int protocol), (domain, type, protocol), noexcept, any)
FAULTY(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), , any)
FAULTY(int, accept4, (int fd, sockaddr *address, socklen_t *size, int flags), (fd, address, size, flags), ,
       any)
FAULTY(ssize_t, sendmsg, (int fd, const msghdr *message, int flags), (fd, message, flags), , any)
FAULTY(ssize_t, recvmsg, (int fd, msghdr *message, int flags), (fd, message, flags), , any)
FAULTY(ssize_t, recv, (int fd, void *buffer, size_t size, int flags), (fd, buffer, size, flags), , any)
FAULTY(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
       (fd, level, option, value, size), noexcept, any)
FAULTY(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
       (fd, level, option, value, size), noexcept, any)
FAULTY(int, shutdown, (int fd, int how), (fd, how), noexcept, any)
FAULTY(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout), , {EINTR})
FAULTY(int, epoll_wait, (int fd, epoll_event *events, int count, int timeout), (fd, events, count, timeout), ,
       {EINTR})
