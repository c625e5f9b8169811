/*
 * The event manager: one epoll descriptor, in which an eventfd stands for everything that is posted.
 *
 * Threads. One thread dispatches; all others attach, post, watch and unwatch. One mutex guards the
 * attachments, the posted codes and the table of watches. It is never held while a handler runs, so a
 * handler may call everything but dispatch, run and free.
 *
 * Posted codes. The eventfd is readable whenever codes wait: it is written when the queue stops being empty
 * and read only, under the mutex, when it is empty. One pass runs the codes that waited when it came to
 * them; what their handlers post waits for the next pass, so that a code that posts itself cannot shut the
 * descriptors out. Watched descriptors come before codes: an expired timer posts its code, which then runs
 * in the same pass.
 *
 * Watches. epoll is given a watch's number, not its address, and numbers are never used again: an event
 * that was fetched before its watch ended finds nothing. The pass holds a reference while a handler runs,
 * so the watch that a handler was given stays readable to its end, whoever ends it meanwhile.
 *
 * Odd on purpose: stopping is a flag and a write to the eventfd, both allowed in signal handlers. The flag
 * is taken by run() alone; a stop that comes before the run ends that run at once.
 */
#include "event_mgr_internal.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unordered_map>

using l2vpn::platform_posix::unique_fd;

struct event_fd_watcher {
    event_mgr_p evm;
    std::uint64_t number;
    int fd;
    event_fd_handler_t handler;
    void *arg;
    bool counted;
};

struct event_mgr {
    struct attachment {
        event_async_handler_t handler;
        void *arg;
        event_context_t *context;
    };

    unique_fd epoll;
    unique_fd wakeup;
    std::atomic<bool> stopping{false};
    std::atomic<bool> dispatching{false};

    std::mutex lock;
    std::unordered_map<int, attachment> attached;
    std::deque<int> posted;
    std::unordered_map<std::uint64_t, std::shared_ptr<event_fd_watch_t>> watches;
    std::uint64_t latest_number = 0; /* 0 is the eventfd's */
};

namespace {

constexpr std::uint64_t wakeup_number = 0;
constexpr std::size_t events_a_pass = 64;
static_assert(std::atomic<bool>::is_always_lock_free, "set by signal handlers");

int failed(int cause) noexcept
{
    errno = cause;
    return -1;
}

void wake(const event_mgr &evm) noexcept
{
    // The only failure is a counter at its maximum, which is as readable as it can be.
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(evm.wakeup.get(), &one, sizeof one);
}

std::uint32_t to_epoll(std::uint32_t events) noexcept
{
    std::uint32_t wanted = 0;
    wanted |= (events & EVENT_FD_READ) != 0 ? std::uint32_t{EPOLLIN} : 0;
    wanted |= (events & EVENT_FD_WRITE) != 0 ? std::uint32_t{EPOLLOUT} : 0;
    return wanted;
}

std::uint32_t from_epoll(std::uint32_t happened) noexcept
{
    std::uint32_t events = 0;
    events |= (happened & EPOLLIN) != 0 ? EVENT_FD_READ : 0;
    events |= (happened & EPOLLOUT) != 0 ? EVENT_FD_WRITE : 0;
    events |= (happened & (EPOLLHUP | EPOLLERR)) != 0 ? EVENT_FD_HANGUP : 0;
    return events;
}

int control(const event_mgr &evm, int operation, int fd, std::uint32_t events, std::uint64_t number) noexcept
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = number;
    return ::epoll_ctl(evm.epoll.get(), operation, fd, &event);
}

event_fd_watch_t *new_watch(event_mgr_p evm, int fd, std::uint32_t events, event_fd_handler_t handler,
                            void *arg, bool counted) noexcept
{
    if (evm == nullptr || handler == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        const std::lock_guard guard(evm->lock);
        const std::uint64_t number = ++evm->latest_number;
        auto watch =
            std::make_shared<event_fd_watch_t>(event_fd_watch_t{evm, number, fd, handler, arg, counted});
        evm->watches.emplace(number, watch);
        if (control(*evm, EPOLL_CTL_ADD, fd, to_epoll(events), number) < 0) {
            evm->watches.erase(number);
            return nullptr;
        }
        return watch.get();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return nullptr;
    }
}

/* One pass over what epoll reported and what is posted. */
class pass {
public:
    pass(event_mgr &evm, bool running) noexcept : evm_(evm), running_(running) {}

    int run(std::span<const epoll_event> events)
    {
        for (const epoll_event &event : events) {
            if (over()) {
                return called_;
            }
            if (event.data.u64 != wakeup_number) {
                call_watch(event.data.u64, from_epoll(event.events));
            }
        }
        call_posted();
        return called_;
    }

private:
    [[nodiscard]] bool over() const noexcept { return running_ && evm_.stopping.load(); }

    void call_watch(std::uint64_t number, std::uint32_t events)
    {
        std::shared_ptr<event_fd_watch_t> watch;
        {
            const std::lock_guard guard(evm_.lock);
            const auto found = evm_.watches.find(number);
            if (found == evm_.watches.end()) {
                return;
            }
            watch = found->second;
        }
        called_ += watch->counted ? 1 : 0;
        watch->handler(watch.get(), watch->fd, events, watch->arg);
    }

    void call_posted()
    {
        std::unique_lock guard(evm_.lock);
        for (std::size_t left = evm_.posted.size(); left > 0 && !over(); --left) {
            const auto found = evm_.attached.find(evm_.posted.front());
            evm_.posted.pop_front();
            if (found == evm_.attached.end()) {
                continue;
            }
            const event_mgr::attachment attached = found->second;
            guard.unlock();
            ++called_;
            attached.handler(attached.context, attached.arg);
            guard.lock();
        }
        if (evm_.posted.empty()) {
            std::uint64_t count = 0;
            [[maybe_unused]] const auto taken = ::read(evm_.wakeup.get(), &count, sizeof count);
        }
    }

    event_mgr &evm_;
    bool running_;
    int called_ = 0;
};

int dispatch(event_mgr &evm, int timeout_ms, bool running)
{
    if (evm.dispatching.exchange(true)) {
        return failed(EBUSY);
    }
    std::array<epoll_event, events_a_pass> events{};
    int called = 0;
    const int count = ::epoll_wait(evm.epoll.get(), events.data(), static_cast<int>(events.size()),
                                   timeout_ms < 0 ? -1 : timeout_ms);
    if (count > 0) {
        called = pass(evm, running).run(std::span(events).first(static_cast<std::size_t>(count)));
    } else if (count < 0 && errno != EINTR) {
        called = -1;
    }
    evm.dispatching.store(false);
    return called;
}

} // namespace

event_fd_watch_t *l2vpn::platform_posix::watch_uncounted(event_mgr_p evm, int fd, std::uint32_t events,
                                                         event_fd_handler_t handler, void *arg) noexcept
{
    return new_watch(evm, fd, events, handler, arg, false);
}

event_mgr_p event_mgr_new(void)
{
    std::unique_ptr<event_mgr> evm;
    try {
        evm = std::make_unique<event_mgr>();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return nullptr;
    }
    evm->epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    evm->wakeup.reset(evm->epoll ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1);
    if (!evm->wakeup || control(*evm, EPOLL_CTL_ADD, evm->wakeup.get(), EPOLLIN, wakeup_number) < 0) {
        return nullptr;
    }
    return evm.release();
}

void event_mgr_free(event_mgr_p evm)
{
    delete evm;
}

int event_mgr_fd(event_mgr_p evm)
{
    return evm == nullptr ? failed(EINVAL) : evm->epoll.get();
}

int event_mgr_dispatch(event_mgr_p evm, int timeout_ms)
{
    return evm == nullptr ? failed(EINVAL) : dispatch(*evm, timeout_ms, false);
}

int event_mgr_run(event_mgr_p evm)
{
    if (evm == nullptr) {
        return failed(EINVAL);
    }
    while (!evm->stopping.exchange(false)) {
        if (dispatch(*evm, -1, true) < 0) {
            return -1;
        }
    }
    return 0;
}

void event_mgr_stop(event_mgr_p evm)
{
    if (evm != nullptr) {
        const int cause = errno;
        evm->stopping.store(true);
        wake(*evm);
        errno = cause;
    }
}

int event_async_attach_event(event_mgr_p evm, int code, event_async_handler_t handler, void *arg,
                             event_context_t *context)
{
    if (evm == nullptr || handler == nullptr || context == nullptr) {
        return failed(EINVAL);
    }
    try {
        const std::lock_guard guard(evm->lock);
        evm->attached.insert_or_assign(code, event_mgr::attachment{handler, arg, context});
        *context = event_context_t{.evm = evm, .handler = handler, .arg = arg, .code = code};
        return 0;
    } catch (const std::bad_alloc &) {
        return failed(ENOMEM);
    }
}

int event_async_post(event_mgr_p evm, int code)
{
    if (evm == nullptr) {
        return failed(EINVAL);
    }
    try {
        const std::lock_guard guard(evm->lock);
        evm->posted.push_back(code);
        if (evm->posted.size() == 1) {
            wake(*evm);
        }
        return 0;
    } catch (const std::bad_alloc &) {
        return failed(ENOMEM);
    }
}

event_fd_watch_t *event_fd_watch(event_mgr_p evm, int fd, uint32_t events, event_fd_handler_t handler,
                                 void *arg)
{
    return new_watch(evm, fd, events, handler, arg, true);
}

int event_fd_modify(event_fd_watch_t *watch, uint32_t events)
{
    if (watch == nullptr) {
        return failed(EINVAL);
    }
    // Without the lock another thread could end this watch in between and begin one for the same descriptor.
    const std::lock_guard guard(watch->evm->lock);
    if (!watch->evm->watches.contains(watch->number)) {
        return failed(ENOENT);
    }
    return control(*watch->evm, EPOLL_CTL_MOD, watch->fd, to_epoll(events), watch->number);
}

void event_fd_unwatch(event_fd_watch_t *watch)
{
    if (watch == nullptr) {
        return;
    }
    std::shared_ptr<event_fd_watch_t> ended;
    const std::lock_guard guard(watch->evm->lock);
    if (const auto found = watch->evm->watches.find(watch->number); found != watch->evm->watches.end()) {
        ended = std::move(found->second);
        control(*ended->evm, EPOLL_CTL_DEL, ended->fd, 0, 0);
        watch->evm->watches.erase(found);
    }
}
