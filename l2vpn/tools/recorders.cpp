#include "recorders.h"

#include <algorithm>

namespace l2vpnctl {

using namespace l2vpn::capture;

namespace {

constexpr uint64_t late_most = 64;
constexpr size_t at_once_most = 16; /* processes in one interface */

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

/* A link comes up once: where it was up before, this is another run's. */
bool recorders::state::was_up(const record_head &head) const
{
    return head.kind == record_kind::link_up && head.number >= next && links.contains(head.link);
}

/* What a link has brought came when it was up; what is sent over it may be recorded before that. */
void recorders::state::note_link(const record_head &head)
{
    const bool is_received = head.direction == (by == observer::process ? flow::to_process : flow::to_owner);
    if (head.kind == record_kind::link_up || head.kind == record_kind::link_down || is_received) {
        links.insert(head.link);
    }
}

/* As far as their interfaces tell. */
bool recorders::state::may_be(const state &like) const
{
    const bool are_named = has_name() && like.has_name();
    return by == like.by && pid == like.pid && (!are_named || *from == *like.from);
}

/* The one that goes on with this number. Where some are missing, a number alone says too little: a ring may be that
 * of a process that was started again. */
std::optional<size_t> recorders::find_elsewhere(const state &like, uint64_t number) const
{
    std::optional<size_t> nearest;
    for (size_t i = 0; i < m_all.size() && number > 0; i++) {
        const state &one = m_all[i];
        if (!one.may_be(like)) {
            continue;
        }
        if (one.awaits(number)) {
            return i;
        }
        if (m_join == join::with_gap && one.has_name() && like.has_name() && one.next < number &&
            (!nearest || one.next > m_all[*nearest].next)) {
            nearest = i;
        }
    }
    return nearest;
}

/* Of several processes in one interface the one that this number is due of; else the latest, with a gap. */
std::optional<size_t> recorders::find_among(const std::vector<size_t> &known, uint64_t number) const
{
    const auto due = std::find_if(known.rbegin(), known.rend(),
                                  [this, number](size_t index) { return m_all[index].awaits(number); });
    if (due != known.rend()) {
        return *due;
    }
    return m_all[known.back()].next < number ? std::optional(known.back()) : std::nullopt;
}

recorders::place recorders::take(size_t source, const captured &record)
{
    const record_head &head = record.head;
    state fresh{.by = head.by, .pid = head.by == observer::owner ? head.pid : 0, .from = record.interface};
    std::vector<size_t> &known = m_known[{source, fresh.from, fresh.by, fresh.pid}];
    std::optional<size_t> found =
        known.empty() ? find_elsewhere(fresh, head.number) : find_among(known, head.number);
    const bool is_new = !found || m_all[*found].was_up(head);
    if (is_new) { /* or it has begun again */
        found = m_all.size();
        m_all.push_back(std::move(fresh));
    }
    if (known.empty() || known.back() != *found) {
        std::erase(known, *found);
        known.push_back(*found);
    }
    if (known.size() > at_once_most) {
        known.erase(known.begin());
    }
    state &of = m_all[*found];
    of.note_link(head);
    return {*found, is_new, of.follow(head.number, is_new)};
}

} // namespace l2vpnctl
