#include "finder.h"

namespace l2vpnctl {

using namespace l2vpn::capture;

bool finder::is_wanted(const captured &record) const
{
    const record_head &head = record.head;
    return (!m_choice.class_id || *m_choice.class_id == head.class_id) &&
           (!m_choice.node || *m_choice.node == head.nodeid) &&
           (!m_choice.owner || (head.by == observer::process && *m_choice.owner == head.link));
}

bool finder::take(const captured &record)
{
    const reading message = read_as_claimed(record);
    if (!is_wanted(record)) {
        return true;
    }
    if (message.row == nullptr || message.row->each.handle == 0) {
        return message.row != nullptr || !message.is_cut;
    }
    const bool has_names = message.row->each.definition != 0;
    for (uint32_t i = 0; i < message.count; i++) {
        const std::optional<uint32_t> handle = handle_in(record, message, i);
        if (!handle) {
            return !message.is_cut; /* from here on nothing was kept */
        }
        const std::string name = has_names ? name_in(record, message, i) : std::string();
        if (handle == m_handle || (!name.empty() && name == m_name)) {
            found_ac &of = m_found[{record.head.nodeid, record.head.class_id, *handle}];
            of.name = name.empty() ? of.name : name;
            if (record.head.by == observer::process) {
                of.owners.insert(record.head.link);
            }
        }
    }
    return true;
}

void finder::add(const json &row)
{
    found_ac &of = m_found[{row.at("node"), row.at("class"), row.at("handle")}];
    of.name = row.at("name");
    of.owners.insert(row.at("owner").get<uint64_t>());
}

json finder::to_json(size_t most) const
{
    json list = json::array();
    for (const auto &[key, of] : m_found) {
        if (list.size() == most) {
            break;
        }
        list.push_back({{"node", key.node},
                        {"class", key.class_id},
                        {"handle", key.handle},
                        {"name", of.name},
                        {"owners", of.owners}});
    }
    return list;
}

} // namespace l2vpnctl
