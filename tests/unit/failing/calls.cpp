#include "calls.h"

#include "interposed.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <new>

namespace failing {

namespace {

thread_local order *s_order = nullptr;

/* What calls fail with that are not ordered by name. No server or client can do without the others. */
constexpr failure causes[] = {
    {allocation, ENOMEM},       {"epoll_create1", EMFILE},
    {"epoll_ctl", ENOSPC},      {"eventfd", ENFILE},
    {"timerfd_create", EMFILE}, {"inotify_init1", EMFILE},
    {"socket", ENFILE},         {"bind", EROFS},
    {"listen", ENOBUFS},        {"connect", EACCES},
    {"accept4", EMFILE},        {"getsockname", ENOBUFS},
    {"open", EACCES},           {"fcntl", EMFILE},
    {"flock", ENOLCK},          {"fchmod", EPERM},
    {"chmod", EPERM},           {"lchown", EPERM},
    {"mkdir", ENOSPC},          {"unlink", EBUSY},
    {"getgrnam_r", EIO},        {"pthread_mutex_init", ENOMEM},
};

void *allocate(size_t size)
{
    if (const int cause = interposed::cause_of(allocation); cause != 0) {
        errno = cause;
        return nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

void *allocate_or_throw(size_t size)
{
    void *const memory = allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

void order::begin()
{
    s_order = this;
}

void order::end()
{
    if (s_order == this)
        s_order = nullptr;
}

int order::cause_for(std::string_view call)
{
    const auto *const row = std::ranges::find(causes, call, &failure::call);
    const int otherwise = row != std::end(causes) ? row->cause : 0;
    if (m_left == 0 && m_then > 0 && otherwise != 0) {
        m_then--;
        return otherwise;
    }
    if (m_left == 0 || (m_call.empty() ? otherwise == 0 : m_call != call) || --m_left > 0)
        return 0;
    m_failed = {call, m_cause != 0 ? m_cause : otherwise};
    return m_failed.cause;
}

std::string text_of(const failure &what)
{
    return std::string(what.call) + ": " + strerror(what.cause);
}

size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

} // namespace failing

int interposed::cause_of(std::string_view call)
{
    return failing::s_order != nullptr ? failing::s_order->cause_for(call) : 0;
}

#pragma GCC visibility push(default)

void *operator new(size_t size)
{
    return failing::allocate_or_throw(size);
}
void *operator new[](size_t size)
{
    return failing::allocate_or_throw(size);
}
void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    return failing::allocate(size);
}
void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, const std::nothrow_t & /*tag*/) noexcept
{
    std::free(memory);
}

#pragma GCC visibility pop
