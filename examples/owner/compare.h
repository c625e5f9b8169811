/*
 * Comparing an inventory, or a scenario, with what the L2VPN process says it holds, byte for byte.
 */
#ifndef OWNER_COMPARE_H
#define OWNER_COMPARE_H

#include "inventory.h"
#include "mstp.h"

#include <istream>
#include <ostream>

namespace owner {

// Reads what 'l2vpnctl show acs --json --raw' printed. Writes one line a difference (20 at most), or one
// line that says how much is the same. True when nothing differs.
bool compare(const interface_list &interfaces, std::istream &held, std::ostream &out);

// The same for a scenario, with what 'l2vpnctl show mstp --json --raw' printed.
bool compare(const mstp_scenario &scenario, std::istream &held, std::ostream &out);

} // namespace owner

#endif
