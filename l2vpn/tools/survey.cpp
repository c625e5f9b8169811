#include "survey.h"

namespace l2vpnctl {

using namespace l2vpn::capture;

void survey::begin(const std::vector<std::string> &sources)
{
    for (size_t i = 0; i < sources.size(); i++) {
        m_out.searched.push_back({.name = sources[i], .path = m_paths[i]});
    }
}

bool survey::take(size_t source, const captured &record, uint64_t lost)
{
    searched_source &of = m_out.searched[source];
    of.from = of.records == 0 ? record.time : of.from;
    of.to = record.time;
    const recorder by = recorder_in(source, record.head);
    if (of.records == 0) {
        of.overwritten = record.head.number;
        m_first.emplace(source, by);
    } else {
        of.lost += lost;
    }
    m_next[by] = record.head.number + 1;
    of.records++;
    if (record.head.kind == record_kind::link_refused) {
        of.refused++;
    }
    if (record.head.kind == record_kind::message) {
        of.messages++;
        of.cut += m_find.take(record) ? 0 : 1;
    }
    m_progress.count();
    return true;
}

/* In another part of the same capture, which stops where this one begins. */
bool survey::is_elsewhere(size_t source, uint64_t before) const
{
    recorder part = m_first.at(source);
    for (size_t other = 0; other < m_out.searched.size(); other++) {
        std::get<size_t>(part) = other;
        const auto next = m_next.find(part);
        if (other != source && next != m_next.end() && next->second == before) {
            return true;
        }
    }
    return false;
}

void survey::end(size_t source, uint64_t lost)
{
    searched_source &of = m_out.searched[source];
    of.lost += lost;
    if (of.overwritten > 0 && is_elsewhere(source, of.overwritten)) {
        of.overwritten = 0;
    }
}

bool follower::take(size_t source, const captured &record, uint64_t /*lost*/)
{
    m_chain.take(source, record);
    m_progress.count();
    return true;
}

} // namespace l2vpnctl
