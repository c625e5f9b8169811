/*
 * Which channels debug texts and records go to, and the way there.
 */
#ifndef PLATFORM_POSIX_TRACE_CHANNELS_H
#define PLATFORM_POSIX_TRACE_CHANNELS_H

#include "trace/ring.h"

#include <atomic>
#include <cstdarg>

namespace l2vpn::trace {

constexpr unsigned to_stderr = 1;
constexpr unsigned to_syslog = 2;
constexpr unsigned to_ring = 4;
constexpr unsigned not_configured = 8; /* the environment has not been read yet */
constexpr unsigned to_sink = to_stderr | to_syslog;

extern std::atomic<unsigned> open_channels;

/* Reads the configuration, once, and returns the channels that it opened. */
unsigned configure() noexcept;

/* The channels that are open. 0, the usual case, costs a load and a branch. */
inline unsigned channels() noexcept
{
    const unsigned open = open_channels.load(std::memory_order_relaxed);
    return (open & not_configured) != 0 ? configure() : open;
}

/* Gives a text with its values to those of `channels` that are open. Keeps errno. */
void give(unsigned channels, const origin &from, const char *format, va_list values) noexcept;

} // namespace l2vpn::trace

#endif
