/* An owner in C++, against what is installed: hands one AC over and ends when it is provisioned. */
#include <algorithm>
#include <iostream>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>
#include <string_view>

namespace {

event_mgr_p events;

qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t /*argument*/)
{
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition{};
        l2vpn_ac_info_t info{};
        std::ranges::copy(std::string_view("port1.100"), definition.opaque);
        std::cout << "create: " << qerr_strerror(l2vpn_ac_create(client, 0, 1, &handle, &definition, &info))
                  << std::endl;
    }
    return EOK;
}

qerrno on_prov(l2vpn_ac_client_hd_t /*client*/, uint32_t bulk, ifhtype *handles,
               l2vpn_ac_xcid_data_t * /*data*/, uint32_t /*flags*/)
{
    std::cout << "provisioned: " << bulk << ", 0x" << std::hex << handles[0] << std::endl;
    event_mgr_stop(events);
    return EOK;
}

} // namespace

int main()
{
    l2vpn_ac_callback_vector_t callbacks{};
    callbacks.status_cb = on_status;
    callbacks.prov_cb = on_prov;
    l2vpn_ac_client_hd_t client = nullptr;
    events = event_mgr_new();
    if (events == nullptr || l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client) != EOK) {
        return 1;
    }
    return event_mgr_run(events) < 0 ? 1 : 0;
}
