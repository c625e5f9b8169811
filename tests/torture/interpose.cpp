#include "interpose.h"

#include <platform/memory.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <sys/mman.h>

#if defined(__SANITIZE_ADDRESS__)
#define FOLLOW_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FOLLOW_MEMORY 0
#endif
#endif
#ifndef FOLLOW_MEMORY
#define FOLLOW_MEMORY 1
#endif

namespace torture::interpose {

namespace {

struct state {
    std::optional<plan> what{};
    std::map<std::string_view, std::uint64_t> counts{};
    std::vector<pthread_mutex_t *> mutexes{};
    long locks_held = 0;
    std::map<void *, std::size_t> mappings{};
};

thread_local state *watched = nullptr;
state the_state;

template <typename F>
F real(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

/* Counts a call; its status when it is to fail, else 0. */
int verdict(std::string_view name)
{
    const std::uint64_t number = ++watched->counts[name];
    const std::optional<plan> &p = watched->what;
    const bool hit = p && p->what != nullptr && p->what->name == name &&
                     (number == p->at || (p->persistently && number > p->at));
    return hit ? p->status : 0;
}

/* Mutexes of the platform are not our business: the library's are recursive. */
bool is_librarys(const pthread_mutex_t *mutex)
{
    return watched != nullptr && (mutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
}

int held(int rc)
{
    watched->locks_held += rc == 0 ? 1 : 0;
    return rc;
}

} // namespace

void clear_failures()
{
    the_state.what.reset();
}

void unwatch()
{
    watched = nullptr;
}

std::uint64_t count(const target &what)
{
    const auto found = the_state.counts.find(what.name);
    return found == the_state.counts.end() ? 0 : found->second;
}

std::size_t mappings()
{
    return the_state.mappings.size();
}

long locks_held()
{
    return the_state.locks_held;
}

std::vector<pthread_mutex_t *> mutexes()
{
    return the_state.mutexes;
}

const bool follows_memory = FOLLOW_MEMORY != 0;

/* --- memory ------------------------------------------------------------------------------------------ */

#if FOLLOW_MEMORY

namespace {

/* Told apart without a lock or an allocation of our own: free() asks for every block of the program. */
std::array<std::atomic<void *>, 16> blocks;
std::atomic<std::size_t> live;

void follow(void *memory)
{
    for (auto &block : blocks) {
        void *empty = nullptr;
        if (block.compare_exchange_strong(empty, memory)) {
            ++live;
            return;
        }
    }
    std::abort(); /* more blocks at once than any scenario has */
}

void forget(void *memory)
{
    if (memory == nullptr || live == 0)
        return;
    for (auto &block : blocks) {
        if (block.load() == memory) {
            block = nullptr;
            --live;
            return;
        }
    }
}

void forget_all()
{
    for (auto &block : blocks)
        block = nullptr;
    live = 0;
}

} // namespace

std::size_t allocations()
{
    return live;
}

#else

namespace {

void forget_all() {}

} // namespace

std::size_t allocations()
{
    return 0;
}

#endif

void watch(const std::optional<plan> &what)
{
    the_state = {};
    the_state.what = what;
    watched = &the_state;
    forget_all();
}

} // namespace torture::interpose

using namespace torture::interpose;

#define IN_FRONT extern "C" __attribute__((visibility("default")))
#define BEFORE_ALL __attribute__((no_sanitize("address")))

#if FOLLOW_MEMORY

IN_FRONT void *calloc_named(size_t count, size_t size, const char *name)
{
    static const auto next = real<void *(*)(size_t, size_t, const char *)>("calloc_named");
    void *const memory = next(count, size, name);
    if (memory != nullptr)
        follow(memory);
    return memory;
}

IN_FRONT void free(void *memory) noexcept
{
    static const auto next = real<void (*)(void *)>("free");
    forget(memory);
    next(memory);
}

#endif

/* These two are called before a sanitizer has begun its work, which they must not ask for then. */

IN_FRONT BEFORE_ALL void *mmap(void *at, std::size_t size, int protection, int flags, int fd,
                               off_t offset) noexcept
{
    using function = void *(*)(void *, std::size_t, int, int, int, off_t);
    if (watched == nullptr || at != nullptr || fd != -1)
        return reinterpret_cast<function>(dlsym(RTLD_NEXT, "mmap"))(at, size, protection, flags, fd, offset);
    if (const int status = verdict("mmap")) {
        errno = status;
        return MAP_FAILED;
    }
    void *const memory = real<function>("mmap")(at, size, protection, flags, fd, offset);
    if (memory != MAP_FAILED)
        watched->mappings[memory] = size;
    return memory;
}

IN_FRONT BEFORE_ALL int munmap(void *at, std::size_t size) noexcept
{
    using function = int (*)(void *, std::size_t);
    if (watched == nullptr)
        return reinterpret_cast<function>(dlsym(RTLD_NEXT, "munmap"))(at, size);
    const auto found = watched->mappings.find(at);
    if (found != watched->mappings.end() && found->second == size)
        watched->mappings.erase(found);
    return real<function>("munmap")(at, size);
}

IN_FRONT int pthread_mutex_trylock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_trylock");
    if (!is_librarys(mutex))
        return next(mutex);
    if (std::ranges::find(watched->mutexes, mutex) == watched->mutexes.end())
        watched->mutexes.push_back(mutex);
    if (const int status = verdict("pthread_mutex_trylock"))
        return status;
    if (const int busy = verdict("busy_mutex"))
        return busy;
    /* A failing lock needs a mutex that is busy. */
    if (verdict("pthread_mutex_lock") != 0)
        return EBUSY;
    return held(next(mutex));
}

IN_FRONT int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_lock");
    if (!is_librarys(mutex))
        return next(mutex);
    const std::optional<torture::plan> &p = watched->what;
    if (p && p->what != nullptr && p->what->name == "pthread_mutex_lock")
        return p->status;
    return held(next(mutex));
}

IN_FRONT int pthread_mutex_unlock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_unlock");
    if (!is_librarys(mutex))
        return next(mutex);
    const int status = verdict("pthread_mutex_unlock");
    const int rc = next(mutex);
    watched->locks_held -= rc == 0 ? 1 : 0;
    return status != 0 ? status : rc;
}
