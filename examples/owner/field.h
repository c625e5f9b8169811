/*
 * The fields that an inventory can give an interface.
 *
 * The wire says which bytes of the two records are numbers and leaves their meaning open; this owner gives
 * them the meanings below. One row a field: its key, who has it, what it may hold, the member of the record
 * that carries it in memory, and the bytes that carry it on the wire. The last two are written down
 * independently, so that comparing what the process holds with what the rows say proves both of them and
 * the conversion between.
 */
#ifndef OWNER_FIELD_H
#define OWNER_FIELD_H

#include <cstdint>
#include <iosfwd>
#include <l2vpn/l2vpn_ac_api.h>
#include <span>
#include <string>
#include <string_view>

namespace owner {

enum class field_kind : uint8_t {
    number, // decimal or 0x hexadecimal, from `min` to `max`
    ipv4,   // dotted quad
    text,   // UTF-8, `max` bytes at most
    octets, // hexadecimal digits, exactly `max` bytes
};

enum class wire_record : uint8_t { definition, info };

struct field_value {
    uint64_t number = 0; // number, ipv4
    std::string bytes;   // text, octets
};

// One AC in the arrays of a request, zeroed before the first field is stored.
struct ac_records {
    l2vpn_ac_defn_t &defn;
    l2vpn_ac_info_t &info;
};

struct field {
    std::string_view key;
    uint32_t classes;  // bit N: class N has the field
    uint32_t required; // bit N: an interface of class N must give it
    uint64_t min;
    uint64_t max;
    void (*store)(ac_records &records, const field_value &value);
    field_kind kind;
    wire_record record;
    uint16_t offset; // on the wire, from the start of the record
    uint8_t width;   // of a number, in bytes
    uint8_t shift;   // of a number that is a part of a byte
    std::string_view help;
};

// Classes an owner can use; all others have no layout for their information.
constexpr uint32_t usable_classes = L2VPN_AC_CLASS_VALID_MASK & ~(1U << 9U) & ~(1U << 17U);

std::span<const field> all_fields();

// Null when the class has no such field.
const field *find_field(std::string_view key, uint32_t class_id);
// Whether any class has it.
bool known_field(std::string_view key);

// One line a field, for people.
void print_fields(std::ostream &out);

std::string parse_value(const field &row, std::string_view text, field_value &value);

} // namespace owner

#endif
