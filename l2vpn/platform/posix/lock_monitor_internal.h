#ifndef PLATFORM_POSIX_LOCK_MONITOR_INTERNAL_H
#define PLATFORM_POSIX_LOCK_MONITOR_INTERNAL_H

#include <mutex>

namespace l2vpn::trace {

class ring;

/* Shows the lock monitor's table in the ring's file from now on; null: nowhere. When this returns the ring
 * shown before is not touched any more. */
void monitor_locks_in(ring *where) noexcept;

/* The mutex of the table, to be held over a fork. */
[[nodiscard]] std::mutex &lock_monitor_mutex() noexcept;

} // namespace l2vpn::trace

#endif
