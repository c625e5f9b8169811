#include "l2vpn_ac_data.h"

#include "l2vpn_ac_class.h"
#include "l2vpn_ac_debug.h"

#include <cerrno>

qerrno l2vpn_ac_data_base_to_ac_data(uint32_t class_id, uint32_t count, l2vpn_ac_xcid_data_base_t *base,
                                     l2vpn_ac_xcid_data_t **data)
{
    *data = static_cast<l2vpn_ac_xcid_data_t *>(calloc_named(count, sizeof **data, "AC data array"));
    if (*data == nullptr) {
        L2VPN_AC_DEBUG(__func__, "Cannot allocate memory for AC data array");
        return ENOMEM;
    }
    if (count == 0)
        return EOK;

    uint32_t size = 0;
    L2VPN_AC_ASSERT(l2vpn_get_var_ac_data_base_size(class_id, &size));
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(class_id);
    if (row->decode_data == nullptr) /* a class with a size and no layout */
        l2vpn_ac_assert_fail("size == 0", __FILE__, __LINE__, __func__);
    row->decode_data(reinterpret_cast<std::byte *>(base), *data, count);
    return EOK;
}
