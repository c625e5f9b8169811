#include "faults.h"

#include "interposed.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <err.h>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kill_test {

namespace {

/* Calls on sockets can be interrupted, wait for room or memory, have a peer, and make descriptors. */
constexpr std::initializer_list<int> any = {EINTR, EAGAIN, EPIPE, ENOBUFS, EMFILE, ENOMEM};
constexpr std::initializer_list<int> interrupted = {EINTR};
constexpr std::initializer_list<int> no_descriptor = {EMFILE, ENOMEM};
constexpr std::initializer_list<int> no_memory = {ENOMEM};

struct call_row {
    std::string_view name;
    std::initializer_list<int> errors;
    call which;
    /* How often somebody waits, and looks at what has come, is chance, and more often the slower the machine. */
    bool by_name_only = false;
};

constexpr call_row rows[] = {
    {"socket", any, call::socket},
    {"bind", any, call::bind},
    {"listen", any, call::listen},
    {"connect", any, call::connect},
    {"accept4", any, call::accept4},
    {"sendmsg", any, call::sendmsg},
    {"send", any, call::send},
    {"recvmsg", any, call::recvmsg},
    {"recv", any, call::recv},
    {"getsockopt", any, call::getsockopt},
    {"setsockopt", any, call::setsockopt},
    {"shutdown", any, call::shutdown},
    {"poll", interrupted, call::poll},
    {"epoll_wait", interrupted, call::epoll_wait, true},
    {"epoll_create1", no_descriptor, call::epoll_create1},
    {"epoll_ctl", no_memory, call::epoll_ctl},
    {"eventfd", no_descriptor, call::eventfd},
    {"timerfd_create", no_descriptor, call::timerfd_create},
    {"signalfd", no_descriptor, call::signalfd},
    {"inotify_init1", no_descriptor, call::inotify_init1},
    {"inotify_add_watch", no_memory, call::inotify_add_watch},
    {"read", {EINTR, EAGAIN}, call::read, true},
    {"open", no_descriptor, call::open},
    {"flock", {EINTR, ENOMEM}, call::flock},
};
static_assert(std::size(rows) == call_count);

const call_row &row_of(call which)
{
    return rows[static_cast<size_t>(which)];
}

/* The errno that this call fails with, 0: it does not. */
int cause_for(call which)
{
    fault_plan &plan = own_plan();
    const int left = plan.left;
    const bool meant = plan.only == call::count_ ? !row_of(which).by_name_only : which == plan.only;
    if (left <= 0 || !can_fail(which, plan.error) || !meant)
        return 0;
    if (left > 1) {
        --plan.left; /* below 0 if the plan was disarmed meanwhile, which is disarmed as well */
        return 0;
    }
    if (!plan.lasting)
        plan.left = 0;
    else if (which == call::shutdown) /* needs nothing, so nothing can be missing for long */
        return 0;
    ++plan.failed[static_cast<size_t>(which)];
    return plan.error;
}

} // namespace

const char *name_of(call which)
{
    return row_of(which).name.data();
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
    const auto opened =
        interposed::pass_on<int>("open", path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
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

int interposed::cause_of(std::string_view call)
{
    const auto *const row = std::ranges::find(kill_test::rows, call, &kill_test::call_row::name);
    return row != std::end(kill_test::rows) ? kill_test::cause_for(row->which) : 0;
}
