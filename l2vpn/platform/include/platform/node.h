/*
 * The identity of this node among the nodes of one router.
 */
#ifndef PLATFORM_NODE_H
#define PLATFORM_NODE_H

#include <platform/compiler.h>
#include <platform/qerr.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* The id that no node has. */
#define NODEID_INVALID 0xFFFFFFFFu

/*
 * Writes this node's id, in host byte order, through `nodeid`. The id is the configured one, else one
 * derived from the machine's identity (/etc/machine-id) or, where that is missing or empty, from the host
 * name. It is the same for every process that sees the same of these, and never NODEID_INVALID.
 *
 * EOK     written
 * EINVAL  `nodeid` is null, or the configured id is not a number below 0xFFFFFFFF
 * others  why the machine's identity cannot be read, or is missing together with the host name; nothing is
 *         written
 *
 * Any thread.
 */
qerrno platform_get_my_nodeid(uint32_t *nodeid);

PLATFORM_END_DECLS

#endif
