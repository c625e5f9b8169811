/*
 * How the Linux platform is configured: environment variables, read once when first needed, and overridden
 * by the functions here. All are optional.
 *
 *   L2VPN_RUNTIME_DIR      directory of the sockets. Default: /run/l2vpn for root or when that directory
 *                          is there and usable, else $XDG_RUNTIME_DIR/l2vpn, else /tmp/l2vpn-UID
 *   L2VPN_NODEID           this node's id, decimal or 0x hexadecimal, below 0xFFFFFFFF. Default: made of
 *                          /etc/machine-id, or of the host name where that file is missing or empty: set
 *                          it where containers of one node have host names of their own
 *   L2VPN_MTU              largest message in bytes, header included, 16 to 1048576. Default 65536. A
 *                          server refuses clients whose MTU is larger than its own
 *   L2VPN_SEND_TIMEOUT_MS  how long a send waits for room, 0 to 60000. Default 1000
 *   L2VPN_LOG              where else warnings and errors of the links to the L2VPN process go, beside the
 *                          system's log: syslog (nowhere else) or stderr. Default syslog
 *   L2VPN_DEBUG            where debug texts go: off, stderr or syslog (the journal's too, where systemd
 *                          has one). Default off
 *   L2VPN_TRACE            the trace ring: off, or on (a file of its own under the runtime directory,
 *                          NAME-PID.trace; of processes of that name that have ended, the newest 4 are
 *                          kept), or the file's path, which has a slash in it. Default off
 *   L2VPN_TRACE_SIZE       size of the trace ring in KiB, 64 to 1048576. Default 1024
 *   L2VPN_CAPTURE          the ring of an owner's latest messages: off, or on (a file of its own under the
 *                          runtime directory, NAME-PID.ring; of processes that have ended, the newest 2 of a
 *                          name are kept, and 32 of all), or the file's path, which has a slash in it. By
 *                          default on where the directory is there and may be written and 64 times the
 *                          ring's size is free; off, without a word, elsewhere and in set-id programs
 *   L2VPN_CAPTURE_SIZE     size of that ring in KiB, 64 to 1048576. Default 256
 *   L2VPN_CAPTURE_SNAP     how many bytes of a message it keeps, 16 to 1048576. Default 160
 *
 * A value that cannot be used is reported once on standard error, with the variable's name, and the
 * default is used; only a bad L2VPN_NODEID is an error of platform_get_my_nodeid().
 */
#ifndef PLATFORM_CONFIG_H
#define PLATFORM_CONFIG_H

#include <platform/compiler.h>
#include <platform/qerr.h>
#include <stddef.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* Writes the NUL-terminated path of a service's socket to `path`. EINVAL: no plain file name;
 * ENAMETOOLONG: longer than `size` or than a socket address takes; ENOMEM. Any thread. */
qerrno platform_service_path(const char *service, char *path, size_t size);

/* Turns debug texts on or off while running; `sink` as L2VPN_DEBUG. EINVAL: no such sink. Any thread. */
qerrno platform_debug_set_sink(const char *sink);

/*
 * Turns the trace ring on or off while running; `where` as L2VPN_TRACE. An empty file and the trace of a
 * process that has ended are replaced, nothing else is. A forked child has no ring until it asks for one.
 *
 * EOK; EINVAL: none of these; EEXIST: another file is there; EBUSY: another process writes its trace there;
 * others: the file's errno. On failure a line on standard error says why and nothing changes. Any thread.
 */
qerrno platform_trace_set(const char *where);

/* The path of the trace file in use, or an empty string. Readable until the same thread asks again. Any
 * thread. */
const char *platform_trace_path(void);

/*
 * Has a server keep its latest messages in a ring of `size_kib` KiB (64 to 1048576), `snap` bytes of each (0: all
 * of it, as far as a quarter of the ring takes it). `where` is off, on or a path, as L2VPN_CAPTURE, or default: on
 * where 4 times the ring's size is free in the runtime directory, or taken by those of its processes that have
 * ended. Owners have the environment variable.
 *
 * EOK; EINVAL: none of these; ENOSPC: so much is not free; others as platform_trace_set(), with a line on standard
 * error. A ring that was in use stays mapped until the process ends. A forked child has no ring. Any thread.
 */
qerrno platform_capture_set(const char *where, uint32_t size_kib, uint32_t snap);

/* The path of the ring in use, or an empty string. Readable until the same thread asks again. Any thread. */
const char *platform_capture_path(void);

/* A place in the program that waited for mutexes, as the lock monitor knows it. */
typedef struct platform_lock_site {
    char function[88];
    uint32_t line;
    uint32_t waiting; /* threads that wait there now */
    uint64_t count;   /* waits that have ended */
    uint64_t total_ns;
    uint64_t longest_ns;
} platform_lock_site_t;

/* Writes the first `capacity` places to `sites` (may be null) and returns how many there are, 128 at most:
 * what comes after the 127th is counted in one row. Any thread. */
size_t platform_lock_sites(platform_lock_site_t *sites, size_t capacity);

PLATFORM_END_DECLS

#endif
