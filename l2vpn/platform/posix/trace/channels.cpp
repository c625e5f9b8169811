/*
 * The channels: a sink for texts (standard error or syslog), a ring for records, both off by default.
 *
 * Threads. What is open is one atomic word, so that a call with nothing open costs a load and a branch. A
 * mutex serialises switching. The ring is used without it: a writer counts itself into `writers`, then
 * reads the pointer to the ring. A ring that is replaced is unmapped only when the pointer is gone and
 * nobody is counted in; until then it is put aside and looked at again at the next switch.
 *
 * Forks. The file belongs to the process that made it: a child has no ring until it asks for one.
 *
 * Aborts. While a ring is in use, and where nobody handles SIGABRT, a handler names the file on standard
 * error and lets the signal do what it would have done.
 */
#include "trace/channels.h"
#include "config_internal.h"
#include "lock_monitor_internal.h"
#include "trace/file.h"

#include <platform/config.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <string_view>
#include <syslog.h>
#include <vector>

namespace l2vpn::trace {

constinit std::atomic<unsigned> open_channels{not_configured};

namespace {

constexpr std::size_t dead_traces_kept = 4;

std::atomic<ring *> current{nullptr};
std::atomic<unsigned> writers{0};
static_assert(std::atomic<ring *>::is_always_lock_free, "read by a signal handler");

struct switchboard {
    std::mutex lock;
    bool configured = false;
    std::vector<std::unique_ptr<ring>> put_aside;
};

/* Never destroyed: threads may still trace while the process exits. */
switchboard &board()
{
    static switchboard &only = *new switchboard;
    return only;
}

constexpr std::array kind_names{"debug", "entry", "report", "error", "assertion", "syslog"};
static_assert(kind_names.size() == static_cast<std::size_t>(record_kind::count_));

void write_text(unsigned channels, const origin &from, const char *format, va_list values) noexcept
{
    std::array<char, 1024> text{};
    va_list copy; // the caller may give the values once more, to somebody else
    va_copy(copy, values);
    std::vsnprintf(text.data(), text.size(), format, copy);
    va_end(copy);
    const char *name = kind_names[static_cast<std::size_t>(from.kind)];
    const char *function = from.function != nullptr ? from.function : "?";
    const auto id = static_cast<unsigned long long>(from.id);
    if ((channels & to_syslog) != 0) {
        ::syslog(LOG_DEBUG, "%s %llu %s:%u: %s", name, id, function, from.line, text.data());
    }
    if ((channels & to_stderr) != 0) {
        // One write a line, so that lines of several threads do not mix.
        std::array<char, 1280> line{};
        const int length =
            std::snprintf(line.data(), line.size() - 1, "l2vpn[%d] %s %llu %s:%u: %s",
                          static_cast<int>(::getpid()), name, id, function, from.line, text.data());
        std::size_t end = std::min(static_cast<std::size_t>(std::max(length, 0)), line.size() - 2);
        line[end++] = '\n';
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), end);
    }
}

void on_abort(int)
{
    writers.fetch_add(1);
    if (const ring *in_use = current.load(); in_use != nullptr) {
        const std::string &line = in_use->farewell();
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
    }
    writers.fetch_sub(1);
    ::raise(SIGABRT); // comes when this returns, with the default action back in place
}

void handle_aborts()
{
    struct sigaction now {};
    if (::sigaction(SIGABRT, nullptr, &now) == 0 && (now.sa_flags & SA_SIGINFO) == 0 &&
        now.sa_handler == SIG_DFL) {
        struct sigaction ours {};
        ours.sa_handler = on_abort;
        ours.sa_flags = static_cast<int>(SA_RESETHAND);
        ::sigaction(SIGABRT, &ours, nullptr);
    }
}

void before_fork()
{
    board().lock.lock();
    lock_monitor_mutex().lock();
}

void after_fork_in_parent()
{
    lock_monitor_mutex().unlock();
    board().lock.unlock();
}

void after_fork_in_child()
{
    lock_monitor_mutex().unlock();
    open_channels.fetch_and(~to_ring);
    monitor_locks_in(nullptr);
    if (ring *parents = current.exchange(nullptr); parents != nullptr) {
        parents->leave_file();
    }
    writers.store(0);
    forget_thread_id();
    board().lock.unlock();
}

[[maybe_unused]] const int fork_handlers =
    ::pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);

/* Takes the ring out of use and puts `next` (may be null) in its place. With the lock held. */
void replace_ring(std::unique_ptr<ring> next)
{
    monitor_locks_in(next.get());
    if (next != nullptr) {
        open_channels.fetch_or(to_ring);
    } else {
        open_channels.fetch_and(~to_ring);
    }
    auto &aside = board().put_aside;
    if (ring *previous = current.exchange(next.release()); previous != nullptr) {
        previous->release_file();
        aside.emplace_back(previous);
    }
    if (writers.load() == 0) {
        aside.clear();
    }
}

qerrno open_ring(std::string path)
{
    using platform_posix::config;
    std::string problem;
    qerrno cause = EOK;
    const bool own_place = path == "on";
    if (own_place) {
        cause = platform_posix::make_runtime_dir(problem);
        path = path_of_process(config().runtime_dir, program_invocation_short_name, trace_file);
    }
    std::unique_ptr<ring> opened;
    if (cause == EOK) {
        opened = ring::create(path, std::uint64_t{config().trace_size_kib} * 1024, cause, problem);
    }
    if (opened == nullptr) {
        std::fprintf(stderr, "l2vpn: no trace: %s\n", problem.c_str());
        return cause;
    }
    if (own_place) {
        (void)remove_dead(config().runtime_dir, program_invocation_short_name, dead_traces_kept, trace_file);
    }
    handle_aborts();
    replace_ring(std::move(opened));
    return EOK;
}

qerrno set_ring(const std::string &where)
{
    if (where == "off") {
        replace_ring(nullptr);
        return EOK;
    }
    if (where != "on" && where.find('/') == std::string::npos) {
        return EINVAL;
    }
    return open_ring(where);
}

qerrno set_sink(std::string_view sink)
{
    constexpr std::array<std::pair<std::string_view, unsigned>, 3> sinks{
        {{"off", 0}, {"stderr", to_stderr}, {"syslog", to_syslog}}};
    const auto found = std::ranges::find(sinks, sink, &std::pair<std::string_view, unsigned>::first);
    if (found == sinks.end()) {
        return EINVAL;
    }
    open_channels.store((open_channels.load() & ~to_sink) | found->second);
    return EOK;
}

/* Applies the environment's wishes unless that was done. With the lock held. */
void configure_locked()
{
    if (board().configured) {
        return;
    }
    board().configured = true;
    set_sink(platform_posix::config().debug_sink);
    set_ring(platform_posix::config().trace);
    open_channels.fetch_and(~not_configured);
}

} // namespace

unsigned configure() noexcept
{
    const std::lock_guard guard(board().lock);
    configure_locked();
    return open_channels.load();
}

void give(unsigned channels, const origin &from, const char *format, va_list values) noexcept
{
    const int error = errno;
    if ((channels & to_ring) != 0) {
        writers.fetch_add(1);
        if (ring *in_use = current.load(); in_use != nullptr) {
            in_use->write(from, error, format, values);
        }
        writers.fetch_sub(1);
    }
    if ((channels & to_sink) != 0) {
        errno = error;
        write_text(channels, from, format, values);
    }
    errno = error;
}

} // namespace l2vpn::trace

using namespace l2vpn::trace;

qerrno platform_debug_set_sink(const char *sink)
{
    if (sink == nullptr) {
        return EINVAL;
    }
    const std::lock_guard guard(board().lock);
    configure_locked();
    return set_sink(sink);
}

qerrno platform_trace_set(const char *where)
{
    if (where == nullptr) {
        return EINVAL;
    }
    const std::lock_guard guard(board().lock);
    configure_locked();
    return set_ring(where);
}

const char *platform_trace_path(void)
{
    thread_local std::array<char, PATH_MAX> path;
    const std::lock_guard guard(board().lock);
    configure_locked();
    const ring *in_use = current.load();
    std::snprintf(path.data(), path.size(), "%s", in_use != nullptr ? in_use->path().c_str() : "");
    return path.data();
}
