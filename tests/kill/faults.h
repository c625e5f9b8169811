/*
 * System calls that fail to a plan, in the program that faults.cpp is linked into: the test, or an l2vpnd. A
 * plan says which of the calls fails, counted from the moment it is armed, how, and whether those behind it fail
 * as well; the test shares that of its l2vpnd with it through a file. Only calls that can fail with the plan's
 * error count.
 */
#ifndef TESTS_KILL_FAULTS_H
#define TESTS_KILL_FAULTS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <string>

namespace kill_test {

enum class call {
    socket,
    bind,
    listen,
    connect,
    accept4,
    sendmsg,
    send,
    recvmsg,
    recv,
    getsockopt,
    setsockopt,
    shutdown,
    poll,
    epoll_wait,
    epoll_create1,
    epoll_ctl,
    eventfd,
    timerfd_create,
    signalfd,
    inotify_init1,
    inotify_add_watch,
    read,
    open,
    flock,
    count_,
};

inline constexpr size_t call_count = static_cast<size_t>(call::count_);

const char *name_of(call which);
bool can_fail(call which, int error);

struct fault_plan {
    /* As the first that fails: none does, and all count. */
    static constexpr int never = std::numeric_limits<int>::max();

    std::atomic<int> error;    /* what the calls fail with */
    std::atomic<int> left;     /* calls up to the first that fails, itself included; 0: none fails */
    std::atomic<bool> lasting; /* all behind it fail, too */
    std::atomic<call> only;    /* no others count; count_: all do */
    std::array<std::atomic<int>, call_count> failed;

    void arm(int with, int first, bool on_and_on, call of = call::count_)
    {
        only = of;
        error = with;
        lasting = on_and_on;
        for (std::atomic<int> &each : failed)
            each = 0;
        left = first;
    }
    void disarm() { left = 0; }
    [[nodiscard]] int all_failed() const
    {
        int sum = 0;
        for (const std::atomic<int> &each : failed)
            sum += each;
        return sum;
    }
    /* How many have counted since it was armed for the `first`, up to that. */
    [[nodiscard]] int calls_until(int first) const { return all_failed() > 0 ? first : first - left; }
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

/* What has failed in all runs of a test, so that one in which nothing does is found out. */
class injected {
public:
    void add(const fault_plan &plan);
    /* Those of the calls that can fail with the error and never did; empty: all did. */
    [[nodiscard]] std::string missing(std::initializer_list<call> expected, int error) const;

private:
    std::array<int, call_count> m_failed{};
};

/* The file of a plan that is not the program's own. */
inline constexpr const char *plan_variable = "L2VPN_TEST_FAULTS";

/* Maps a plan's file, made where missing. */
fault_plan *map_plan(const char *path);

/* The plan of this program. */
fault_plan &own_plan();

} // namespace kill_test

#endif
