/*
 * Running an event manager on Linux.
 *
 * An event manager is one epoll descriptor. A program either runs it (event_mgr_run), or watches
 * event_mgr_fd() in a loop of its own and calls event_mgr_dispatch(evm, 0) whenever it is readable.
 * Handlers run on the thread that dispatches; only one thread dispatches at a time. Everything but
 * dispatch, run and free may be called from any thread.
 */
#ifndef PLATFORM_EVENT_LOOP_H
#define PLATFORM_EVENT_LOOP_H

#include <platform/compiler.h>
#include <platform/event_mgr.h>
#include <platform/qerr.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* Null with the cause in errno when the kernel gives no descriptor or there is no memory. */
event_mgr_p event_mgr_new(void);

/* Frees the event manager. Call it when nothing uses it any more, never from a handler. Null is allowed. */
void event_mgr_free(event_mgr_p evm);

/* The one descriptor that stands for the whole event manager: readable when there is work. It stays the
 * event manager's; poll it, do not read or close it. */
int event_mgr_fd(event_mgr_p evm);

/*
 * Waits up to `timeout_ms` milliseconds (0: not at all, negative: without bound) for work and does what
 * there is. Returns the number of handlers called (0: none in time), or a negative value with the cause
 * in errno. An interrupting signal ends the wait with 0.
 */
int event_mgr_dispatch(event_mgr_p evm, int timeout_ms);

/* Dispatches until event_mgr_stop(). Returns 0, or a negative value with the cause in errno. */
int event_mgr_run(event_mgr_p evm);

/* Makes event_mgr_run() return after the handler in progress. Async-signal-safe. */
void event_mgr_stop(event_mgr_p evm);

/*
 * Posts `code`: the handler attached to it runs once for every post, in order. A code without a handler
 * is dropped. Returns 0, or a negative value with the cause in errno (EINVAL, ENOMEM).
 */
int event_async_post(event_mgr_p evm, int code);

/* Descriptors of the program's own. */
typedef struct event_fd_watcher event_fd_watch_t;

#define EVENT_FD_READ 1u
#define EVENT_FD_WRITE 2u
#define EVENT_FD_HANGUP 4u /* reported always, asked for or not: error or hang-up */

typedef void (*event_fd_handler_t)(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

/*
 * Watches `fd`, level-triggered, for `events`. The descriptor stays the caller's and must stay open until
 * event_fd_unwatch(). Null with the cause in errno on failure.
 */
event_fd_watch_t *event_fd_watch(event_mgr_p evm, int fd, uint32_t events, event_fd_handler_t handler,
                                 void *arg);

/* Changes what is watched for (0: nothing but hang-ups). Returns 0, or negative with the cause in errno. */
int event_fd_modify(event_fd_watch_t *watch, uint32_t events);

/* Ends the watch; its handler is not called any more once this has returned on the dispatching thread.
 * May be called from the handler itself. Null is allowed. */
void event_fd_unwatch(event_fd_watch_t *watch);

PLATFORM_END_DECLS

#endif
