#include "account.h"

#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnctl {

using namespace l2vpn::capture;

namespace {

constexpr size_t shown_octets = 16; /* longer ones are in the raw form only, as the process shows them */

/* The part of this name of AC or record `index`. */
std::span<const uint8_t> part(const captured &record, const reading &message, const char *name,
                              uint32_t index)
{
    for (const section &one : message.sections) {
        if (std::string_view(one.name) == name) {
            return element(record, one, index);
        }
    }
    return {};
}

struct record_kind_row {
    uint32_t type;
    const char *name;
    size_t key; /* bytes that a record begins with, and that no two have alike */
};

constexpr record_kind_row s_records[] = {
    {L2VPN_MSTP_MSG_IS_ROOT, "root", 6},
    {L2VPN_MSTP_MSG_STATE, "state", 6},
    {L2VPN_MSTP_MSG_PROTECTED, "protection", l2vpnd::name_len},
};

const record_kind_row *find_record_kind(uint32_t type)
{
    for (const record_kind_row &row : s_records) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

void account::up(const captured &record)
{
    if (m_owners.contains(link_of(record))) {
        return; /* an owner's messages that waited for the link come before it */
    }
    owner &fresh = m_owners[link_of(record)];
    fresh.node = record.head.nodeid;
    fresh.class_id = record.head.class_id;
    fresh.pid = record.head.pid;
    m_batches.up(link_of(record), record);
}

void account::down(const link_id &link)
{
    std::vector<told_batch> left;
    m_batches.down(link, left);
    m_owners.erase(link);
    std::erase_if(m_acs, [&](const auto &row) { return row.second.owner == link; });
}

void account::take(const captured &record)
{
    if (record.head.link == 0) {
        return; /* of no link: never sent, or refused */
    }
    if (record.head.kind == record_kind::link_up) {
        up(record);
    } else if (record.head.kind == record_kind::link_down) {
        down(link_of(record));
    } else if (has_arrived(record, flow::to_process) || has_arrived(record, flow::to_owner)) {
        take_message(record);
    }
}

account::ac *account::own(const captured &record, uint32_t handle)
{
    const auto found = m_acs.find({record.head.nodeid, record.head.class_id, handle});
    return found != m_acs.end() && found->second.owner == link_of(record) ? &found->second : nullptr;
}

/* Said by the holder's client over an older link: the process leaves the AC where it is. */
bool account::is_outdated(const link_id &link, const ac &held)
{
    const uint32_t pid = m_owners[link].pid;
    return pid != 0 && pid == m_owners[held.owner].pid && link < held.owner;
}

void account::create(const captured &record, const reading &message, bool inside)
{
    owner &from = m_owners[link_of(record)];
    for (uint32_t i = 0; i < message.count; i++) {
        const ac_key key = {record.head.nodeid, record.head.class_id, *handle_in(record, message, i)};
        const auto held = m_acs.find(key);
        if (held != m_acs.end() && is_outdated(link_of(record), held->second)) {
            continue;
        }
        const auto definition = part(record, message, "definition", i);
        const auto info = part(record, message, "info", i);
        m_acs[key] = {link_of(record),
                      {definition.begin(), definition.end()},
                      {info.begin(), info.end()},
                      inside,
                      false};
        if (inside) {
            from.batched.push_back(key);
        }
    }
}

/* Messages that name ACs which are there. */
void account::change(const captured &record, const reading &message)
{
    for (uint32_t i = 0; i < message.count; i++) {
        const uint32_t handle = *handle_in(record, message, i);
        ac *const found = own(record, handle);
        if (found == nullptr) {
            continue;
        }
        if (message.type == L2VPN_AC_MSG_UPDATE) {
            const auto info = part(record, message, "info", i);
            found->info.assign(info.begin(), info.end());
        } else if (message.type == L2VPN_AC_MSG_DELETE) {
            m_acs.erase({record.head.nodeid, record.head.class_id, handle});
        } else if (!found->batched) {
            found->provisioned = message.type == L2VPN_AC_MSG_PROV;
        }
    }
}

void account::spanning_tree(const captured &record, const reading &message, bool inside)
{
    owner &from = m_owners[link_of(record)];
    const record_kind_row *const kind = find_record_kind(message.type);
    for (uint32_t i = 0; i < message.count; i++) {
        const auto whole = part(record, message, "record", i);
        if (kind != nullptr) {
            const auto key = whole.first(kind->key);
            from.records[{kind->type, {key.begin(), key.end()}}].assign(whole.begin(), whole.end());
        } else if (message.type == L2VPN_MSTP_MSG_VID_MAP) {
            (inside ? from.gathered : from.vlans)[l2vpnd::get16(&whole[2])] = l2vpnd::get16(whole.data());
        }
    }
}

void account::end_batch(const told_batch &batch)
{
    owner &of = m_owners[batch.link];
    if (batch.type == L2VPN_AC_MSG_CREATE) {
        for (const ac_key &key : of.batched) {
            const auto found = m_acs.find(key);
            if (found != m_acs.end() && found->second.owner == batch.link) {
                found->second.batched = false;
            }
        }
        of.batched.clear();
    } else if (batch.type == L2VPN_MSTP_MSG_VID_MAP) {
        of.vlans = std::exchange(of.gathered, {});
    }
}

void account::take_message(const captured &record)
{
    up(record); /* which may be before the first record that there is */
    const reading message = read(record);
    if (!message.is_sound()) {
        return;
    }
    std::vector<told_batch> closed;
    const bool inside = m_batches.follow(link_of(record), record, message, record.head.number, closed);
    if (message.type == L2VPN_AC_MSG_CREATE) {
        create(record, message, inside);
    } else if (message.row->each.handle != 0) {
        change(record, message);
    } else {
        spanning_tree(record, message, inside);
    }
    for (const told_batch &batch : closed) {
        end_batch(batch);
    }
}

tables account::result() const
{
    tables out;
    for (auto &rows : out.of) {
        rows.emplace();
    }
    for (const auto &[key, one] : m_acs) {
        const auto &[node, class_id, handle] = key;
        json definition = json::object();
        json info = json::object();
        l2vpnd::show_fields(l2vpnd::definition_fields(class_id), one.definition, shown_octets, definition);
        const json name = definition["name"];
        definition.erase("name");
        if (!l2vpnd::find_class(class_id)->info_opaque) {
            l2vpnd::show_fields(l2vpnd::info_head_fields(), one.info, shown_octets, info);
            l2vpnd::show_fields(l2vpnd::info_fields(class_id), one.info, shown_octets, info);
        }
        out.add(0, {{"node", node},
                    {"class", class_id},
                    {"handle", handle},
                    {"name", name},
                    {"owner", one.owner.name()},
                    {"state", one.batched       ? "batched"
                              : one.provisioned ? "provisioned"
                                                : "created"},
                    {"definition", definition},
                    {"info", info},
                    {"definition_raw", l2vpnd::to_hex(one.definition)},
                    {"info_raw", l2vpnd::to_hex(one.info)}});
    }
    for (const auto &[link, of] : m_owners) {
        for (const auto &[place, record] : of.records) {
            json row = {{"owner", link.name()}, {"kind", find_record_kind(place.first)->name}};
            l2vpnd::show_fields(record_fields(place.first), record, SIZE_MAX, row);
            row["raw"] = l2vpnd::to_hex(record);
            out.add(1, std::move(row));
        }
        for (const auto &[vlan, msti] : of.vlans) {
            out.add(1, {{"owner", link.name()}, {"kind", "vlan"}, {"vlan", vlan}, {"msti", msti}});
        }
    }
    for (const told_batch &batch : m_batches.open()) {
        out.add(2, {{"owner", batch.link.name()},
                    {"type", l2vpnd::find_message(batch.type)->name},
                    {"messages", batch.messages},
                    {"records", batch.records}});
    }
    return out;
}

} // namespace l2vpnctl
