#include "owner.h"

#include <err.h>
#include <l2vpn/l2vpn_ac_api.h>
#include <stdio.h>
#include <string.h>

static l2vpn_ac_client_hd_t client;

static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t argument)
{
    (void)argument;
    if (status == L2VPN_AC_STATUS_DOWN)
        puts("the L2VPN process went away");
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition = {0};
        l2vpn_ac_info_t info = {0};
        memcpy(definition.opaque, "port1.100", sizeof "port1.100");
        qerrno result = l2vpn_ac_create(hd, 0, 1, &handle, &definition, &info);
        printf("port1.100 created: %s\n", qerr_strerror(result));
    }
    fflush(stdout);
    return EOK;
}

event_mgr_p owner_start(void)
{
    static l2vpn_ac_callback_vector_t callbacks = {.status_cb = on_status};
    event_mgr_p events = event_mgr_new();
    if (events == NULL)
        err(1, "event manager");
    qerrno result = l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client);
    if (result != EOK)
        errx(1, "connect: %s", qerr_strerror(result));
    return events;
}

void owner_stop(void)
{
    qerrno result = l2vpn_ac_process_disconnect(client);
    printf("disconnected: %s\n", qerr_strerror(result));
}
