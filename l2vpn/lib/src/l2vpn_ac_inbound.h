/*
 * Messages from the L2VPN process.
 */
#ifndef L2VPN_AC_INBOUND_H
#define L2VPN_AC_INBOUND_H

#include <platform/platform.h>

/*
 * The class's message callback. The cookie is the client context; `message` is converted to host order in
 * place. `class_id` selects sizes and decoding, whatever class the context has.
 */
void l2vpn_ac_msg_cb(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t spare, void *message,
                     uint32_t length, uint32_t spare2, void *cookie);

#endif
