/*
 * The delivery of one IPC callback to a client.
 */
#ifndef L2VPN_AC_DELIVERY_H
#define L2VPN_AC_DELIVERY_H

#include "l2vpn_ac_global.h"

#include <optional>

/*
 * Looks the cookie up and marks the client busy under `cb_lock`, and clears the mark at the end; between the
 * two no lock is held. Empty when the library is not initialised or there is no such client. The header of a
 * message, when there is one, is converted to host order first, in any case.
 */
class l2vpn_ac_delivery {
public:
    /* The place is that of the callback, for its locks. */
    l2vpn_ac_delivery(const char *function, void *cookie, l2vpn_ac_msg_hdr_t *hdr = nullptr,
                      const char *file = __builtin_FILE(), uint32_t line = __builtin_LINE());
    ~l2vpn_ac_delivery();

    explicit operator bool() const { return client_.has_value(); }
    l2vpn_ac_client_ctx *get() const { return client_->get(); }

    l2vpn_ac_delivery(const l2vpn_ac_delivery &) = delete;
    l2vpn_ac_delivery &operator=(const l2vpn_ac_delivery &) = delete;

private:
    const char *function_;
    const char *file_;
    uint32_t line_;
    std::optional<l2vpn_ac_client_use> client_;
};

#endif
