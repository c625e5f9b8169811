#include "l2vpn_ac_delivery.h"

#include "l2vpn_ac_lock.h"
#include "l2vpn_ac_wire.h"

l2vpn_ac_delivery::l2vpn_ac_delivery(const char *function, void *cookie, l2vpn_ac_msg_hdr_t *hdr,
                                     const char *file, uint32_t line)
    : function_(function), file_(file), line_(line)
{
    const l2vpn_ac_lock lock(s_l2vpn_ac_global.cb_lock, function_, file_, line_);
    if (hdr != nullptr)
        l2vpn_ac_convert_hdr(hdr);
    if (client_.emplace(cookie))
        (*client_)->busy = 1;
    else
        client_.reset();
}

l2vpn_ac_delivery::~l2vpn_ac_delivery()
{
    if (!client_)
        return;
    const l2vpn_ac_lock lock(s_l2vpn_ac_global.cb_lock, function_, file_, line_);
    (*client_)->busy = 0;
}
