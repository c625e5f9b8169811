/* A user's own unit test, on the simulated platform: what is sent at UP, and nothing before it. */
#include <cstdio>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/sim.h>

namespace {

qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t /*argument*/)
{
    if (status == L2VPN_AC_STATUS_UP) {
        ifhtype handle = 0x1000;
        l2vpn_ac_defn_t definition{};
        l2vpn_ac_info_t info{};
        return l2vpn_ac_create(client, 0, 1, &handle, &definition, &info);
    }
    return EOK;
}

size_t creates(const l2vpn::sim::link &link)
{
    size_t count = 0;
    for (const l2vpn::sim::bytes &message : link.sent()) {
        count += message[7] == L2VPN_AC_MSG_CREATE ? 1 : 0;
    }
    return count;
}

} // namespace

int main()
{
    l2vpn::sim::world world;
    l2vpn_ac_callback_vector_t callbacks{};
    callbacks.status_cb = on_status;
    l2vpn_ac_client_hd_t client = nullptr;
    const qerrno connected = l2vpn_ac_process_connect(world.evm(), 0, 0, &callbacks, &client);
    world.run();
    const size_t before = creates(world.link_of(0));
    world.link_of(0).up();
    world.run();
    const size_t after = creates(world.link_of(0));
    std::printf("connect %u, creates before UP %zu, after %zu\n", connected, before, after);
    return connected == EOK && before == 0 && after == 1 ? 0 : 1;
}
