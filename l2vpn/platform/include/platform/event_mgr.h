/*
 * The event manager, as the library sees it: a thing that calls a handler when a code is posted.
 * How a program makes and runs one is in <platform/event_loop.h>.
 */
#ifndef PLATFORM_EVENT_MGR_H
#define PLATFORM_EVENT_MGR_H

#include <platform/compiler.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

typedef struct event_mgr *event_mgr_p;
typedef struct event_context event_context_t;

/*
 * Runs on the event manager's thread, once for every posted code, never two at a time. `context` is the
 * record filled by the attach, `arg` the argument given there.
 */
typedef void (*event_async_handler_t)(event_context_t *context, void *arg);

/* One attachment of a handler to a code. Zero it before the attach; the members are the platform's. */
struct event_context {
    event_mgr_p evm;
    event_async_handler_t handler;
    void *arg;
    int code;
};

/*
 * Attaches `handler` to `code`: from now on every event_async_post() of that code to `evm` calls it once.
 * A code has one handler; a second attach replaces it. `context` is filled in and must outlive the event
 * manager, which keeps its address.
 *
 * Returns 0, or a negative value with the cause in errno (EINVAL: a null argument; ENOMEM).
 * Any thread.
 */
int event_async_attach_event(event_mgr_p evm, int code, event_async_handler_t handler, void *arg,
                             event_context_t *context);

PLATFORM_END_DECLS

#endif
