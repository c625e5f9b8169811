/*
 * Named allocations.
 */
#ifndef PLATFORM_MEMORY_H
#define PLATFORM_MEMORY_H

#include <platform/compiler.h>
#include <stddef.h>

PLATFORM_BEGIN_DECLS

/*
 * Allocates `count` elements of `size` bytes, zero-filled. `name` says to people what the memory is
 * for; it must stay readable for the life of the process. The caller owns the memory and releases it
 * with free(). Null when there is no memory or `count` times `size` does not fit a size_t. An
 * allocation of no bytes gives an address that only free() may be given. Any thread.
 */
void *calloc_named(size_t count, size_t size, const char *name);

PLATFORM_END_DECLS

#endif
