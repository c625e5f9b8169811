/*
 * The lock monitor: one row for each place that waits for mutexes, found by function and line.
 *
 * Only threads that found a mutex taken come here, so the table has a mutex of its own and is searched from
 * its beginning. It has a fixed number of rows; places beyond the last but one share the last. While a trace
 * ring is in use every change is shown in its file, so that a process that hangs, or was killed hanging,
 * shows where its threads wait.
 */
#include "lock_monitor_internal.h"
#include "trace/ring.h"

#include <platform/config.h>
#include <platform/lock_monitor.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <ctime>
#include <mutex>

using namespace l2vpn::trace;

namespace {

constexpr const char *other_places = "(other places)";

struct monitor {
    std::mutex lock;
    std::array<lock_site, lock_count> sites{};
    ring *shown_in = nullptr;
};

/* Never destroyed: threads may still wait for locks while the process exits. */
monitor &the_monitor()
{
    static monitor &only = *new monitor;
    return only;
}

/* What the calling thread has announced. */
struct announcement {
    lock_site *site = nullptr;
    std::uint64_t since = 0;
};
thread_local announcement announced;

std::uint64_t now() noexcept
{
    struct timespec time {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

void show(monitor &in, const lock_site &site) noexcept
{
    if (in.shown_in == nullptr) {
        return;
    }
    lock_site &copy = in.shown_in->locks()[static_cast<std::size_t>(&site - in.sites.data())];
    const auto words = std::bit_cast<std::array<std::uint64_t, sizeof(lock_site) / 8>>(site);
    auto *target = reinterpret_cast<std::uint64_t *>(&copy);
    for (std::size_t word = 0; word < words.size(); ++word) {
        store_word(target[word], words[word]);
    }
}

/* The row of a place, made when it is new. */
lock_site &site_of(monitor &in, const char *function, std::uint32_t line) noexcept
{
    std::array<char, sizeof lock_site::function> name{};
    std::memcpy(name.data(), function, ::strnlen(function, name.size() - 1));
    const auto last = std::prev(in.sites.end());
    const auto found = std::find_if(in.sites.begin(), last, [&](const lock_site &site) {
        return site.function[0] == '\0' || (site.line == line && site.function == name);
    });
    if (found == last) {
        std::memcpy(last->function.data(), other_places, std::strlen(other_places));
    } else if (found->function[0] == '\0') {
        found->function = name;
        found->line = line;
    }
    return *found;
}

} // namespace

void l2vpn::trace::monitor_locks_in(ring *where) noexcept
{
    monitor &in = the_monitor();
    const std::lock_guard guard(in.lock);
    in.shown_in = where;
    for (const lock_site &site : in.sites) {
        show(in, site);
    }
}

std::mutex &l2vpn::trace::lock_monitor_mutex() noexcept
{
    return the_monitor().lock;
}

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, uint32_t line)
{
    monitor &in = the_monitor();
    const std::lock_guard guard(in.lock);
    if (announced.site != nullptr) {
        --announced.site->waiting;
        show(in, *announced.site);
    }
    lock_site &site = site_of(in, function != nullptr && *function != '\0' ? function : "?", line);
    announced = {.site = &site, .since = now()};
    ++site.waiting;
    site.mutex = reinterpret_cast<std::uintptr_t>(mutex);
    show(in, site);
}

void ptd_unset_mutex_block(void)
{
    if (announced.site == nullptr) {
        return;
    }
    const std::uint64_t waited = now() - announced.since;
    monitor &in = the_monitor();
    const std::lock_guard guard(in.lock);
    lock_site &site = *announced.site;
    announced = {};
    --site.waiting;
    ++site.count;
    site.total += waited;
    site.longest = std::max(site.longest, waited);
    show(in, site);
}

size_t platform_lock_sites(platform_lock_site_t *sites, size_t capacity)
{
    monitor &in = the_monitor();
    const std::lock_guard guard(in.lock);
    size_t count = 0;
    for (const lock_site &site : in.sites) {
        if (site.function[0] == '\0') {
            continue;
        }
        if (sites != nullptr && count < capacity) {
            platform_lock_site_t &out = sites[count];
            static_assert(sizeof out.function == sizeof site.function);
            std::memcpy(out.function, site.function.data(), sizeof out.function);
            out.line = site.line;
            out.waiting = site.waiting;
            out.count = site.count;
            out.total_ns = site.total;
            out.longest_ns = site.longest;
        }
        ++count;
    }
    return count;
}
