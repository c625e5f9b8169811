#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <err.h>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace kill_test {

namespace {

/* Calls on sockets can be interrupted, wait for room or memory, have a peer, and make descriptors. */
constexpr std::initializer_list<int> any = {EINTR, EAGAIN, EPIPE, ENOBUFS, EMFILE, ENOMEM};
constexpr std::initializer_list<int> interrupted = {EINTR};
constexpr std::initializer_list<int> no_descriptor = {EMFILE, ENOMEM};
constexpr std::initializer_list<int> no_memory = {ENOMEM};

struct call_row {
    call which;
    const char *name;
    std::initializer_list<int> errors;
};

constexpr call_row rows[] = {
    {call::socket, "socket", any},
    {call::bind, "bind", any},
    {call::listen, "listen", any},
    {call::connect, "connect", any},
    {call::accept4, "accept4", any},
    {call::sendmsg, "sendmsg", any},
    {call::send, "send", any},
    {call::recvmsg, "recvmsg", any},
    {call::recv, "recv", any},
    {call::getsockopt, "getsockopt", any},
    {call::setsockopt, "setsockopt", any},
    {call::shutdown, "shutdown", any},
    {call::poll, "poll", interrupted},
    {call::epoll_wait, "epoll_wait", interrupted},
    {call::epoll_create1, "epoll_create1", no_descriptor},
    {call::epoll_ctl, "epoll_ctl", no_memory},
    {call::eventfd, "eventfd", no_descriptor},
    {call::timerfd_create, "timerfd_create", no_descriptor},
    {call::signalfd, "signalfd", no_descriptor},
    {call::inotify_init1, "inotify_init1", no_descriptor},
    {call::inotify_add_watch, "inotify_add_watch", no_memory},
    {call::open, "open", no_descriptor},
    {call::flock, "flock", {EINTR, ENOMEM}},
};
static_assert(std::size(rows) == call_count);

const call_row &row_of(call which)
{
    return rows[static_cast<size_t>(which)];
}

/* True: this is a call that fails, and errno says how. */
bool fails(call which)
{
    fault_plan &plan = own_plan();
    const int left = plan.left;
    /* How often somebody waits is chance, and more often the slower the machine: told by name only. */
    const bool meant = plan.only == call::count_ ? which != call::epoll_wait : which == plan.only;
    if (left <= 0 || !can_fail(which, plan.error) || !meant)
        return false;
    if (left > 1) {
        --plan.left; /* below 0 if the plan was disarmed meanwhile, which is disarmed as well */
        return false;
    }
    if (!plan.lasting)
        plan.left = 0;
    else if (which == call::shutdown) /* needs nothing, so nothing can be missing for long */
        return false;
    ++plan.failed[static_cast<size_t>(which)];
    errno = plan.error;
    return true;
}

/* What the call does behind this program. */
template <typename Result, typename... Arguments>
Result pass_on(call which, Arguments... arguments)
{
    const auto next = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, row_of(which).name));
    return next(arguments...);
}

template <typename Result, typename... Arguments>
Result fail_or_pass_on(call which, Arguments... arguments)
{
    return fails(which) ? Result{-1} : pass_on<Result>(which, arguments...);
}

} // namespace

const char *name_of(call which)
{
    return row_of(which).name;
}

bool can_fail(call which, int error)
{
    return std::ranges::find(row_of(which).errors, error) != row_of(which).errors.end();
}

void injected::add(const fault_plan &plan)
{
    std::ranges::transform(m_failed, plan.failed, m_failed.begin(), std::plus<>());
}

std::string injected::missing(std::initializer_list<call> expected, int error) const
{
    std::string names;
    for (const call each : expected)
        if (can_fail(each, error) && m_failed[static_cast<size_t>(each)] == 0)
            names += std::string(" ") + name_of(each);
    return names;
}

fault_plan *map_plan(const char *path)
{
    const auto opened = pass_on<int>(call::open, path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (opened < 0 || ftruncate(opened, sizeof(fault_plan)) != 0)
        err(1, "%s", path);
    void *const memory = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, opened, 0);
    if (memory == MAP_FAILED)
        err(1, "%s", path);
    close(opened);
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

using kill_test::call;
using kill_test::fail_or_pass_on;
using kill_test::pass_on;

#pragma GCC visibility push(default)
extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return fail_or_pass_on<int>(call::socket, domain, type, protocol);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    return fail_or_pass_on<int>(call::bind, fd, address, size);
}

int listen(int fd, int backlog) noexcept
{
    return fail_or_pass_on<int>(call::listen, fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return fail_or_pass_on<int>(call::connect, fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    return fail_or_pass_on<int>(call::accept4, fd, address, size, flags);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return fail_or_pass_on<ssize_t>(call::sendmsg, fd, message, flags);
}

ssize_t send(int fd, const void *buffer, size_t size, int flags)
{
    return fail_or_pass_on<ssize_t>(call::send, fd, buffer, size, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return fail_or_pass_on<ssize_t>(call::recvmsg, fd, message, flags);
}

ssize_t recv(int fd, void *buffer, size_t size, int flags)
{
    return fail_or_pass_on<ssize_t>(call::recv, fd, buffer, size, flags);
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept
{
    return fail_or_pass_on<int>(call::getsockopt, fd, level, option, value, size);
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t size) noexcept
{
    return fail_or_pass_on<int>(call::setsockopt, fd, level, option, value, size);
}

int shutdown(int fd, int how) noexcept
{
    return fail_or_pass_on<int>(call::shutdown, fd, how);
}

int poll(pollfd *fds, nfds_t count, int timeout)
{
    return fail_or_pass_on<int>(call::poll, fds, count, timeout);
}

int epoll_wait(int fd, epoll_event *events, int count, int timeout)
{
    return fail_or_pass_on<int>(call::epoll_wait, fd, events, count, timeout);
}

int epoll_create1(int flags) noexcept
{
    return fail_or_pass_on<int>(call::epoll_create1, flags);
}

/* Only what is added needs memory. */
int epoll_ctl(int set, int operation, int fd, epoll_event *event) noexcept
{
    return operation == EPOLL_CTL_ADD ? fail_or_pass_on<int>(call::epoll_ctl, set, operation, fd, event)
                                      : pass_on<int>(call::epoll_ctl, set, operation, fd, event);
}

int eventfd(unsigned count, int flags) noexcept
{
    return fail_or_pass_on<int>(call::eventfd, count, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    return fail_or_pass_on<int>(call::timerfd_create, clock, flags);
}

int signalfd(int fd, const sigset_t *mask, int flags) noexcept
{
    return fail_or_pass_on<int>(call::signalfd, fd, mask, flags);
}

int inotify_init1(int flags) noexcept
{
    return fail_or_pass_on<int>(call::inotify_init1, flags);
}

int inotify_add_watch(int fd, const char *path, uint32_t events) noexcept
{
    return fail_or_pass_on<int>(call::inotify_add_watch, fd, path, events);
}

int open(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return std::string_view(path).ends_with(".profraw") /* coverage's own */
               ? pass_on<int>(call::open, path, flags, mode)
               : fail_or_pass_on<int>(call::open, path, flags, mode);
}

int flock(int fd, int operation) noexcept
{
    return fail_or_pass_on<int>(call::flock, fd, operation);
}

} // extern "C"
#pragma GCC visibility pop
