#include "timer.h"

#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace owner {

timer::~timer()
{
    stop();
}

void timer::stop()
{
    event_fd_unwatch(std::exchange(watch_, nullptr));
    if (fd_ >= 0)
        (void)close(std::exchange(fd_, -1));
}

bool timer::start(event_mgr_p evm, unsigned seconds, std::function<void()> expired)
{
    stop();
    expired_ = std::move(expired);
    fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    itimerspec when{};
    when.it_value.tv_sec = seconds;
    if (fd_ < 0 || timerfd_settime(fd_, 0, &when, nullptr) < 0)
        return false;
    watch_ = event_fd_watch(evm, fd_, EVENT_FD_READ, on_expired, this);
    return watch_ != nullptr;
}

void timer::on_expired(event_fd_watch_t *, int, uint32_t, void *arg)
{
    auto *const self = static_cast<timer *>(arg);
    self->stop();
    const std::function<void()> expired = std::move(self->expired_);
    expired(); // may start the timer again
}

} // namespace owner
