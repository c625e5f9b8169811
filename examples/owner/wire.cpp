#include "wire.h"

#include <algorithm>

namespace owner {

namespace {

constexpr uint32_t definition_bytes = 616;
constexpr uint32_t header_bytes = 16;
constexpr uint32_t handle_bytes = 4;

constexpr uint32_t info_bytes[] = {20, 20, 20, 16, 16, 16, 200, 56, 2356,
                                   96, 16, 24, 16, 16, 16, 20,  20, 200};

void put(std::string &record, const interface::given &given)
{
    const field &row = *given.row;
    if (row.width == 0) {
        record.replace(row.offset, given.value.bytes.size(), given.value.bytes);
        return;
    }
    const uint64_t number = given.value.number << row.shift;
    for (unsigned at = 0; at < row.width; ++at) {
        const unsigned byte = static_cast<unsigned>(number >> (8U * (row.width - 1U - at))) & 0xFFU;
        // Parts of a byte come one by one, so they are added to what is there.
        record[row.offset + at] =
            static_cast<char>(static_cast<unsigned char>(record[row.offset + at]) | byte);
    }
}

} // namespace

uint32_t wire_info_size(uint32_t class_id)
{
    return info_bytes[class_id];
}

wire_limits wire_acs_per_message(uint32_t class_id, uint32_t mtu)
{
    const uint32_t room = mtu < header_bytes ? 0 : mtu - header_bytes;
    const uint32_t info = info_bytes[class_id];
    return {room / (handle_bytes + definition_bytes + info), room / (handle_bytes + info),
            room / handle_bytes};
}

uint32_t wire_least_mtu(uint32_t class_id)
{
    return header_bytes + handle_bytes + definition_bytes + info_bytes[class_id];
}

wire_ac wire_form(const interface &entry)
{
    wire_ac ac{std::string(definition_bytes, '\0'), std::string(info_bytes[entry.class_id], '\0')};
    ac.definition.replace(0, entry.name.size(), entry.name);
    for (const interface::given &given : entry.fields)
        put(given.row->record == wire_record::definition ? ac.definition : ac.info, given);
    return ac;
}

interface_list in_order(interface_list interfaces)
{
    std::ranges::sort(interfaces, [](const interface_ptr &one, const interface_ptr &other) {
        return std::pair(one->class_id, one->handle) < std::pair(other->class_id, other->handle);
    });
    return interfaces;
}

void print_expected(const interface_list &interfaces, std::ostream &out)
{
    for (const interface_ptr &entry : in_order(interfaces)) {
        const wire_ac ac = wire_form(*entry);
        out << entry->class_id << ' ' << entry->handle << ' ' << entry->name << ' ' << to_hex(ac.definition)
            << ' ' << to_hex(ac.info) << '\n';
    }
}

} // namespace owner
