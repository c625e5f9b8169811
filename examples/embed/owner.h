/*
 * An interface owner of one AC that leaves the main loop to its program.
 *
 * An event manager is one descriptor. The program watches it with whatever loop it has, and calls
 * event_mgr_dispatch(events, 0) when it is readable: links, timers and callbacks all come through it.
 */
#ifndef EMBED_OWNER_H
#define EMBED_OWNER_H

#include <platform/event_loop.h>

/* Connects; the AC is handed over whenever the L2VPN process is there. Ends the program when that fails. */
event_mgr_p owner_start(void);

/* Disconnects, on the thread of the loop and from outside of the owner's callbacks. */
void owner_stop(void);

#endif
