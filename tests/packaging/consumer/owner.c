/* An owner in C, against what is installed: hands one AC over and ends when it is provisioned. */
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>
#include <stdio.h>
#include <string.h>

static event_mgr_p events;

static qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t argument)
{
    (void)argument;
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition;
        l2vpn_ac_info_t info;
        memset(&definition, 0, sizeof definition);
        memset(&info, 0, sizeof info);
        memcpy(definition.opaque, "port1.100", sizeof "port1.100");
        printf("create: %s\n", qerr_strerror(l2vpn_ac_create(client, 0, 1, &handle, &definition, &info)));
    }
    return EOK;
}

static qerrno on_prov(l2vpn_ac_client_hd_t client, uint32_t bulk, ifhtype *handles,
                      l2vpn_ac_xcid_data_t *data, uint32_t flags)
{
    (void)client;
    (void)data;
    (void)flags;
    printf("provisioned: %u, 0x%x\n", bulk, handles[0]);
    event_mgr_stop(events);
    return EOK;
}

int main(void)
{
    l2vpn_ac_callback_vector_t callbacks;
    l2vpn_ac_client_hd_t client;
    memset(&callbacks, 0, sizeof callbacks);
    callbacks.status_cb = on_status;
    callbacks.prov_cb = on_prov;
    events = event_mgr_new();
    if (events == NULL || l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client) != EOK)
        return 1;
    return event_mgr_run(events) < 0;
}
