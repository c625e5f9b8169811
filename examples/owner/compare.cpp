#include "compare.h"

#include "wire.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace owner {

namespace {

using nlohmann::json;

constexpr std::size_t most_lines = 20;

struct held_ac {
    std::string name;
    std::string definition;
    std::string info;
};

using held_acs = std::map<std::pair<uint32_t, ifhtype>, held_ac>; // by class and handle

// The place of the first difference, for people; both texts are hexadecimal.
std::string difference(const std::string &what, const std::string &expected, const std::string &held)
{
    if (expected == held)
        return {};
    if (expected.size() != held.size())
        return what + " of " + std::to_string(held.size() / 2) + " bytes instead of " +
               std::to_string(expected.size() / 2);
    const auto [one, other] = std::mismatch(expected.begin(), expected.end(), held.begin());
    const auto byte = static_cast<std::size_t>(one - expected.begin()) / 2;
    return what + " byte " + std::to_string(byte) + " is " + held.substr(2 * byte, 2) + " instead of " +
           expected.substr(2 * byte, 2);
}

held_acs read_acs(std::istream &in)
{
    held_acs held;
    const json document = json::parse(in);
    for (const json &ac : document.at("acs"))
        held[{ac.at("class").get<uint32_t>(), ac.at("handle").get<ifhtype>()}] = {
            ac.at("name").get<std::string>(), ac.at("definition_raw").get<std::string>(),
            ac.at("info_raw").get<std::string>()};
    return held;
}

std::vector<std::string> differences(const interface_list &interfaces, held_acs held)
{
    std::vector<std::string> found;
    for (const interface_ptr &entry : interfaces) {
        const std::string who = "class " + std::to_string(entry->class_id) + " handle " +
                                std::to_string(entry->handle) + " " + entry->name + ": ";
        const auto there = held.find({entry->class_id, entry->handle});
        if (there == held.end()) {
            found.push_back(who + "the process does not hold it");
            continue;
        }
        const wire_ac expected = wire_form(*entry);
        for (const std::string &text :
             {difference("definition", to_hex(expected.definition), there->second.definition),
              difference("information", to_hex(expected.info), there->second.info)})
            if (!text.empty())
                found.push_back(who + text);
        held.erase(there);
    }
    for (const auto &[id, ac] : held)
        found.push_back("class " + std::to_string(id.first) + " handle " + std::to_string(id.second) + " " +
                        ac.name + ": the process holds it, the inventory does not");
    return found;
}

// Records are told apart by their bytes alone.
void compare_records(const std::string &kind, const std::vector<std::string> &expected,
                     std::multiset<std::string> held, std::vector<std::string> &found)
{
    for (const std::string &record : expected) {
        const auto there = held.find(record);
        if (there == held.end())
            found.push_back(concat({kind, " ", record, ": the process does not hold it"}));
        else
            held.erase(there);
    }
    for (const std::string &record : held)
        found.push_back(concat({kind, " ", record, ": the process holds it, the scenario does not"}));
}

std::vector<std::string> differences(const mstp_scenario &scenario, const json &rows)
{
    std::map<std::string, std::multiset<std::string>> records; // by kind
    std::map<uint32_t, uint32_t> msti_of_vlan;
    for (const json &row : rows) {
        const auto kind = row.at("kind").get<std::string>();
        if (kind == "vlan")
            msti_of_vlan[row.at("vlan").get<uint32_t>()] = row.at("msti").get<uint32_t>();
        else
            records[kind].insert(row.at("raw").get<std::string>());
    }
    const mstp_wire expected = wire_form(scenario);
    std::vector<std::string> found;
    compare_records("root", expected.roots, records["root"], found);
    compare_records("state", expected.ports, records["state"], found);
    compare_records("protection", expected.protections, records["protection"], found);
    for (const auto &[vlan, msti] : expected.msti_of_vlan)
        if (!msti_of_vlan.contains(vlan) || msti_of_vlan[vlan] != msti)
            found.push_back("VLAN " + std::to_string(vlan) + ": the process does not have it in MSTI " +
                            std::to_string(msti));
    for (const auto &[vlan, msti] : msti_of_vlan)
        if (!expected.msti_of_vlan.contains(vlan))
            found.push_back("VLAN " + std::to_string(vlan) + ": the process has it in MSTI " +
                            std::to_string(msti) + ", the scenario in none");
    return found;
}

} // namespace

comparison compare(const interface_list &interfaces, std::istream &held)
{
    return {"acs", "the " + std::to_string(interfaces.size()) + " ACs of the inventory",
            differences(interfaces, read_acs(held))};
}

comparison compare(const mstp_scenario &scenario, std::istream &held)
{
    return {"mstp",
            "the scenario: " + std::to_string(scenario.roots.size()) + " roots, " +
                std::to_string(scenario.ports.size()) + " port states, " +
                std::to_string(scenario.vlans.size()) + " VLANs, " +
                std::to_string(scenario.protections.size()) + " protections",
            differences(scenario, json::parse(held).at("mstp"))};
}

void print_comparison(const comparison &made, std::ostream &out)
{
    const std::vector<std::string> &found = made.differences;
    if (found.empty())
        out << "the process holds exactly " << made.what << ", byte for byte\n";
    for (std::size_t at = 0; at < std::min(found.size(), most_lines); ++at)
        out << found[at] << '\n';
    if (found.size() > most_lines)
        out << "and " << found.size() - most_lines << " more differences\n";
}

} // namespace owner
