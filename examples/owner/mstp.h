/*
 * An MSTP scenario: what one class's client tells the L2VPN process about spanning trees. A small text file,
 * described in README.md beside this one.
 */
#ifndef OWNER_MSTP_H
#define OWNER_MSTP_H

#include "text.h"

#include <cstdint>
#include <l2vpn/l2vpn_ac_api.h>
#include <map>
#include <string>
#include <vector>

namespace owner {

// Records in host byte order, as the library's requests take them.
struct mstp_scenario {
    uint32_t class_id = 0;
    std::vector<l2vpn_msti_root_t> roots;
    std::vector<l2vpn_mstp_req_t> ports;
    std::vector<l2vpn_msti_vid_map_t> vlans; // by VLAN
    std::vector<l2vpn_mstp_prot_t> protections;

    bool empty() const { return roots.empty() && ports.empty() && vlans.empty() && protections.empty(); }
};

bool read_mstp(const std::string &path, mstp_scenario &scenario, fault_list &faults);

// The records as bytes of the wire in hexadecimal, written without the library; VLANs as "MSTI of VLAN".
struct mstp_wire {
    std::vector<std::string> roots;
    std::vector<std::string> ports;
    std::vector<std::string> protections;
    std::map<uint32_t, uint32_t> msti_of_vlan;
};

mstp_wire wire_form(const mstp_scenario &scenario);

} // namespace owner

#endif
