/*
 * What the platform's own parts use of the event manager beside <platform/event_loop.h>.
 */
#ifndef PLATFORM_POSIX_EVENT_MGR_INTERNAL_H
#define PLATFORM_POSIX_EVENT_MGR_INTERNAL_H

#include <platform/event_loop.h>

#include <cstdint>

namespace l2vpn::platform_posix {

/* As event_fd_watch(), for a handler that only turns the descriptor's event into a posted code: its calls
 * are not counted by event_mgr_dispatch(), which counts the code's handler. */
[[nodiscard]] event_fd_watch_t *watch_uncounted(event_mgr_p evm, int fd, std::uint32_t events,
                                                event_fd_handler_t handler, void *arg) noexcept;

} // namespace l2vpn::platform_posix

#endif
