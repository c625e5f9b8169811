/*
 * Information records on their way out.
 */
#ifndef L2VPN_AC_INFO_H
#define L2VPN_AC_INFO_H

#include <l2vpn/l2vpn_ac_types.h>
#include <platform/platform.h>

/* An array of information messages, packed at the class's size. Only its bytes mean anything. */
struct l2vpn_ac_info_msg_t;

/*
 * Converts `count` records of `class_id` into a new packed array, which the caller releases with free().
 * The records are only read. `defns`, where given, are as many definition records, which are converted to the
 * wire in place on the way: both arrays are waited for at a time.
 *
 * EOK     `*msgs` is the array, also for a `count` of 0
 * EINVAL  no such class; `*msgs` and `defns` are untouched
 * ENOMEM  `*msgs` is null, `defns` are untouched
 */
qerrno l2vpn_ac_info_to_msg(uint32_t class_id, uint32_t count, l2vpn_ac_info_t *infos,
                            l2vpn_ac_info_msg_t **msgs, l2vpn_ac_defn_t *defns = nullptr);

#endif
