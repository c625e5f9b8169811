/*
 * A platform that only counts what is sent, so that what is left to measure is the library. Messages come in for
 * the latest registration only, timers never expire. What is sent may be given to an outlet, and messages may
 * come in as if the L2VPN process had sent them.
 */
#ifndef BENCH_COUNTING_PLATFORM_H
#define BENCH_COUNTING_PLATFORM_H

#include <platform/platform.h>

#include <cstdint>
#include <sys/uio.h>

namespace counting {

/* Where the pieces of a message go that is sent. */
class outlet {
public:
    virtual void put(const iovec *pieces, size_t count) = 0;

protected:
    ~outlet() = default;
};

struct counts {
    std::uint64_t messages;
    std::uint64_t bytes;
};

/* What was sent since the last call. */
__attribute__((visibility("default"))) counts take();

/* Bytes in a message, header included. Before the connect. */
__attribute__((visibility("default"))) void set_mtu(std::uint32_t mtu);

/* Messages go there as well; null: nowhere, as at first. */
__attribute__((visibility("default"))) void set_outlet(outlet *to);

/* Hands a message to the library, in its class and with its cookie. */
__attribute__((visibility("default"))) void deliver(void *message, std::uint32_t length);

/* The longest that a thread waited for a lock since the last call, in nanoseconds. */
__attribute__((visibility("default"))) double longest_wait();

/* Any address will do as an event manager. */
__attribute__((visibility("default"))) event_mgr_p evm();

} // namespace counting

#endif
