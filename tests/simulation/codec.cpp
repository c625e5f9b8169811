#include "codec.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string>

namespace simulation {

namespace {

struct field {
    std::size_t at;
    std::size_t width;
};
using fields = std::vector<field>;

/* Reverses the named fields of every record of `stride` bytes; on a big-endian host they lie right. */
void turn(std::span<std::uint8_t> records, std::size_t stride, const fields &named)
{
    if constexpr (std::endian::native == std::endian::big)
        return;
    for (std::size_t start = 0; start < records.size(); start += stride) {
        for (const auto &[at, width] : named)
            std::ranges::reverse(records.subspan(start + at, width));
    }
}

const fields heads = {{0, 4}, {4, 4}, {8, 4}, {12, 4}};

/* What of a class's information is numbers, offsets from the start of the wire element. */
const fields &info_fields(std::uint32_t class_id)
{
    static const fields none,
        half = {{18, 2}}, halves = {{16, 2}, {18, 2}}, words = {{16, 4}, {20, 4}},
        class6 = {{16, 2}, {20, 4}, {26, 2}, {28, 4}, {32, 4}, {40, 8}, {120, 8}, {196, 4}},
        class7 = {{24, 4}, {40, 4}, {44, 4}, {48, 4}, {52, 4}};
    switch (class_id) {
    case 0:
    case 1:
    case 16:
        return half;
    case 2:
        return halves;
    case 6:
        return class6;
    case 7:
        return class7;
    case 11:
        return words;
    default:
        return none;
    }
}

/* The same of provisioned data, offsets from the start of the record. */
const fields &data_fields(std::uint32_t class_id)
{
    static const fields none, half = {{30, 2}}, halves = {{28, 2}, {30, 2}},
                              class8 = {{64, 4},   {2628, 4}, {2632, 4}, {2636, 4}, {2640, 4}, {2644, 4},
                                        {2652, 4}, {2656, 4}, {2660, 4}, {2664, 4}, {2668, 4}, {2672, 4}};
    switch (class_id) {
    case 0:
    case 1:
    case 16:
        return half;
    case 2:
        return halves;
    case 8:
        return class8;
    default:
        return none;
    }
}

/* A1 B1 C1 D1 E2 F2, from the low end in the memory of a little-endian host, from the high end on the wire. */
std::uint8_t class6_bits(std::uint8_t memory)
{
    if constexpr (std::endian::native == std::endian::big)
        return memory;
    const auto bits = [memory](int from, int mask) { return (memory >> from) & mask; };
    return static_cast<std::uint8_t>(bits(0, 1) * 128 + bits(1, 1) * 64 + bits(2, 1) * 32 + bits(3, 1) * 16 +
                                     bits(4, 3) * 4 + bits(6, 3));
}

constexpr std::array<const char *, static_cast<std::size_t>(fault::count_)> fault_names = {
    "none",
    "create without end",
    "root limit by record",
    "first retry after 5",
    "empty update with flags",
    "class 6 bits as they lie",
    "class 16 definition as class 0",
    "MSTP begin once",
    "delete refused as told",
    "no DOWN on failed send",
    "busy client goes",
    "header notice bit in host order",
    "class 8 word as it lies",
    "refused disconnect keeps timer",
    "empty create keeps batch",
    "taken over with cause",
    "class 11 information too long",
};

} // namespace

const char *name_of(fault mistake)
{
    return fault_names.at(static_cast<std::size_t>(mistake));
}

std::size_t info_size(std::uint32_t class_id, fault mistake)
{
    if (mistake == fault::class11_info_too_long && class_id == 11)
        return 28;
    return ac_classes::rows.at(class_id).info;
}

std::size_t data_size(std::uint32_t class_id)
{
    return ac_classes::rows.at(class_id).data;
}

bool has_data_layout(std::uint32_t class_id)
{
    return class_id < class_count && ac_classes::rows[class_id].decoded;
}

void turn_defns(std::uint32_t class_id, std::span<std::uint8_t> defns, fault mistake)
{
    fields named = {{68, 4}, {72, 4}, {76, 4}, {608, 4}, {612, 4}};
    if (class_id == 2)
        named.insert(named.end(), {{80, 2}, {82, 2}});
    if (class_id == 4 || class_id == 6 || class_id == 11 || class_id == 17)
        named.push_back({80, 4});
    if (class_id == 0 || (class_id == 16 && mistake == fault::class16_defn_as_class0))
        named.push_back({84, 2});
    turn(defns, defn_size, named);
}

void turn_words(std::span<std::uint8_t> words)
{
    turn(words, 4, {{0, 4}});
}

void turn_notifies(std::span<std::uint8_t> records)
{
    turn(records, notify_size, {{0, 4}, {4, 2}, {8, 4}, {12, 4}, {16, 4}, {20, 4}, {28, 4}});
}

void turn_mstp(std::uint32_t msg_type, std::span<std::uint8_t> records)
{
    switch (msg_type) {
    case 9:
        return turn(records, vid_size, {{0, 2}, {2, 2}});
    case 11:
        return turn(records, port_size, {{0, 4}, {4, 2}, {8, 4}, {12, 4}, {16, 2}, {88, 4}});
    case 12:
        return turn(records, prot_size, {{68, 4}});
    default:
        return turn(records, root_size, {{0, 4}, {4, 2}});
    }
}

bytes encode_infos(std::uint32_t class_id, byte_view infos, fault mistake)
{
    const std::size_t size = info_size(class_id, mistake);
    const std::size_t count = infos.size() / info_stride;
    const std::size_t copied = class_id == 17 ? header_size : size; /* heads only, and packed as such */
    bytes wire(count * size);
    for (std::size_t i = 0; i < count; ++i) {
        const std::span element(wire.data() + i * copied, copied);
        std::ranges::copy(infos.subspan(i * info_stride, copied), element.begin());
        turn(element, copied, heads);
        if (copied == size)
            turn(element, copied, info_fields(class_id));
        if (class_id == 6 && mistake != fault::class6_bits_as_they_lie)
            element[24] = class6_bits(element[24]);
    }
    return wire;
}

bytes decode_data(std::uint32_t class_id, byte_view records, std::uint32_t count, fault mistake)
{
    const std::size_t size = data_size(class_id) - 4;
    bytes memory(count * data_stride);
    for (std::size_t i = 0; i < count; ++i) {
        const std::span element(memory.data() + i * data_stride, size);
        std::ranges::copy(records.subspan(i * size, size), element.begin());
        turn(element, size, {{0, 4}, {4, 4}, {8, 4}, {12, 4}, {16, 4}, {20, 4}, {24, 4}});
        fields named = data_fields(class_id);
        if (mistake == fault::class8_word_as_it_lies && class_id == 8)
            named.erase(named.begin());
        turn(element, size, named);
    }
    return memory;
}

std::uint32_t get32(byte_view at)
{
    return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 | at[3];
}

void put32(bytes &to, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        to.push_back(static_cast<std::uint8_t>(value >> shift));
}

bytes header_of(std::uint32_t msg_type, std::uint32_t bulk, std::uint32_t flags)
{
    bytes header;
    for (const std::uint32_t word : {std::uint32_t{3}, msg_type, bulk, flags})
        put32(header, word);
    return header;
}

std::uint32_t host32(byte_view at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, at.data(), sizeof value);
    return value;
}

} // namespace simulation
