#include "provisioned.h"

#include "request.h"

#include <algorithm>
#include <cstring>

namespace owner {

namespace {

constexpr std::size_t handle_word = 2;
constexpr std::size_t first_info_word = 3;

// The part behind the seven words, by class. In memory both records are in host byte order.
bool class_part_equals(uint32_t class_id, const l2vpn_ac_info_t &info, const l2vpn_ac_xcid_data_t &data)
{
    switch (class_id) {
    case 0:
    case 1:
    case 16:
        return std::ranges::equal(info.by_class.class0.octets, data.by_class.class0.octets) &&
               info.by_class.class0.half == data.by_class.class0.half;
    case 2:
        return info.by_class.class2.half == data.by_class.class2.half &&
               info.by_class.class2.half2 == data.by_class.class2.half2;
    case 8: {
        const auto &opaque = info.by_class.class8.opaque;
        return data.by_class.class8.word == sizeof opaque &&
               std::memcmp(opaque, data.by_class.class8.opaque2, sizeof opaque) == 0;
    }
    case 11: {
        // Octets to the library, so the numbers in them are as on the wire.
        std::string octets;
        for (const uint32_t number : {info.by_class.class11.word, info.by_class.class11.word2})
            for (const unsigned shift : {24U, 16U, 8U, 0U})
                octets += static_cast<char>(number >> shift & 0xFFU);
        return std::memcmp(octets.data(), data.by_class.class11, octets.size()) == 0;
    }
    default:
        return true;
    }
}

} // namespace

bool carries_information(const interface &entry, const l2vpn_ac_xcid_data_t &data)
{
    request_arrays given;
    // Not owned here: the pointer lives as long as this call.
    const interface_ptr one(std::shared_ptr<void>(), &entry);
    given.fill({&one, 1});
    const l2vpn_ac_info_t &info = given.infos.front();
    return data.words[handle_word] == entry.handle &&
           std::equal(std::begin(info.words), std::end(info.words), data.words + first_info_word) &&
           class_part_equals(entry.class_id, info, data);
}

std::string describe(uint32_t class_id, const l2vpn_ac_xcid_data_t &data)
{
    std::string text = "cross-connect " + std::to_string(data.words[0]) + ", node " +
                       std::to_string(data.words[1]) + ", information";
    for (std::size_t at = first_info_word; at < std::size(data.words); ++at)
        text += " " + std::to_string(data.words[at]);
    if (class_id == 0 || class_id == 1 || class_id == 16)
        text += ", VLAN " + std::to_string(data.by_class.class0.half);
    if (class_id == 2)
        text += ", VLANs " + std::to_string(data.by_class.class2.half) + " and " +
                std::to_string(data.by_class.class2.half2);
    return text;
}

} // namespace owner
