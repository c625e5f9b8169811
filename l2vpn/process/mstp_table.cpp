#include "mstp_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace l2vpnd {

namespace {

/* Roots and states begin alike: handle, then MSTI. */
void read_key(bytes record, mstp_table::place &key)
{
    key = (uint64_t{get32(record.data())} << 16) | get16(record.data() + 4);
}

void read_key(bytes record, mstp_table::name &key)
{
    memcpy(key.data(), record.data(), key.size());
}

} // namespace

void vlan_map::set(uint16_t vlan, uint16_t msti)
{
    if (m_msti == nullptr) {
        m_msti = std::make_unique<std::array<int32_t, vlans>>();
        m_msti->fill(-1);
    }
    int32_t &entry = (*m_msti)[vlan];
    m_size += entry < 0 ? 1 : 0;
    entry = msti;
}

void vlan_map::clear()
{
    m_msti.reset();
    m_size = 0;
}

void vlan_map::swap(vlan_map &other) noexcept
{
    m_msti.swap(other.m_msti);
    std::swap(m_size, other.m_size);
}

template <typename Map>
drop mstp_table::take(Map &map, const message &msg)
{
    /* Whatever needs memory comes first: from the merge on nothing can fail. */
    typename Map::key_type key{};
    Map fresh;
    for (uint32_t i = 0; i < msg.count; i++) {
        read_key(msg.record(i), key);
        if (!map.contains(key)) {
            fresh.try_emplace(key);
        }
    }
    if (m_budget.used + fresh.size() > m_budget.limit) {
        return drop::limit;
    }
    m_budget.used += fresh.size();
    map.merge(fresh);
    for (uint32_t i = 0; i < msg.count; i++) {
        const bytes record = msg.record(i);
        read_key(record, key);
        std::copy(record.begin(), record.end(), map.find(key)->second.begin());
    }
    return drop::none;
}

template drop mstp_table::take(roots_map &map, const message &msg);
template drop mstp_table::take(states_map &map, const message &msg);
template drop mstp_table::take(protections_map &map, const message &msg);

void mstp_table::take_vlans(const message &msg, const batch_step &step)
{
    vlan_map &map = step.inside ? m_gathered : m_vlans;
    for (uint32_t i = 0; i < msg.count; i++) {
        const uint8_t *record = msg.record(i).data();
        map.set(get16(record + 2), get16(record));
    }
}

void mstp_table::end_vlans()
{
    m_vlans.swap(m_gathered);
    m_gathered.clear();
}

} // namespace l2vpnd
