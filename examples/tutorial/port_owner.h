/* The owner of docs/testing-your-owner.md: ports with the handles 1, 2, 3, ... of class 4. */
#ifndef PORT_OWNER_H
#define PORT_OWNER_H

#include <l2vpn/l2vpn_ac_api.h>
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { port_owner_class = 4, port_owner_most = 100 };

/* Connects; `ports` ports are created when the L2VPN process is there. */
qerrno port_owner_start(event_mgr_p events, uint32_t ports);

/* One port more, at once or at the next UP. */
void port_owner_add(void);

bool port_owner_is_up(void);

void port_owner_stop(void);

#ifdef __cplusplus
}
#endif

#endif
