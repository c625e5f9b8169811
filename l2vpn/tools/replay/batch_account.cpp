#include "batch_account.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnctl {

using namespace l2vpn::capture;

batch_account::client batch_account::client_of(const link_id &link, const captured &record)
{
    return {link.observer, record.head.pid};
}

void batch_account::up(const link_id &link, const captured &record)
{
    if (record.head.pid != 0) {
        m_links[client_of(link, record)][record.head.class_id] = link;
    }
}

void batch_account::down(const link_id &link, std::vector<told_batch> &left)
{
    const auto begin = m_open.lower_bound({link, 0});
    auto end = begin;
    for (; end != m_open.end() && end->first.first == link; ++end) {
        left.push_back(end->second);
    }
    m_open.erase(begin, end);
    for (auto &[of, classes] : m_links) {
        std::erase_if(classes, [&](const auto &row) { return row.second == link; });
    }
}

bool batch_account::follow(const link_id &link, const captured &record, const reading &message,
                           uint64_t place, std::vector<told_batch> &closed)
{
    if (!message.row->batched()) {
        return false;
    }
    const bool ends = message.count == 0 || (message.words[1] & message.row->end_bit) != 0;
    auto found = m_open.find({link, message.type});
    if (found == m_open.end() && (message.words[1] & message.row->begin_bit) != 0) {
        found = m_open.try_emplace({link, message.type}, told_batch{link, message.type, place}).first;
    }
    const bool inside = found != m_open.end();
    if (inside) {
        found->second.messages++;
        found->second.records += message.count;
    }
    if (ends) {
        const auto close = [&](const link_id &of) {
            if (const auto open = m_open.find({of, message.type}); open != m_open.end()) {
                closed.push_back(open->second);
                m_open.erase(open);
            }
        };
        close(link);
        for (const auto &[class_id, other] : m_links[client_of(link, record)]) {
            close(other);
        }
    }
    return inside;
}

std::vector<told_batch> batch_account::open() const
{
    std::vector<told_batch> out;
    for (const auto &[place, batch] : m_open) {
        out.push_back(batch);
    }
    return out;
}

} // namespace l2vpnctl
