/*
 * The AC classes: one row a class, with the sizes of its wire records and its conversions. A request
 * or message looks its row up once and never asks for the class again.
 */
#ifndef L2VPN_AC_CLASS_H
#define L2VPN_AC_CLASS_H

#include <l2vpn/l2vpn_ac_types.h>

#include <cstddef>
#include <cstdint>

/* Sizes that all classes share: the head of an information record, the common part of an AC data record,
 * and the handle that the data size of a class counts in. */
inline constexpr uint32_t L2VPN_AC_INFO_HEAD = 16;
inline constexpr uint32_t L2VPN_AC_DATA_HEAD = 28;
inline constexpr uint32_t L2VPN_AC_IFH_LEN = 4;

struct l2vpn_ac_class_row {
    l2vpn_ac_class_t class_id; /* the row's own index */
    uint32_t info_size;        /* one information record on the wire, head included */
    uint32_t data_size;        /* one provisioned AC on the wire: its handle and its data record */

    /* Fill the zeroed wire array from `count` information records; the second one converts as many definition
     * records in place, too. Null: the class has no layout. */
    void (*encode_infos)(const l2vpn_ac_info_t *infos, std::byte *wire, size_t count);
    void (*encode_acs)(l2vpn_ac_defn_t *defns, const l2vpn_ac_info_t *infos, std::byte *wire, size_t count);

    /* Converts `count` definition records back, the last one first: the last ones are still in the caches. */
    void (*restore_defns)(l2vpn_ac_defn_t *defns, size_t count);

    /* Converts `count` wire records in place and copies them into zeroed records. Null: no layout. */
    void (*decode_data)(std::byte *wire, l2vpn_ac_xcid_data_t *data, size_t count);
};

/* The row of a valid class, null for 15 and for 18 and above. */
const l2vpn_ac_class_row *l2vpn_ac_class_find(uint32_t class_id);

/* The size of a class's part of the information record, and of the data record, after the common head.
 * False for an invalid class; `size` is then untouched. */
bool l2vpn_get_var_ac_info_msg_size(uint32_t class_id, uint32_t *size);
bool l2vpn_get_var_ac_data_base_size(uint32_t class_id, uint32_t *size);

#endif
