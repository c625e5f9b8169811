#include "port_owner.h"

#include <stdio.h>
#include <string.h>

static struct {
    l2vpn_ac_client_hd_t client;
    uint32_t ports;
    bool is_up;
} owner;

/* Creates the ports `first` to `last`. What it returns is not looked at: a failure is a DOWN, and an UP follows. */
static void create(uint32_t first, uint32_t last)
{
    static ifhtype handles[port_owner_most];
    static l2vpn_ac_defn_t definitions[port_owner_most];
    static l2vpn_ac_info_t infos[port_owner_most];

    uint32_t count = 0;
    memset(definitions, 0, sizeof definitions);
    for (uint32_t port = first; port <= last; port++, count++) {
        handles[count] = port;
        snprintf((char *)definitions[count].opaque, 64, "port%u", port);
    }
    l2vpn_ac_create(owner.client, 0, count, handles, definitions, infos);
}

static qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t argument)
{
    (void)client;
    (void)argument;
    if (status == L2VPN_AC_STATUS_UP) {
        owner.is_up = true;
        create(1, owner.ports); /* everything, whatever was sent before */
    } else if (status == L2VPN_AC_STATUS_DOWN) {
        owner.is_up = false;
    }
    return EOK;
}

qerrno port_owner_start(event_mgr_p events, uint32_t ports)
{
    l2vpn_ac_callback_vector_t callbacks = {.status_cb = on_status};
    owner.ports = ports;
    owner.is_up = false;
    return l2vpn_ac_process_connect(events, 0, port_owner_class, &callbacks, &owner.client);
}

void port_owner_add(void)
{
    if (owner.ports == port_owner_most)
        return;
    owner.ports++;
    if (owner.is_up)
        create(owner.ports, owner.ports);
}

bool port_owner_is_up(void)
{
    return owner.is_up;
}

void port_owner_stop(void)
{
    l2vpn_ac_process_disconnect(owner.client);
}
