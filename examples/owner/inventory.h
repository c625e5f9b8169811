/*
 * The inventory: which interfaces there are. A CSV file, described in README.md beside this one.
 */
#ifndef OWNER_INVENTORY_H
#define OWNER_INVENTORY_H

#include "field.h"
#include "text.h"

#include <memory>
#include <string>
#include <vector>

namespace owner {

struct interface {
    struct given {
        const field *row;
        field_value value;
    };

    std::string name;
    uint32_t class_id;
    ifhtype handle;
    std::vector<given> fields;
};

// Shared between the inventory and the requests under way, which may outlive it.
using interface_ptr = std::shared_ptr<const interface>;
using interface_list = std::vector<interface_ptr>;

// Reads the whole file and lists every fault in it; `interfaces` is complete only when there is none.
bool read_inventory(const std::string &path, interface_list &interfaces, fault_list &faults);

} // namespace owner

#endif
