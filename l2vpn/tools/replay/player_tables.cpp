/*
 * The player as an operator: what it asks the process for, and what it is shown.
 */
#include "player_link.h"

#include <algorithm>
#include <array>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnctl {

using namespace l2vpn::capture;

/* Of a process of its own, which may be another program. */
json player::ask(const std::string &verb, const json &args, const std::function<void(const json &row)> &row)
try {
    control_link to(m_control, m_patience);
    return to.ask(verb, args, row);
} catch (const json::exception &) {
    throw odd_answer(m_control);
}

/* Of one client, node and class, the latest link has the highest number. */
uint64_t player::owner_number(link &of)
{
    if (of.number == 0) {
        std::map<std::array<uint64_t, 3>, std::vector<uint64_t>> numbers;
        ask("show clients", json::object(), [&](const json &row) {
            numbers[{row.at("pid"), row.at("class"), row.at("node")}].push_back(row.at("owner"));
        });
        std::vector<link *> fresh;
        for (const auto &[id, open] : m_links) {
            fresh.push_back(open.get());
        }
        std::ranges::sort(fresh, std::greater(), [](const link *one) { return one->serial; });
        for (link *one : fresh) {
            auto &left = numbers[{static_cast<uint64_t>(one->process->pid()), one->class_id, one->nodeid}];
            if (!left.empty()) {
                one->number = left.back();
                left.pop_back();
                m_owners[one->number] = one->id;
            }
        }
    }
    return of.number;
}

/* What operators ask for is no message of a capture, but what came of it is. */
void player::provision(link &of, const captured &record)
{
    settle();
    const reading message = read(record);
    json handles = json::array();
    for (uint32_t i = 0; i < message.count; i++) {
        handles.push_back(*handle_in(record, message, i));
    }
    const uint64_t number = owner_number(of);
    if (of.is_over || number == 0 || handles.empty()) {
        return;
    }
    const json args = {{"owner", number}, {"handles", std::move(handles)}};
    const bool on = message.type == L2VPN_AC_MSG_PROV;
    try {
        ask(on ? "provision" : "unprovision", args, [](const json &) {});
    } catch (const failure &refused) {
        if (refused.status != exit_failed) {
            throw;
        }
        /* None of them is there any more, and the tables will tell whether that is right. */
    }
    wait(std::chrono::milliseconds(0));
}

tables player::read_tables()
{
    settle();
    const deadline end(m_patience);
    for (;;) {
        tables out;
        bool is_moving = false;
        for (const auto &[id, open] : m_links) {
            owner_number(*open);
        }
        for (size_t i = 0; i < table_count; i++) {
            out.of[i].emplace();
            const json args = i == 2 ? json::object() : json({{"raw", true}});
            ask(table_kinds[i].verb, args, [&](const json &row) {
                const auto owner = m_owners.find(row.at("owner"));
                if (owner == m_owners.end()) {
                    return; /* somebody else's */
                }
                const std::string state = row.value("state", "");
                is_moving = is_moving || state == "provisioning" || state == "unprovisioning";
                json kept = row;
                kept["owner"] = owner->second.name();
                out.add(i, std::move(kept));
            });
        }
        if (!is_moving) {
            drain();
            return out;
        }
        wait(std::chrono::milliseconds(10)); /* somebody is to be told, and is only now being read */
        end.check("does not tell owners what waits for them");
    }
}

} // namespace l2vpnctl
