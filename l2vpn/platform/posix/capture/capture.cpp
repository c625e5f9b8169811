/*
 * Threads. A ring that was in use stays mapped when another takes its place, so that a writer may hold it at
 * any time; a mutex serialises switching, which is rare.
 *
 * Forks. The file belongs to the process that made it: a child has no ring until it asks for one.
 */
#include "capture/capture.h"
#include "config_internal.h"
#include "trace/file.h"

#include <platform/config.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <numeric>
#include <pthread.h>
#include <string_view>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace l2vpn::capture {

constinit std::atomic<ring *> in_use{nullptr};

namespace {

/* Of processes that have ended, in the runtime directory. */
constexpr std::size_t dead_rings_kept = 2; /* of one name */
constexpr std::size_t all_dead_rings_kept = 32;

/* A ring that nobody asked for is made where so many times its size is free. Owners are any number, and fill no disk;
 * of servers there is one, whose dead rings are among those. */
constexpr std::uint64_t free_for_owners = 64;
constexpr std::uint64_t free_for_servers = 4;
static_assert(free_for_servers > dead_rings_kept + 1);

struct switchboard {
    std::mutex lock;
    bool owner_begun = false;
    std::vector<std::unique_ptr<ring>> rings;
};

/* Never destroyed: threads may still send while the process exits. */
switchboard &board()
{
    static switchboard &only = *new switchboard;
    return only;
}

void before_fork()
{
    board().lock.lock();
}

void after_fork_in_parent()
{
    board().lock.unlock();
}

void after_fork_in_child()
{
    if (ring *parents = in_use.exchange(nullptr); parents != nullptr) {
        parents->leave_file();
    }
    board().owner_begun = false;
    board().lock.unlock();
}

[[maybe_unused]] const int fork_handlers =
    ::pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);

/* With the lock held. */
void replace(std::unique_ptr<ring> next)
{
    ring *current = next.get();
    if (next != nullptr) {
        board().rings.push_back(std::move(next));
    }
    if (ring *previous = in_use.exchange(current); previous != nullptr) {
        previous->release_file();
    }
}

std::uint64_t free_in(const std::string &directory)
{
    struct statvfs about {};
    return ::statvfs(directory.c_str(), &about) == 0 ? about.f_bavail * about.f_frsize : 0;
}

/* Of processes that have ended: the sizes of those of this one's name that are left, the newest first. */
std::vector<std::uint64_t> remove_dead_rings(std::size_t keep)
{
    const std::string &directory = platform_posix::config().runtime_dir;
    (void)trace::remove_dead(directory, "", all_dead_rings_kept, trace::ring_file);
    return trace::remove_dead(directory, program_invocation_short_name, keep, trace::ring_file);
}

bool is_own_place(std::string_view where)
{
    return where == "on" || where == "default";
}

/* With the lock held. A directory for a place of its own is there. */
qerrno open_ring(const std::string &where, observer by, std::uint64_t size, std::uint32_t snap,
                 std::string &problem)
{
    using platform_posix::config;
    const bool own_place = is_own_place(where);
    const std::string path =
        own_place
            ? trace::path_of_process(config().runtime_dir, program_invocation_short_name, trace::ring_file)
            : where;
    qerrno cause = EOK;
    std::unique_ptr<ring> opened;
    if (const ring *current = in_use.load(); current != nullptr && current->path() == path) {
        replace(nullptr); /* it becomes the predecessor */
    }
    const std::vector<std::uint64_t> dead =
        own_place ? remove_dead_rings(dead_rings_kept) : std::vector<std::uint64_t>();
    if (where == "default" &&
        std::accumulate(dead.begin(), dead.end(), free_in(config().runtime_dir)) < size * free_for_servers) {
        problem = config().runtime_dir + ": not " + std::to_string(free_for_servers) + " times the " +
                  std::to_string(size / 1024) + " KiB that it takes are free";
        return ENOSPC;
    }
    opened = ring::create(path, by, size, snap, cause, problem);
    if (opened == nullptr && cause == ENOSPC && !dead.empty() &&
        free_in(config().runtime_dir) + dead.back() >= ring::size_of_file(size)) {
        (void)remove_dead_rings(dead.size() - 1);
        opened = ring::create(path, by, size, snap, cause, problem);
    }
    if (opened == nullptr) {
        return cause;
    }
    replace(std::move(opened));
    return EOK;
}

/* A process without a ring is as good as any other, so long as people know. With the lock held. */
qerrno open_or_say(const char *where, observer by, std::uint32_t size_kib, std::uint32_t snap)
{
    std::string problem;
    qerrno status = ENOMEM;
    try {
        status = is_own_place(where) ? platform_posix::make_runtime_dir(problem) : qerrno{EOK};
        if (status == EOK) {
            status = open_ring(where, by, std::uint64_t{size_kib} * 1024, snap, problem);
        }
    } catch (const std::bad_alloc &) {
        problem.clear();
    }
    if (status != EOK) {
        std::fprintf(stderr, "l2vpn: no capture ring: %s\n",
                     problem.empty() ? qerr_strerror(status) : problem.c_str());
    }
    return status;
}

/* A ring that nobody asked for: it takes no directory that is not there, and no space that is wanted elsewhere, and
 * where there cannot be one nobody is told. With the lock held. False: there may be one later. */
bool open_by_default(const platform_posix::configuration &config) noexcept
try {
    const std::uint64_t size = std::uint64_t{config.capture_size_kib} * 1024;
    std::string problem;
    const qerrno status = platform_posix::check_runtime_dir(problem);
    if (status == EOK && free_in(config.runtime_dir) >= size * free_for_owners) {
        (void)open_ring("on", observer::owner, size, config.capture_snap, problem);
    }
    return status != ENOENT;
} catch (const std::bad_alloc &) {
    return false;
}

} // namespace

void record(record_kind kind, flow direction, const link_facts &about, qerrno status, const iovec *pieces,
            std::uint32_t count) noexcept
{
    ring *to = in_use.load(std::memory_order_acquire);
    if (to == nullptr) {
        return;
    }
    record_head head{.kind = kind,
                     .direction = direction,
                     .by = {},
                     .class_id = about.class_id,
                     .nodeid = about.nodeid,
                     .pid = about.pid == this_process ? to->pid() : about.pid,
                     .uid = about.uid,
                     .link = about.link,
                     .number = 0,
                     .status = static_cast<std::uint32_t>(status),
                     .length = 0,
                     .name = {}};
    std::memcpy(head.name.data(), about.name, ::strnlen(about.name, head.name.size() - 1));
    to->write(head, pieces, count);
}

std::array<char, 16> name_of_process(pid_t pid)
{
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/%d/comm", static_cast<int>(pid));
    std::array<char, 16> name{};
    const platform_posix::unique_fd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
    if (file && ::read(file.get(), name.data(), name.size()) > 0) {
        std::ranges::replace(name, '\n', '\0');
    }
    name.back() = '\0';
    return name;
}

void begin_owner()
{
    const std::lock_guard guard(board().lock);
    if (std::exchange(board().owner_begun, true) || in_use.load() != nullptr) {
        return;
    }
    const platform_posix::configuration &config = platform_posix::config();
    if (config.capture == "off") {
        return;
    }
    if (config.capture_asked) {
        open_or_say(config.capture.c_str(), observer::owner, config.capture_size_kib, config.capture_snap);
    } else {
        board().owner_begun = open_by_default(config);
    }
}

} // namespace l2vpn::capture

using namespace l2vpn::capture;

qerrno platform_capture_set(const char *where, uint32_t size_kib, uint32_t snap)
{
    if (where == nullptr || size_kib < 64 || size_kib > 1048576) {
        return EINVAL;
    }
    const std::string_view place = where;
    const std::lock_guard guard(board().lock);
    if (place == "off") {
        replace(nullptr);
        return EOK;
    }
    if (!is_own_place(place) && place.find('/') == std::string_view::npos) {
        return EINVAL;
    }
    return open_or_say(where, observer::process, size_kib, snap);
}

const char *platform_capture_path(void)
{
    thread_local std::array<char, PATH_MAX> path;
    const ring *current = in_use.load();
    std::snprintf(path.data(), path.size(), "%s", current != nullptr ? current->path().c_str() : "");
    return path.data();
}
