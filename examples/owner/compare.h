/*
 * Comparing an inventory, or a scenario, with what the L2VPN process says it holds, byte for byte.
 */
#ifndef OWNER_COMPARE_H
#define OWNER_COMPARE_H

#include "inventory.h"
#include "mstp.h"

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace owner {

struct comparison {
    std::string table;                    // what 'l2vpnctl show' calls it
    std::string what;                     // was compared, in words
    std::vector<std::string> differences; // one line each
};

// Reads what 'l2vpnctl show acs --json --raw' printed.
comparison compare(const interface_list &interfaces, std::istream &held);

// The same for a scenario, with what 'l2vpnctl show mstp --json --raw' printed.
comparison compare(const mstp_scenario &scenario, std::istream &held);

// One line a difference (20 at most), or one line that says how much is the same.
void print_comparison(const comparison &made, std::ostream &out);

} // namespace owner

#endif
