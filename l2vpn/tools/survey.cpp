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
    const recorders::place at = m_recorders.take(source, record);
    if (of.records > 0) {
        of.lost += lost;
    } else if (at.is_new) { /* else another part of the same capture has what was before */
        of.overwritten = record.head.number;
    }
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

void survey::end(size_t source, uint64_t lost)
{
    m_out.searched[source].lost += lost;
}

bool follower::take(size_t source, const captured &record, uint64_t /*lost*/)
{
    m_chain.take(source, record);
    m_progress.count();
    return true;
}

} // namespace l2vpnctl
