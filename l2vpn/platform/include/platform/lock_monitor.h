/*
 * The lock monitor: threads announce that they are about to block on a mutex.
 */
#ifndef PLATFORM_LOCK_MONITOR_H
#define PLATFORM_LOCK_MONITOR_H

#include <platform/compiler.h>
#include <pthread.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/*
 * The calling thread is about to block on `mutex`, in `function` at source line `line`. `function` must
 * stay readable for the life of the process. At most one announcement a thread: a second replaces the
 * first.
 */
void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, uint32_t line);

/* The calling thread blocks no longer. Does nothing without an announcement. */
void ptd_unset_mutex_block(void);

PLATFORM_END_DECLS

#endif
