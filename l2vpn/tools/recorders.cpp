#include "recorders.h"

namespace l2vpnctl {

using namespace l2vpn::capture;

namespace {

constexpr uint64_t late_most = 64;

} // namespace

bool recorders::state::awaits(uint64_t number) const
{
    const uint64_t back = next - number; /* from 1 on, of those before it */
    return number == next || (number < next && back <= late_most && (late >> (back - 1) & 1) != 0);
}

/* Gives how many are missing before it. */
uint64_t recorders::state::follow(uint64_t number, bool is_first)
{
    if (number < next) {
        late &= ~(uint64_t{1} << (next - number - 1));
        return 0;
    }
    const uint64_t missing = number - next;
    next = number + 1;
    late = missing + 1 < late_most ? late << (missing + 1) : 0;
    if (!is_first) {
        late |= missing + 1 < late_most ? (uint64_t{1} << (missing + 1)) - 2 : ~uint64_t{1};
    }
    return missing;
}

/* The one that goes on with this number. */
std::optional<size_t> recorders::find(const state &like, uint64_t number) const
{
    std::optional<size_t> nearest;
    for (size_t i = 0; i < m_all.size() && number > 0; i++) {
        const state &one = m_all[i];
        if (one.by != like.by || one.pid != like.pid) {
            continue;
        }
        if (one.awaits(number)) {
            return i;
        }
        if (m_join == join::with_gap && one.next < number && (!nearest || one.next > m_all[*nearest].next)) {
            nearest = i;
        }
    }
    return nearest;
}

recorders::place recorders::take(size_t source, const record_head &head)
{
    const state fresh{.by = head.by, .pid = head.by == observer::owner ? head.pid : 0};
    const std::tuple key(source, fresh.by, fresh.pid);
    const auto known = m_latest.find(key);
    std::optional<size_t> found;
    if (known == m_latest.end()) {
        found = find(fresh, head.number);
    } else if (const state &latest = m_all[known->second];
               head.number >= latest.next || latest.awaits(head.number)) {
        found = known->second;
    }
    const bool is_new = !found;
    if (is_new) { /* or it has begun again */
        found = m_all.size();
        m_all.push_back(fresh);
    }
    m_latest[key] = *found;
    return {*found, is_new, m_all[*found].follow(head.number, is_new)};
}

} // namespace l2vpnctl
