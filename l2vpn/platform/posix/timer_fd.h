/*
 * A timerfd of the monotonic clock, set to a moment.
 */
#ifndef PLATFORM_POSIX_TIMER_FD_H
#define PLATFORM_POSIX_TIMER_FD_H

#include "unique_fd.h"

#include <algorithm>
#include <chrono>
#include <sys/timerfd.h>

namespace l2vpn::platform_posix {

/* max(): to none. A moment that has passed is now. The kernel refuses only what is no timer or no time, which neither
 * is, and needs no memory for it: there is nothing that could fail. */
inline void set_timer(const unique_fd &timer, std::chrono::steady_clock::time_point when) noexcept
{
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    itimerspec setting{};
    if (when != std::chrono::steady_clock::time_point::max()) {
        const nanoseconds since = std::max<nanoseconds>(when.time_since_epoch(), nanoseconds{1});
        setting.it_value.tv_sec = static_cast<time_t>(since / seconds{1});
        setting.it_value.tv_nsec = static_cast<long>((since % seconds{1}).count());
    }
    ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace l2vpn::platform_posix

#endif
