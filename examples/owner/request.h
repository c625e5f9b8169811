/*
 * The arrays of a request, filled from interfaces and used again for the next one.
 */
#ifndef OWNER_REQUEST_H
#define OWNER_REQUEST_H

#include "inventory.h"

#include <span>
#include <vector>

namespace owner {

struct request_arrays {
    std::vector<ifhtype> handles;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;

    void fill(std::span<const interface_ptr> entries);
};

} // namespace owner

#endif
