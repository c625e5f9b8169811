/*
 * Calls back once, some seconds after it was started.
 */
#ifndef OWNER_TIMER_H
#define OWNER_TIMER_H

#include <functional>
#include <platform/event_loop.h>

namespace owner {

class timer {
public:
    timer() = default;
    ~timer();
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;

    // False with the cause in errno. `expired` is called on the event manager's thread.
    bool start(event_mgr_p evm, unsigned seconds, std::function<void()> expired);

private:
    void stop();
    static void on_expired(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

    int fd_ = -1;
    event_fd_watch_t *watch_ = nullptr;
    std::function<void()> expired_;
};

} // namespace owner

#endif
