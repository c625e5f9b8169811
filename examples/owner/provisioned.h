/*
 * What the L2VPN process sends with the ACs that it provisions: for each the id of its cross-connect, the
 * process's node, the AC's handle, and the AC's information back.
 */
#ifndef OWNER_PROVISIONED_H
#define OWNER_PROVISIONED_H

#include "inventory.h"

#include <string>

namespace owner {

// Whether the data carry the interface's handle and its information.
bool carries_information(const interface &entry, const l2vpn_ac_xcid_data_t &data);

std::string describe(uint32_t class_id, const l2vpn_ac_xcid_data_t &data);

} // namespace owner

#endif
