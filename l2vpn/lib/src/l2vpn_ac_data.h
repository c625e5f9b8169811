/*
 * Provisioned AC data on its way in.
 */
#ifndef L2VPN_AC_DATA_H
#define L2VPN_AC_DATA_H

#include <l2vpn/l2vpn_ac_types.h>
#include <platform/platform.h>

/* An array of AC data records as received, packed at the class's record size and not aligned. */
struct l2vpn_ac_xcid_data_base_t;

/*
 * Decodes `count` records of `class_id` into a new array, which the caller releases with free(). The
 * records are converted to host order where they lie.
 *
 * EOK     `*data` is the array
 * ENOMEM  `*data` is null, the records are untouched
 *
 * Fatal for a class that is invalid or has no layout.
 */
qerrno l2vpn_ac_data_base_to_ac_data(uint32_t class_id, uint32_t count, l2vpn_ac_xcid_data_base_t *base,
                                     l2vpn_ac_xcid_data_t **data);

#endif
