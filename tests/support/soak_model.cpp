#include "soak_model.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>

static_assert(std::endian::native == std::endian::little, "a number on the wire is one reversed");

namespace soak_test {

namespace {

struct number {
    size_t offset;
    size_t width;
};
using numbers = std::vector<number>;

struct class_row {
    uint32_t class_id;
    size_t info_size;
    numbers definition; /* beside those of every class */
    numbers info;       /* behind the four head words */
};

const std::vector<class_row> class_rows = {
    {0, 20, {{84, 2}}, {{18, 2}}},
    {1, 20, {}, {{18, 2}}},
    {2, 20, {{80, 2}, {82, 2}}, {{16, 2}, {18, 2}}},
    {3, 16, {}, {}},
    {4, 16, {{80, 4}}, {}},
    {6, 200, {{80, 4}}, {{16, 2}, {20, 4}, {26, 2}, {28, 4}, {32, 4}, {40, 8}, {120, 8}, {196, 4}}},
    {10, 16, {}, {}},
    {11, 24, {{80, 4}}, {{16, 4}, {20, 4}}},
};
constexpr size_t bits_offset = 24; /* of class 6, in its information */

const numbers of_every_definition = {{68, 4}, {72, 4}, {76, 4}, {608, 4}, {612, 4}};
const numbers of_every_info = {{0, 4}, {4, 4}, {8, 4}, {12, 4}};
const numbers of_root = {{0, 4}, {4, 2}};
const numbers of_state = {{0, 4}, {4, 2}, {8, 4}, {12, 4}, {16, 2}, {88, 4}};
const numbers of_protection = {{68, 4}};

const class_row &row_of(uint32_t class_id)
{
    return *std::ranges::find(class_rows, class_id, &class_row::class_id);
}

template <typename Record>
std::vector<uint8_t> bytes_of(const Record &record, size_t size = sizeof(Record))
{
    std::vector<uint8_t> bytes(size);
    std::memcpy(bytes.data(), &record, size);
    return bytes;
}

void reverse(std::vector<uint8_t> &bytes, const numbers &all)
{
    for (const number &each : all)
        std::ranges::reverse(std::span(bytes).subspan(each.offset, each.width));
}

std::string hex(const std::vector<uint8_t> &bytes)
{
    constexpr const char *digits = "0123456789abcdef";
    std::string text(2 * bytes.size(), '\0');
    char *to = text.data();
    for (const uint8_t *from = bytes.data(), *const end = from + bytes.size(); from != end; ++from) {
        *to++ = digits[*from >> 4];
        *to++ = digits[*from & 15];
    }
    return text;
}

template <typename Record>
std::string wire(const Record &record, const numbers &all)
{
    std::vector<uint8_t> bytes = bytes_of(record);
    reverse(bytes, all);
    return hex(bytes);
}

std::string wire_definition(uint32_t class_id, const l2vpn_ac_defn_t &definition)
{
    std::vector<uint8_t> bytes = bytes_of(definition);
    reverse(bytes, of_every_definition);
    reverse(bytes, row_of(class_id).definition);
    return hex(bytes);
}

std::string wire_info(uint32_t class_id, const l2vpn_ac_info_t &info)
{
    const class_row &row = row_of(class_id);
    std::vector<uint8_t> bytes = bytes_of(info, row.info_size);
    reverse(bytes, of_every_info);
    reverse(bytes, row.info);
    if (class_id == 6) {
        const l2vpn_ac_info_class6_t &part = info.by_class.class6;
        bytes[bits_offset] = static_cast<uint8_t>(part.bit_a << 7 | part.bit_b << 6 | part.bit_c << 5 |
                                                  part.bit_d << 4 | part.bits_e << 2 | part.bits_f);
    }
    return hex(bytes);
}

} // namespace

bool heads_belong_to(const uint32_t *words, uint32_t handle)
{
    return words[1] == (words[0] ^ handle);
}

l2vpn_ac_info_t model::any_info(uint32_t handle)
{
    auto info = any<l2vpn_ac_info_t>();
    info.words[1] = info.words[0] ^ handle;
    return info;
}

/* ACs side by side, those that are there anew. */
ac_arrays model::create(uint32_t most)
{
    ac_arrays made;
    const uint32_t from = below(handles_an_owner);
    const uint32_t count = 1 + below(most);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t handle = first_handle(m_class) + (from + i) % handles_an_owner;
        auto definition = any<l2vpn_ac_defn_t>();
        std::ranges::fill(std::span(definition.opaque, 64), uint8_t{0});
        const std::string name = "ac" + std::to_string(handle);
        std::ranges::copy(name, definition.opaque);
        const l2vpn_ac_info_t info = any_info(handle);
        m_holds.acs[handle] = {wire_definition(m_class, definition), wire_info(m_class, info)};
        made.ifh.push_back(handle);
        made.defns.push_back(definition);
        made.infos.push_back(info);
    }
    return made;
}

/* About half of what there is. */
ac_arrays model::update(uint32_t most)
{
    ac_arrays made;
    for (auto &[handle, held] : m_holds.acs) {
        if (below(2) != 0 || made.size() == most)
            continue;
        made.ifh.push_back(handle);
        made.infos.push_back(any_info(handle));
        held.info = wire_info(m_class, made.infos.back());
    }
    return made;
}

/* About a third of what there is. */
ac_arrays model::remove()
{
    ac_arrays made;
    for (const auto &[handle, held] : m_holds.acs)
        if (below(3) == 0)
            made.ifh.push_back(handle);
    for (const ifhtype handle : made.ifh)
        m_holds.acs.erase(handle);
    return made;
}

std::vector<l2vpn_msti_root_t> model::roots(uint32_t most)
{
    std::vector<l2vpn_msti_root_t> made(1 + below(most));
    for (l2vpn_msti_root_t &root : made) {
        root = any<l2vpn_msti_root_t>();
        root.word = first_handle(m_class) + below(handles_an_owner);
        root.half = static_cast<uint16_t>(below(16));
        m_holds.roots[{root.word, root.half}] = wire(root, of_root);
    }
    return made;
}

std::vector<l2vpn_mstp_req_t> model::states(uint32_t most)
{
    std::vector<l2vpn_mstp_req_t> made(1 + below(most));
    for (l2vpn_mstp_req_t &state : made) {
        state = any<l2vpn_mstp_req_t>();
        state.word = first_handle(m_class) + below(handles_an_owner);
        state.half = static_cast<uint16_t>(below(16));
        m_holds.states[{state.word, state.half}] = wire(state, of_state);
    }
    return made;
}

/* A map takes the place of the one before. */
std::vector<l2vpn_msti_vid_map_t> model::vlan_map(uint32_t least, uint32_t most)
{
    m_holds.vlans.clear();
    std::vector<l2vpn_msti_vid_map_t> made;
    const auto from = static_cast<uint16_t>(4095 - least - below(most - least + 1));
    for (uint16_t vlan = from; vlan <= 4094; ++vlan) {
        const auto msti = static_cast<uint16_t>(below(16));
        made.push_back({msti, vlan});
        m_holds.vlans[vlan] = msti;
    }
    return made;
}

l2vpn_mstp_prot_t model::protection()
{
    auto made = any<l2vpn_mstp_prot_t>();
    std::ranges::fill(made.opaque, uint8_t{0});
    const std::string name = "ring" + std::to_string(below(20));
    std::ranges::copy(name, made.opaque);
    m_holds.protections[name] = wire(made, of_protection);
    return made;
}

} // namespace soak_test
