/*
 * Requests and a message, each alone under callgrind's counter: the program is run by count.py. On the counting
 * platform, so that nothing is counted that is not the library's, or asked for by it.
 */
#include "counting_platform.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <valgrind/callgrind.h>
#include <vector>

namespace {

constexpr uint32_t counts[] = {1, 300};
constexpr uint32_t data_size = 32; /* of class 0, on the wire */

struct arrays {
    explicit arrays(uint32_t n)
        : count(n), handles(n, 0x1000), definitions(n), infos(n), requests(n), map(n), roots(n),
          message((L2VPN_AC_HDR_LEN + n * (sizeof(ifhtype) + data_size)) / sizeof(uint32_t))
    {
    }

    uint32_t count;
    std::vector<ifhtype> handles;
    std::vector<l2vpn_ac_defn_t> definitions;
    std::vector<l2vpn_ac_info_t> infos;
    std::vector<l2vpn_mstp_req_t> requests;
    std::vector<l2vpn_msti_vid_map_t> map;
    std::vector<l2vpn_msti_root_t> roots;
    std::vector<uint32_t> message;
};

uint32_t s_provisioned;

qerrno on_status(l2vpn_ac_client_hd_t, uint32_t, uint32_t)
{
    return EOK;
}

qerrno on_provision(l2vpn_ac_client_hd_t, uint32_t count, ifhtype *, l2vpn_ac_xcid_data_t *, uint32_t)
{
    s_provisioned = count;
    return EOK;
}

/* A message of zeros but for its header, which the library converts where it lies. */
qerrno provision(l2vpn_ac_client_hd_t, arrays &a)
{
    for (size_t i = 0; i < L2VPN_AC_HDR_LEN / sizeof(uint32_t); ++i)
        a.message[i] = __builtin_bswap32(a.message[i]);
    s_provisioned = 0;
    CALLGRIND_TOGGLE_COLLECT;
    counting::deliver(a.message.data(), static_cast<uint32_t>(a.message.size() * sizeof(uint32_t)));
    CALLGRIND_TOGGLE_COLLECT;
    return s_provisioned == a.count ? EOK : EPROTO;
}

template <auto request, auto... array>
qerrno counted(l2vpn_ac_client_hd_t hd, arrays &a)
{
    CALLGRIND_TOGGLE_COLLECT;
    const qerrno rc = request(hd, 0, a.count, (a.*array).data()...);
    CALLGRIND_TOGGLE_COLLECT;
    return rc;
}

template <auto request, auto array>
qerrno counted_mstp(l2vpn_ac_client_hd_t hd, arrays &a)
{
    CALLGRIND_TOGGLE_COLLECT;
    const qerrno rc = request(hd, 0, (a.*array).data(), a.count);
    CALLGRIND_TOGGLE_COLLECT;
    return rc;
}

const struct {
    const char *name;
    qerrno (*run)(l2vpn_ac_client_hd_t hd, arrays &a);
} cases[] = {
    {"create", counted<l2vpn_ac_create, &arrays::handles, &arrays::definitions, &arrays::infos>},
    {"update", counted<l2vpn_ac_update, &arrays::handles, &arrays::infos>},
    {"delete", counted<l2vpn_ac_delete, &arrays::handles>},
    {"port_request", counted_mstp<l2vpn_mstp_port_request, &arrays::requests>},
    {"vlan_map", counted_mstp<l2vpn_msti_vid_map, &arrays::map>},
    {"root", counted_mstp<l2vpn_mstp_root, &arrays::roots>},
    {"provision", provision},
};

void must(qerrno rc, const char *name)
{
    if (rc != EOK) {
        std::fprintf(stderr, "%s: status %u\n", name, rc);
        std::exit(1);
    }
}

} // namespace

int main()
{
    l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = on_status;
    callbacks.prov_cb = on_provision;
    l2vpn_ac_client_hd_t hd = nullptr;
    must(l2vpn_ac_process_connect(counting::evm(), 0, 0, &callbacks, &hd), "connect");
    for (const uint32_t count : counts) {
        for (const auto &it : cases) {
            arrays a(count);
            const l2vpn_ac_msg_hdr_t hdr = {L2VPN_AC_HDR_MARK, L2VPN_AC_MSG_PROV, count, 0};
            std::memcpy(a.message.data(), &hdr, sizeof hdr);
            std::vector<uint32_t> header(a.message.begin(), a.message.begin() + 4);
            must(it.run(hd, a), it.name); /* binds symbols */
            std::memcpy(a.message.data(), header.data(), L2VPN_AC_HDR_LEN);
            const std::string name = it.name + std::string("/") + std::to_string(count);
            CALLGRIND_ZERO_STATS;
            must(it.run(hd, a), it.name);
            CALLGRIND_DUMP_STATS_AT(name.c_str());
        }
    }
    return 0;
}
