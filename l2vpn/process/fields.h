/*
 * What stands where in the records of the wire, for display: definitions, info messages, MSTP records and
 * the records that the process sends.
 *
 * A record is a list of fields that lie side by side and cover it from end to end, which is proven at compile
 * time. One walker turns any of them into JSON, in host byte order.
 */
#ifndef L2VPND_FIELDS_H
#define L2VPND_FIELDS_H

#include "decoder.h"
#include "json.h"

#include <string>

namespace l2vpnd {

enum class field_kind : uint8_t {
    number, /* `count` numbers of `width` bytes */
    octets, /* `count` bytes that have no order: hexadecimal text */
    bits6,  /* one byte of six bit-fields, allocated from its most significant bit */
    text,   /* `count` bytes, NUL-padded */
};

struct field {
    const char *name;
    uint16_t offset;
    uint8_t width;
    uint16_t count;
    field_kind kind;
};

using field_list = std::span<const field>;

field_list definition_fields(uint32_t class_id);
/* The part behind the head; empty for a class without one, or without a layout. */
field_list info_fields(uint32_t class_id);
field_list info_head_fields();
field_list msti_root_fields();
field_list mstp_state_fields();
field_list mstp_protection_fields();
field_list bulk_notify_fields();
field_list vid_map_fields();
/* Of the record that provisions an AC; empty for a class without a layout for it. */
field_list provision_fields(uint32_t class_id);

/* Adds the fields of `record` to `out`, an object. Octets longer than `longest` bytes are left out. */
void show_fields(field_list fields, bytes record, size_t longest, json &out);

/* As text on one line. What is no UTF-8 (a cut text, a path) is replaced, never refused. */
std::string to_line(const json &value);

std::string to_hex(bytes data);

/* Bytes up to the first NUL, as printable ASCII: a backslash is doubled, other bytes become \xNN. */
std::string to_text(bytes data);

} // namespace l2vpnd

#endif
