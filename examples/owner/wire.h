/*
 * What the L2VPN process must hold for an interface, as bytes of the wire. Written from the rows of the
 * field table, without the library and without the records in memory, so that it can judge both.
 */
#ifndef OWNER_WIRE_H
#define OWNER_WIRE_H

#include "inventory.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace owner {

struct wire_ac {
    std::string definition; // 616 bytes
    std::string info;       // as many as the class says
};

wire_ac wire_form(const interface &entry);

// Bytes of one information message of the class.
uint32_t wire_info_size(uint32_t class_id);

// How many ACs of the class one message of `mtu` bytes takes.
struct wire_limits {
    uint32_t create;
    uint32_t update;
    uint32_t remove;
};
wire_limits wire_acs_per_message(uint32_t class_id, uint32_t mtu);
// The smallest MTU with room for one AC in every message.
uint32_t wire_least_mtu(uint32_t class_id);

// By class and handle, as the process shows them.
interface_list in_order(interface_list interfaces);

// One line an AC: class, handle, name, definition and information in hexadecimal; by class and handle.
void print_expected(const interface_list &interfaces, std::ostream &out);

} // namespace owner

#endif
