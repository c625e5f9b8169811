/*
 * An owner of one AC whose callback refuses to be provisioned; runs until a signal.
 */
#include <cstdio>
#include <cstring>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>

namespace {

qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t /*argument*/)
{
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition{};
        l2vpn_ac_info_t info{};
        memcpy(definition.opaque, "refused", sizeof "refused");
        (void)l2vpn_ac_create(client, 0, 1, &handle, &definition, &info);
    }
    return EOK;
}

qerrno on_provision(l2vpn_ac_client_hd_t /*client*/, uint32_t /*bulk*/, ifhtype * /*handles*/,
                    l2vpn_ac_xcid_data_t * /*data*/, uint32_t /*flags*/)
{
    puts("refused");
    fflush(stdout);
    return 5;
}

} // namespace

int main()
{
    l2vpn_ac_callback_vector_t callbacks{};
    callbacks.status_cb = on_status;
    callbacks.prov_cb = on_provision;
    event_mgr_p events = event_mgr_new();
    l2vpn_ac_client_hd_t client = nullptr;
    if (events == nullptr || l2vpn_ac_process_connect(events, 0, 3, &callbacks, &client) != EOK) {
        return 1;
    }
    return event_mgr_run(events) < 0 ? 1 : 0;
}
