/*
 * A platform that only counts what is sent, so that what is left to measure is the library. One thread, one
 * registration a class, timers that never expire.
 */
#ifndef BENCH_COUNTING_PLATFORM_H
#define BENCH_COUNTING_PLATFORM_H

#include <platform/platform.h>

#include <cstdint>

namespace counting {

struct counts {
    std::uint64_t messages;
    std::uint64_t bytes;
};

/* What was sent since the last call. */
__attribute__((visibility("default"))) counts take();

/* Bytes in a message, header included. Before the connect. */
__attribute__((visibility("default"))) void set_mtu(std::uint32_t mtu);

/* Any address will do as an event manager. */
__attribute__((visibility("default"))) event_mgr_p evm();

} // namespace counting

#endif
