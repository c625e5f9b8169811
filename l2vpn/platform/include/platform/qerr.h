/*
 * The status type of every operation.
 */
#ifndef PLATFORM_QERR_H
#define PLATFORM_QERR_H

#include <platform/compiler.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* 0 (EOK) is success, anything else a POSIX errno number. */
typedef uint32_t qerrno;

#ifndef EOK
#define EOK 0
#endif

/*
 * The text of a status, "Success" for EOK and "Unknown error N" for a number that errno does not
 * know. The string is static or belongs to the calling thread: it stays readable until the same
 * thread asks for the text of another status. Never null. Any thread.
 */
const char *qerr_strerror(qerrno status);

PLATFORM_END_DECLS

#endif
