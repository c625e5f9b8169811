#include "l2vpn_ac_info.h"

#include "l2vpn_ac_class.h"
#include "l2vpn_ac_debug.h"

#include <cerrno>

qerrno l2vpn_ac_info_to_msg(uint32_t class_id, uint32_t count, l2vpn_ac_info_t *infos,
                            l2vpn_ac_info_msg_t **msgs, l2vpn_ac_defn_t *defns)
{
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(class_id);
    if (row == nullptr) {
        l2vpn_ac_report_bad_class(__func__, __LINE__, class_id);
        return EINVAL;
    }

    *msgs = static_cast<l2vpn_ac_info_msg_t *>(calloc_named(count, row->info_size, "AC info msg array"));
    if (*msgs == nullptr) {
        l2vpn_ac_report_no_memory(__func__, __LINE__);
        return ENOMEM;
    }
    if (count == 0)
        return EOK;

    uint32_t size = 0;
    L2VPN_AC_ASSERT(l2vpn_get_var_ac_info_msg_size(class_id, &size));
    if (row->encode_infos == nullptr) /* a class with a size and no layout */
        l2vpn_ac_assert_fail("size == 0", __FILE__, __LINE__, __func__);
    auto *const wire = reinterpret_cast<std::byte *>(*msgs);
    if (defns != nullptr)
        row->encode_acs(defns, infos, wire, count);
    else
        row->encode_infos(infos, wire, count);
    return EOK;
}
