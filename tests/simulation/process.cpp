#include "process.h"

#include "random.h"

#include <algorithm>

namespace simulation {

namespace {

constexpr std::uint32_t most_answered = 4;

bytes part(byte_view of, std::size_t at, std::size_t size)
{
    const byte_view chosen = of.subspan(at, size);
    return {chosen.begin(), chosen.end()};
}

/* A message about the first of the ACs of a message, with a payload drawn from the first. */
bytes about(std::uint32_t type, byte_view message, std::uint32_t count, std::size_t payload)
{
    bytes answer = header_of(type, count, 0);
    answer.insert(answer.end(), message.begin() + header_size,
                  message.begin() + static_cast<std::ptrdiff_t>(header_size + 4 * count));
    const std::size_t at = answer.size();
    answer.resize(at + payload);
    random_source(get32(message.subspan(header_size))).fill(std::span(answer).subspan(at));
    return answer;
}

} // namespace

std::vector<bytes> l2vpn_process::receive(std::uint32_t class_id, byte_view message)
{
    const std::uint32_t type = get32(message.subspan(4));
    const std::size_t count = get32(message.subspan(8));
    const std::size_t info = info_size(class_id);
    inventory &acs = acs_.at(class_id);
    const byte_view ifhs = message.subspan(header_size);
    const auto is_of = [&](std::size_t size) { return message.size() == header_size + count * size; };
    const auto ifh = [&](std::size_t i) { return get32(ifhs.subspan(4 * i)); };

    if (type == 2 && is_of(4 + defn_size + info)) {
        const byte_view defns = ifhs.subspan(4 * count);
        const byte_view infos = defns.subspan(defn_size * count);
        for (std::size_t i = 0; i < count; ++i)
            acs[ifh(i)] = {part(defns, i * defn_size, defn_size), part(infos, i * info, info)};
    } else if (type == 3 && is_of(4 + info)) {
        const byte_view infos = ifhs.subspan(4 * count);
        for (std::size_t i = 0; i < count; ++i) {
            if (const auto found = acs.find(ifh(i)); found != acs.end())
                found->second.info = part(infos, i * info, info);
        }
    } else if (type == 6 && is_of(4)) {
        for (std::size_t i = 0; i < count; ++i)
            acs.erase(ifh(i));
    }

    if (!automatic_.at(class_id))
        return {};
    const auto answered = std::min(static_cast<std::uint32_t>(count), most_answered);
    if (type == 0)
        return {header_of(15, 0x01020304, 0x02000000)};
    if (type == 2 && count > 0 && is_of(4 + defn_size + info) && has_data_layout(class_id))
        return {about(7, message, answered, answered * (data_size(class_id) - 4))};
    if (type == 6 && count > 0 && is_of(4))
        return {about(8, message, answered, 0)};
    if (type == 14 && count > 0)
        return {about(13, message, 1, notify_size - 4)};
    return {};
}

std::uint32_t l2vpn_process::holds(std::uint32_t class_id, byte_view ifhs, byte_view defns,
                                   byte_view infos) const
{
    bytes wire_defns(defns.begin(), defns.end());
    turn_defns(class_id, wire_defns);
    const bytes wire_infos = encode_infos(class_id, infos);
    const std::size_t size = info_size(class_id);
    const inventory &acs = acs_.at(class_id);

    std::uint32_t held = 0;
    for (std::size_t i = 0; i < ifhs.size() / 4; ++i) {
        const auto found = acs.find(host32(ifhs.subspan(4 * i)));
        const held_ac meant{part(wire_defns, i * defn_size, defn_size), part(wire_infos, i * size, size)};
        held += found != acs.end() && found->second == meant ? 1 : 0;
    }
    return held;
}

} // namespace simulation
