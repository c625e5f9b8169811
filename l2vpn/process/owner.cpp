#include "owner.h"

#include <numeric>

namespace l2vpnd {

uint64_t counters::all_received() const
{
    return std::accumulate(received.begin(), received.end(), all_dropped());
}

uint64_t counters::all_dropped() const
{
    return std::accumulate(dropped.begin(), dropped.end(), uint64_t{0});
}

owner::owner(uint32_t at, l2vpn_ipc_peer_t link, const l2vpn_ipc_peer_info_t &about, record_budget &budget)
    : slot(at), peer(link), info(about), since(time(nullptr)), acs{}, mstp(budget)
{
}

uint64_t owner::ac_count() const
{
    uint64_t sum = 0;
    for (const ac_list &list : acs) {
        sum += list.count;
    }
    return sum;
}

owner &owner_table::add(l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t &info, record_budget &budget)
{
    if (m_free.empty()) {
        m_free.push_back(static_cast<uint32_t>(m_slots.size()));
        m_slots.emplace_back();
        m_free.reserve(m_slots.size()); /* remove() must not fail */
    }
    const uint32_t slot = m_free.back();
    auto fresh = std::make_unique<owner>(slot, peer, info, budget);
    m_by_id.emplace(info.peer_id, fresh.get());
    m_slots[slot] = std::move(fresh);
    m_free.pop_back();
    return *m_slots[slot];
}

void owner_table::remove(owner &gone)
{
    m_by_id.erase(gone.info.peer_id);
    m_free.push_back(gone.slot);
    m_slots[gone.slot].reset();
}

owner *owner_table::after(uint64_t id) const
{
    const auto at = m_by_id.upper_bound(id);
    return at == m_by_id.end() ? nullptr : at->second;
}

} // namespace l2vpnd
