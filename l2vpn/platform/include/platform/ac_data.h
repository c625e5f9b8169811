/*
 * The AC utility library: the check of a request's entries before anything is sent.
 */
#ifndef PLATFORM_AC_DATA_H
#define PLATFORM_AC_DATA_H

#include <platform/compiler.h>
#include <platform/qerr.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* One AC of a request: its interface handle in host byte order, then 0. */
typedef struct l2vpn_ac_data_entry {
    uint32_t ifh;
    uint32_t spare;
} l2vpn_ac_data_entry_t;

PLATFORM_STATIC_ASSERT(sizeof(l2vpn_ac_data_entry_t) == 8, "two 32-bit words");

struct l2vpn_ac_defn;
struct l2vpn_ac_info;

/*
 * Checks `count` entries of a request of `class_id`. `defns` is given for a create, `infos` for a create
 * and an update, null otherwise; both are in host byte order and hold `count` records. Nothing is kept.
 *
 * EOK     what can be checked is right (an empty request always is)
 * EINVAL  a handle is 0 or 0xFFFFFFFF, or `entries` is null with a `count` above 0
 *
 * Any thread.
 */
qerrno l2vpn_ac_data_sanitize(uint32_t class_id, const l2vpn_ac_data_entry_t *entries,
                              struct l2vpn_ac_defn *defns, struct l2vpn_ac_info *infos, uint32_t count);

PLATFORM_END_DECLS

#endif
