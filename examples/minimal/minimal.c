/* The smallest interface owner: one AC of class 0, handed over whenever the L2VPN process is there. */
#include <err.h>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>
#include <stdio.h>
#include <string.h>

static qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t argument)
{
    (void)argument;
    if (status == L2VPN_AC_STATUS_DOWN)
        puts("the L2VPN process went away");
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition = {0};
        l2vpn_ac_info_t info = {0};
        memcpy(definition.opaque, "port1.100", sizeof "port1.100");
        info.by_class.class0.half = 100;
        qerrno result = l2vpn_ac_create(client, 0, 1, &handle, &definition, &info);
        printf("port1.100 created: %s\n", qerr_strerror(result));
    }
    fflush(stdout);
    return EOK;
}

int main(int argc, char **argv)
{
    if (argc > 1)
        errx(2, "takes no arguments, '%s' is one", argv[1]);
    l2vpn_ac_callback_vector_t callbacks = {.status_cb = on_status};
    l2vpn_ac_client_hd_t client;
    event_mgr_p events = event_mgr_new();
    if (events == NULL)
        err(1, "event manager");
    qerrno result = l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client);
    if (result != EOK)
        errx(1, "connect: %s", qerr_strerror(result));
    return event_mgr_run(events) < 0; /* until a signal ends the program */
}
