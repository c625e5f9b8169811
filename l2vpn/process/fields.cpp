#include "fields.h"

#include <algorithm>
#include <array>

namespace l2vpnd {

namespace {

constexpr field number(const char *name, uint16_t offset, uint8_t width, uint16_t count = 1)
{
    return {name, offset, width, count, field_kind::number};
}

constexpr field octets(const char *name, uint16_t offset, uint16_t count)
{
    return {name, offset, 1, count, field_kind::octets};
}

constexpr uint32_t size_of(const field &f)
{
    return uint32_t{f.width} * f.count;
}

/* Side by side from `begin` to `end`. */
template <size_t N>
constexpr bool covers(const std::array<field, N> &fields, uint32_t begin, uint32_t end)
{
    uint32_t cursor = begin;
    for (const field &f : fields) {
        const bool width_is_known = f.width == 1 || f.width == 2 || f.width == 4 || f.width == 8;
        if (f.offset != cursor || f.count == 0 || !width_is_known) {
            return false;
        }
        cursor += size_of(f);
    }
    return cursor == end;
}

/* A definition differs by class in bytes 80 to 85 only. */
template <size_t N>
constexpr auto definition(const std::array<field, N> &by_class)
{
    std::array<field, N + 8> all{};
    all[0] = {"name", 0, 1, name_len, field_kind::text};
    all[1] = octets("octets", 64, 4);
    all[2] = number("word", 68, 4);
    all[3] = number("word2", 72, 4);
    all[4] = number("word3", 76, 4);
    std::copy(by_class.begin(), by_class.end(), all.begin() + 5);
    all[N + 5] = octets("opaque", 86, 522);
    all[N + 6] = number("word4", 608, 4);
    all[N + 7] = number("word5", 612, 4);
    return all;
}

constexpr auto s_defn_plain = definition<1>({octets("class_octets", 80, 6)});
constexpr auto s_defn_class0 = definition<2>({octets("class_octets", 80, 4), number("class_half", 84, 2)});
constexpr auto s_defn_class2 =
    definition<2>({number("class_halves", 80, 2, 2), octets("class_octets", 84, 2)});
constexpr auto s_defn_word = definition<2>({number("class_word", 80, 4), octets("class_octets", 84, 2)});

static_assert(covers(s_defn_plain, 0, defn_len));
static_assert(covers(s_defn_class0, 0, defn_len));
static_assert(covers(s_defn_class2, 0, defn_len));
static_assert(covers(s_defn_word, 0, defn_len));

constexpr std::array s_info_head = {number("words", 0, 4, 4)};
constexpr std::array s_info_half = {octets("octets", 16, 2), number("half", 18, 2)};
constexpr std::array s_info_halves = {number("half", 16, 2), number("half2", 18, 2)};
constexpr std::array s_info_class6 = {
    number("half", 16, 2),      octets("octets", 18, 2),
    number("word", 20, 4),      field{"bits", 24, 1, 1, field_kind::bits6},
    octets("octet", 25, 1),     number("half2", 26, 2),
    number("word2", 28, 4),     number("word3", 32, 4),
    octets("octets2", 36, 4),   number("quad", 40, 8),
    octets("opaque", 48, 72),   number("quad2", 120, 8),
    octets("opaque2", 128, 68), number("word4", 196, 4),
};
constexpr std::array s_info_class7 = {octets("opaque", 16, 8), number("word", 24, 4),
                                      octets("opaque2", 28, 12), number("class_words", 40, 4, 4)};
constexpr std::array s_info_class8 = {octets("opaque", 16, 2340)};
constexpr std::array s_info_class11 = {number("word", 16, 4), number("word2", 20, 4)};

static_assert(covers(s_info_head, 0, info_head_len));
static_assert(covers(s_info_half, info_head_len, 20));
static_assert(covers(s_info_halves, info_head_len, 20));
static_assert(covers(s_info_class6, info_head_len, 200));
static_assert(covers(s_info_class7, info_head_len, 56));
static_assert(covers(s_info_class8, info_head_len, 2356));
static_assert(covers(s_info_class11, info_head_len, 24));

/* The names of these are the process's own reading of them. */
constexpr std::array s_msti_root = {number("handle", 0, 4), number("msti", 4, 2), octets("octets", 6, 2)};
constexpr std::array s_mstp_state = {
    number("handle", 0, 4),   number("msti", 4, 2),   octets("octets", 6, 2),
    number("word2", 8, 4),    number("word3", 12, 4), number("half2", 16, 2),
    octets("opaque", 18, 70), number("word4", 88, 4), octets("tail", 92, 4),
};
constexpr std::array s_protection = {field{"name", 0, 1, name_len, field_kind::text}, octets("tail", 64, 4),
                                     number("word", 68, 4)};
constexpr std::array s_vid_map = {number("msti", 0, 2), number("vlan", 2, 2)};
constexpr std::array s_bulk_notify = {number("word", 0, 4),    number("half", 4, 2),
                                      octets("octets", 6, 2),  number("words", 8, 4, 4),
                                      octets("opaque", 24, 4), number("word2", 28, 4)};

static_assert(covers(s_msti_root, 0, 8));
static_assert(covers(s_mstp_state, 0, 96));
static_assert(covers(s_protection, 0, 72));
static_assert(covers(s_bulk_notify, 0, 32));
static_assert(covers(s_vid_map, 0, 4));

constexpr std::array s_data = {number("common", 0, 4, 7)};
constexpr std::array s_data_half = {number("common", 0, 4, 7), octets("octets", 28, 2),
                                    number("half", 30, 2)};
constexpr std::array s_data_halves = {number("common", 0, 4, 7), number("half", 28, 2),
                                      number("half2", 30, 2)};
constexpr std::array s_data_class8 = {
    number("common", 0, 4, 7),   octets("opaque", 28, 36),     number("word", 64, 4),
    octets("opaque2", 68, 2560), number("words", 2628, 4, 4),  number("word2", 2644, 4),
    octets("octets", 2648, 4),   number("words2", 2652, 4, 4), number("word3", 2668, 4),
    number("word4", 2672, 4),
};
constexpr std::array s_data_class11 = {number("common", 0, 4, 7), octets("octets", 28, 39)};

static_assert(covers(s_data, 0, 28));
static_assert(covers(s_data_half, 0, 32));
static_assert(covers(s_data_halves, 0, 32));
static_assert(covers(s_data_class8, 0, 2676));
static_assert(covers(s_data_class11, 0, 67));

/* clang-format off */
constexpr std::array<field_list, class_count> s_definitions = {
    s_defn_class0, s_defn_plain, s_defn_class2, s_defn_plain, s_defn_word,  s_defn_plain,
    s_defn_word,   s_defn_plain, s_defn_plain,  s_defn_plain, s_defn_plain, s_defn_word,
    s_defn_plain,  s_defn_plain, s_defn_plain,  s_defn_plain, s_defn_plain, s_defn_word,
};
constexpr std::array<field_list, class_count> s_infos = {
    s_info_half,   s_info_half,  s_info_halves, field_list{}, field_list{}, field_list{},
    s_info_class6, s_info_class7, s_info_class8, field_list{}, field_list{}, s_info_class11,
    field_list{},  field_list{}, field_list{},  field_list{}, s_info_half,  field_list{},
};
constexpr std::array<field_list, class_count> s_provisions = {
    s_data_half,   s_data_half,  s_data_halves, s_data,       s_data,       s_data,
    s_data,        field_list{}, s_data_class8, field_list{}, s_data,       s_data_class11,
    s_data,        s_data,       s_data,        field_list{}, s_data_half,  field_list{},
};
/* clang-format on */

uint64_t get_number(const uint8_t *from, uint32_t width)
{
    switch (width) {
    case 1:
        return *from;
    case 2:
        return get16(from);
    case 4:
        return get32(from);
    default:
        return get64(from);
    }
}

json show_numbers(const field &f, const uint8_t *from)
{
    if (f.count == 1) {
        return get_number(from, f.width);
    }
    json list = json::array();
    for (uint32_t i = 0; i < f.count; i++) {
        list.push_back(get_number(from + static_cast<size_t>(i) * f.width, f.width));
    }
    return list;
}

json show_bits6(uint8_t byte)
{
    return {{"a", byte >> 7 & 1}, {"b", byte >> 6 & 1}, {"c", byte >> 5 & 1},
            {"d", byte >> 4 & 1}, {"e", byte >> 2 & 3}, {"f", byte & 3}};
}

} // namespace

field_list definition_fields(uint32_t class_id)
{
    return class_id < class_count ? s_definitions[class_id] : field_list{};
}

field_list info_fields(uint32_t class_id)
{
    return class_id < class_count ? s_infos[class_id] : field_list{};
}

field_list info_head_fields()
{
    return s_info_head;
}
field_list msti_root_fields()
{
    return s_msti_root;
}
field_list mstp_state_fields()
{
    return s_mstp_state;
}
field_list mstp_protection_fields()
{
    return s_protection;
}
field_list bulk_notify_fields()
{
    return s_bulk_notify;
}

field_list vid_map_fields()
{
    return s_vid_map;
}
field_list provision_fields(uint32_t class_id)
{
    return class_id < class_count ? s_provisions[class_id] : field_list{};
}

void show_fields(field_list fields, bytes record, size_t longest, json &out)
{
    for (const field &f : fields) {
        const bytes part = record.subspan(f.offset, size_of(f));
        switch (f.kind) {
        case field_kind::number:
            out[f.name] = show_numbers(f, part.data());
            break;
        case field_kind::octets:
            if (part.size() <= longest) {
                out[f.name] = to_hex(part);
            }
            break;
        case field_kind::bits6:
            out[f.name] = show_bits6(part[0]);
            break;
        case field_kind::text:
            out[f.name] = to_text(part);
            break;
        }
    }
}

std::string to_line(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string to_hex(bytes data)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(data.size() * 2, '0');
    for (size_t i = 0; i < data.size(); i++) {
        text[2 * i] = digits[data[i] >> 4];
        text[2 * i + 1] = digits[data[i] & 15];
    }
    return text;
}

std::string to_text(bytes data)
{
    std::string text;
    text.reserve(data.size());
    for (const uint8_t byte : data) {
        if (byte == 0) {
            break;
        }
        if (byte == '\\') {
            text += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7f) {
            text += static_cast<char>(byte);
        } else {
            text += "\\x" + to_hex({&byte, 1});
        }
    }
    return text;
}

} // namespace l2vpnd
