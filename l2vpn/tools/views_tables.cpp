/*
 * The views of what the process holds: ACs and spanning trees.
 */
#include "cells.h"
#include "views.h"

#include <cstdio>
#include <map>
#include <utility>

namespace l2vpnctl {

namespace {

/* "word 1, word2 2": an object on one line. */
std::string flat(const json &object)
{
    std::string text;
    for (const auto &[key, value] : object.items()) {
        text += (text.empty() ? "" : " ") + key + "=" + text_of(value);
    }
    return text;
}

std::string folded_hex(const char *title, const std::string &digits)
{
    constexpr size_t a_line = 64;
    std::string text;
    for (size_t at = 0; at < digits.size() || at == 0; at += a_line) {
        char head[48];
        snprintf(head, sizeof head, "    %-10s %04zx  ", at == 0 ? title : "", at / 2);
        text += head + digits.substr(at, a_line) + "\n";
    }
    return text;
}

class acs_view : public view {
public:
    void take(const json &row) override
    {
        std::string below;
        if (row.contains("definition_raw")) {
            below = folded_hex("definition", text_of(row.at("definition_raw"))) +
                    folded_hex("info", text_of(row.at("info_raw")));
        }
        const std::string state = plain(row, "state").text;
        const tint colour = state == "provisioned" ? tint::good
                            : state == "created"   ? tint::plain
                                                   : tint::busy;
        m_table.add({hex(row, "node"),
                     plain(row, "class"),
                     hex(row, "handle"),
                     plain(row, "name"),
                     plain(row, "owner"),
                     {state, colour},
                     plain(row, "xcid"),
                     {flat(row.at("info"))}},
                    std::move(below));
    }
    std::string print(const json &result, const style &how) override
    {
        return (m_table.empty() ? "" : m_table.print(how)) +
               count_of(result.value("acs", uint64_t{0}), "AC", "ACs") + "\n";
    }

private:
    table m_table{{{"NODE"},
                   {"CLASS", true},
                   {"HANDLE"},
                   {"NAME", false, true},
                   {"OWNER", true},
                   {"STATE"},
                   {"XCID", true},
                   {"INFO", false, true}}};
};

/* VLANs that follow one another are shown as ranges. */
class vlan_ranges {
public:
    void add(uint32_t vlan)
    {
        if (!m_ranges.empty() && m_ranges.back().second + 1 == vlan) {
            m_ranges.back().second = vlan;
        } else {
            m_ranges.emplace_back(vlan, vlan);
        }
    }
    std::string text() const
    {
        std::string out;
        for (const auto &[first, last] : m_ranges) {
            out += (out.empty() ? "" : ",") + std::to_string(first) +
                   (last == first ? "" : "-" + std::to_string(last));
        }
        return out;
    }

private:
    std::vector<std::pair<uint32_t, uint32_t>> m_ranges;
};

class mstp_view : public view {
public:
    void take(const json &row) override
    {
        const std::string kind = plain(row, "kind").text;
        if (kind == "root") {
            m_roots.add({plain(row, "owner"), hex(row, "handle"), plain(row, "msti"), plain(row, "octets")});
        } else if (kind == "state") {
            m_states.add({plain(row, "owner"), hex(row, "handle"), plain(row, "msti"), plain(row, "octets"),
                          hex(row, "word2"), hex(row, "word3"), plain(row, "half2"), hex(row, "word4"),
                          plain(row, "tail")});
        } else if (kind == "protection") {
            m_protections.add(
                {plain(row, "owner"), plain(row, "name"), plain(row, "tail"), hex(row, "word")});
        } else {
            m_vlans[{row.value("owner", uint64_t{0}), row.value("msti", uint32_t{0})}].add(
                row.value("vlan", uint32_t{0}));
        }
    }

    std::string print(const json &result, const style &how) override
    {
        table vlans({{"OWNER", true}, {"MSTI", true}, {"VLANS", false, true}});
        for (const auto &[key, ranges] : m_vlans) {
            vlans.add({{std::to_string(key.first)}, {std::to_string(key.second)}, {ranges.text()}});
        }
        std::string out;
        const auto part = [&](const char *title, const table &rows) {
            if (!rows.empty()) {
                out += tinted(title, tint::heading, how) + "\n" + rows.print(how) + "\n";
            }
        };
        part("Roots", m_roots);
        part("Port states", m_states);
        part("Protection", m_protections);
        part("VLAN map", vlans);
        return out + count_of(result.value("roots", uint64_t{0}), "root", "roots") + ", " +
               count_of(result.value("states", uint64_t{0}), "port state", "port states") + ", " +
               count_of(result.value("protections", uint64_t{0}), "protection", "protections") + ", " +
               count_of(result.value("vlans", uint64_t{0}), "VLAN", "VLANs") + "\n";
    }

private:
    table m_roots{{{"OWNER", true}, {"HANDLE"}, {"MSTI", true}, {"OCTETS"}}};
    table m_states{{{"OWNER", true},
                    {"HANDLE"},
                    {"MSTI", true},
                    {"OCTETS"},
                    {"WORD2"},
                    {"WORD3"},
                    {"HALF2", true},
                    {"WORD4"},
                    {"TAIL"}}};
    table m_protections{{{"OWNER", true}, {"NAME", false, true}, {"TAIL"}, {"WORD"}}};
    std::map<std::pair<uint64_t, uint32_t>, vlan_ranges> m_vlans;
};

} // namespace

view_ptr view_of_acs()
{
    return std::make_unique<acs_view>();
}

view_ptr view_of_mstp()
{
    return std::make_unique<mstp_view>();
}

} // namespace l2vpnctl
