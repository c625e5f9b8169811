#include "field.h"

#include "text.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <ostream>

namespace owner {

namespace {

template <typename... Ids>
constexpr uint32_t classes(Ids... ids)
{
    return ((1U << static_cast<uint32_t>(ids)) | ...);
}

constexpr uint32_t all = usable_classes;
constexpr uint32_t none = 0;
constexpr uint32_t tagged = classes(0, 1, 16);
constexpr uint32_t circuits = classes(4, 6, 11);

constexpr uint64_t max16 = 0xFFFF;
constexpr uint64_t max32 = 0xFFFFFFFF;
constexpr uint64_t max64 = UINT64_MAX;

uint16_t half(const field_value &value)
{
    return static_cast<uint16_t>(value.number);
}

uint32_t word(const field_value &value)
{
    return static_cast<uint32_t>(value.number);
}

template <std::size_t Size>
void bytes(uint8_t (&member)[Size], const field_value &value)
{
    std::memcpy(member, value.bytes.data(), std::min(value.bytes.size(), Size));
}

using R = ac_records;
using V = field_value;
using enum field_kind;
using enum wire_record;

// clang-format off
constexpr field rows[] = {
    // key          classes        required       min max   in memory                                                                           kind    on the wire: record, offset, width, shift
    {"mtu",         all,           all,           64, 65535, [](R &r, const V &v) { r.defn.word = word(v); },                                    number, definition, 68,  4, 0, "largest frame, in bytes"},
    {"speed",       all,           none,          0,  max32, [](R &r, const V &v) { r.defn.word2 = word(v); },                                   number, definition, 72,  4, 0, "in Mbit/s"},
    {"ifindex",     all,           none,          0,  max32, [](R &r, const V &v) { r.defn.word3 = word(v); },                                   number, definition, 76,  4, 0, "index of the port"},
    {"slot",        classes(2),    none,          0,  max16, [](R &r, const V &v) { r.defn.by_class.half[0] = half(v); },                        number, definition, 80,  2, 0, "where the port is"},
    {"port",        classes(2),    none,          0,  max16, [](R &r, const V &v) { r.defn.by_class.half[1] = half(v); },                        number, definition, 82,  2, 0, "where the port is"},
    {"circuit",     circuits,      circuits,      1,  max32, [](R &r, const V &v) { r.defn.by_class.word = word(v); },                           number, definition, 80,  4, 0, "number of the circuit"},
    {"outer",       classes(0),    none,          1,  4094,  [](R &r, const V &v) { r.defn.by_class2.half = half(v); },                          number, definition, 84,  2, 0, "outer VLAN of a double tag"},
    {"description", all,           none,          0,  521,   [](R &r, const V &v) { bytes(r.defn.opaque2, v); },                                 text,   definition, 86,  0, 0, "for people"},
    {"site",        all,           none,          0,  max32, [](R &r, const V &v) { r.defn.word4 = word(v); },                                   number, definition, 608, 4, 0, "number of the site"},
    {"customer",    all,           none,          0,  max32, [](R &r, const V &v) { r.defn.word5 = word(v); },                                   number, definition, 612, 4, 0, "number of the customer"},
    {"admin",       all,           none,          0,  1,     [](R &r, const V &v) { r.info.words[0] = word(v); },                                number, info,       0,   4, 0, "1: in service"},
    {"pw",          all,           none,          0,  max32, [](R &r, const V &v) { r.info.words[1] = word(v); },                                number, info,       4,   4, 0, "number of the pseudowire"},
    {"peer",        all,           none,          0,  0,     [](R &r, const V &v) { r.info.words[2] = word(v); },                                ipv4,   info,       8,   4, 0, "the router at the other end"},
    {"priority",    all,           none,          0,  max32, [](R &r, const V &v) { r.info.words[3] = word(v); },                                number, info,       12,  4, 0, "higher goes first"},
    {"tag",         tagged,        none,          0,  2,     [](R &r, const V &v) { bytes(r.info.by_class.class0.octets, v); },                  octets, info,       16,  0, 0, "tag protocol, as on the line"},
    {"vlan",        tagged,        tagged,        1,  4094,  [](R &r, const V &v) { r.info.by_class.class0.half = half(v); },                    number, info,       18,  2, 0, "VLAN"},
    {"outer",       classes(2),    classes(2),    1,  4094,  [](R &r, const V &v) { r.info.by_class.class2.half = half(v); },                    number, info,       16,  2, 0, "outer VLAN"},
    {"inner",       classes(2),    classes(2),    1,  4094,  [](R &r, const V &v) { r.info.by_class.class2.half2 = half(v); },                   number, info,       18,  2, 0, "inner VLAN"},
    {"vlan",        classes(6),    none,          1,  4094,  [](R &r, const V &v) { r.info.by_class.class6.half = half(v); },                    number, info,       16,  2, 0, "VLAN"},
    {"tag",         classes(6),    none,          0,  2,     [](R &r, const V &v) { bytes(r.info.by_class.class6.octets, v); },                  octets, info,       18,  0, 0, "tag protocol, as on the line"},
    {"rate",        classes(6),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class6.word = word(v); },                    number, info,       20,  4, 0, "committed rate, in kbit/s"},
    {"learn",       classes(6),    none,          0,  1,     [](R &r, const V &v) { r.info.by_class.class6.bit_a = word(v) & 1U; },              number, info,       24,  1, 7, "learns addresses"},
    {"flood",       classes(6),    none,          0,  1,     [](R &r, const V &v) { r.info.by_class.class6.bit_b = word(v) & 1U; },              number, info,       24,  1, 6, "floods unknown addresses"},
    {"local",       classes(6),    none,          0,  1,     [](R &r, const V &v) { r.info.by_class.class6.bit_c = word(v) & 1U; },              number, info,       24,  1, 5, "both ends are here"},
    {"backup",      classes(6),    none,          0,  1,     [](R &r, const V &v) { r.info.by_class.class6.bit_d = word(v) & 1U; },              number, info,       24,  1, 4, "stands by for another"},
    {"color",       classes(6),    none,          0,  3,     [](R &r, const V &v) { r.info.by_class.class6.bits_e = word(v) & 3U; },             number, info,       24,  1, 2, "colour of its frames"},
    {"queue",       classes(6),    none,          0,  3,     [](R &r, const V &v) { r.info.by_class.class6.bits_f = word(v) & 3U; },             number, info,       24,  1, 0, "queue of its frames"},
    {"ttl",         classes(6),    none,          0,  255,   [](R &r, const V &v) { r.info.by_class.class6.octet = v.number & 0xFFU; },          number, info,       25,  1, 0, "time to live"},
    {"keepalive",   classes(6),    none,          0,  max16, [](R &r, const V &v) { r.info.by_class.class6.half2 = half(v); },                   number, info,       26,  2, 0, "in seconds"},
    {"burst",       classes(6),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class6.word2 = word(v); },                   number, info,       28,  4, 0, "in bytes"},
    {"peak",        classes(6),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class6.word3 = word(v); },                   number, info,       32,  4, 0, "peak rate, in kbit/s"},
    {"key",         classes(6),    none,          0,  4,     [](R &r, const V &v) { bytes(r.info.by_class.class6.octets2, v); },                 octets, info,       36,  0, 0, "key shared with the other end"},
    {"cookie",      classes(6),    none,          0,  max64, [](R &r, const V &v) { r.info.by_class.class6.quad = v.number; },                   number, info,       40,  8, 0, "cookie of the tunnel"},
    {"remote",      classes(6),    none,          0,  71,    [](R &r, const V &v) { bytes(r.info.by_class.class6.opaque, v); },                  text,   info,       48,  0, 0, "name at the other end"},
    {"serial",      classes(6),    none,          0,  max64, [](R &r, const V &v) { r.info.by_class.class6.quad2 = v.number; },                  number, info,       120, 8, 0, "serial number"},
    {"contact",     classes(6),    none,          0,  67,    [](R &r, const V &v) { bytes(r.info.by_class.class6.opaque2, v); },                 text,   info,       128, 0, 0, "whom to call"},
    {"epoch",       classes(6),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class6.word4 = word(v); },                   number, info,       196, 4, 0, "counts restarts"},
    {"system",      classes(7),    classes(7),    0,  8,     [](R &r, const V &v) { bytes(r.info.by_class.class7.opaque, v); },                  octets, info,       16,  0, 0, "system id"},
    {"instance",    classes(7),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class7.word = word(v); },                    number, info,       24,  4, 0, "number of the instance"},
    {"area",        classes(7),    none,          0,  12,    [](R &r, const V &v) { bytes(r.info.by_class.class7.opaque2, v); },                 octets, info,       28,  0, 0, "area address"},
    {"weight1",     classes(7),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class7.words[0] = word(v); },                number, info,       40,  4, 0, "share of the first path"},
    {"weight2",     classes(7),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class7.words[1] = word(v); },                number, info,       44,  4, 0, "share of the second path"},
    {"weight3",     classes(7),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class7.words[2] = word(v); },                number, info,       48,  4, 0, "share of the third path"},
    {"weight4",     classes(7),    none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class7.words[3] = word(v); },                number, info,       52,  4, 0, "share of the fourth path"},
    {"profile",     classes(8),    classes(8),    0,  2339,  [](R &r, const V &v) { bytes(r.info.by_class.class8.opaque, v); },                  text,   info,       16,  0, 0, "service profile, as the process reads it"},
    {"tunnel",      classes(11),   classes(11),   1,  max32, [](R &r, const V &v) { r.info.by_class.class11.word = word(v); },                   number, info,       16,  4, 0, "number of the tunnel"},
    {"session",     classes(11),   none,          0,  max32, [](R &r, const V &v) { r.info.by_class.class11.word2 = word(v); },                  number, info,       20,  4, 0, "session in the tunnel"},
};
// clang-format on

constexpr std::size_t definition_bytes = 616;
constexpr std::size_t longest_info_bytes = 2356;
constexpr std::size_t info_head_bytes = 16;

constexpr bool is_bytes(const field &row)
{
    return row.kind == text || row.kind == octets;
}

constexpr std::size_t size_of(const field &row)
{
    return is_bytes(row) ? row.max : row.width;
}

// Two fields of one class may share a byte only as parts of it.
constexpr bool overlap(const field &one, const field &other)
{
    const bool apart =
        one.offset + size_of(one) <= other.offset || other.offset + size_of(other) <= one.offset;
    const bool parts =
        one.offset == other.offset && one.width == 1 && other.width == 1 && one.shift != other.shift;
    return (one.classes & other.classes) != 0 && one.record == other.record && !apart && !parts;
}

constexpr bool sound(const field &row)
{
    const std::size_t size = row.record == definition ? definition_bytes : longest_info_bytes;
    const bool class_part = row.record == info && row.offset >= info_head_bytes;
    return row.offset + size_of(row) <= size && is_bytes(row) == (row.width == 0) &&
           (row.required & ~row.classes) == 0 && (row.classes & ~all) == 0 &&
           (!class_part || row.classes != all);
}

constexpr bool all_sound()
{
    for (const field &row : rows) {
        if (!sound(row))
            return false;
        for (const field &other : rows)
            if (&row != &other && overlap(row, other))
                return false;
    }
    return true;
}

static_assert(all_sound(), "fields lie inside their records, side by side");

std::string list_of(uint32_t class_set)
{
    if (class_set == all)
        return "all";
    std::string list;
    for (uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id)
        if ((class_set >> class_id & 1U) != 0)
            list += (list.empty() ? "" : ",") + std::to_string(class_id);
    return list;
}

std::string values_of(const field &row)
{
    switch (row.kind) {
    case ipv4:
        return "IPv4 address";
    case octets:
        return std::to_string(2 * row.max) + " hexadecimal digits";
    case text:
        return "text of up to " + std::to_string(row.max) + " bytes";
    case number:
        break;
    }
    return std::to_string(row.min) + " to " + std::to_string(row.max);
}

} // namespace

void print_fields(std::ostream &out)
{
    constexpr int key_width = 14;
    constexpr int class_width = 9;
    constexpr int value_width = 29;
    out << std::left << std::setw(key_width) << "FIELD" << std::setw(class_width) << "CLASSES"
        << std::setw(value_width) << "VALUES"
        << "MEANING (*: must be given)\n";
    for (const field &row : rows)
        out << std::setw(key_width) << std::string(row.key) + (row.required != 0 ? "*" : "")
            << std::setw(class_width) << list_of(row.classes) << std::setw(value_width) << values_of(row)
            << row.help << '\n';
}

std::span<const field> all_fields()
{
    return rows;
}

const field *find_field(std::string_view key, uint32_t class_id)
{
    const auto found = std::find_if(std::begin(rows), std::end(rows), [=](const field &row) {
        return row.key == key && (row.classes >> class_id & 1U) != 0;
    });
    return found == std::end(rows) ? nullptr : found;
}

bool known_field(std::string_view key)
{
    return std::any_of(std::begin(rows), std::end(rows), [=](const field &row) { return row.key == key; });
}

std::string parse_value(const field &row, std::string_view text, field_value &value)
{
    switch (row.kind) {
    case number:
        return parse_number(text, row.min, row.max, value.number);
    case ipv4:
        return parse_ipv4(text, value.number);
    case octets:
        return parse_hex(text, row.max, value.bytes);
    case field_kind::text:
        value.bytes = text;
        return check_text(text, row.max);
    }
    return "has no kind";
}

} // namespace owner
