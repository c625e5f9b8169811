#include "mstp.h"

#include "field.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace owner {

namespace {

constexpr uint32_t last_vlan = 4094;
constexpr uint64_t last_msti = 4094;
constexpr uint64_t last_handle = 0xFFFFFFFE;
constexpr std::string_view port_states[] = {"discarding", "learning", "forwarding"};

// The key=value words of one statement. Each key is asked for once; what nobody asked for is a fault.
class statement {
public:
    statement(std::size_t line, std::string_view text, fault_list &faults)
        : line_(line), text_(text), words_(words(text)), faults_(faults), used_(words_.size())
    {
        used_[0] = true;
    }

    std::string_view keyword() const { return words_[0]; }

    uint64_t number(std::string_view key, uint64_t min, uint64_t max)
    {
        uint64_t value = 0;
        check(key, true, [&](std::string_view text) { return parse_number(text, min, max, value); });
        return value;
    }

    uint64_t number_or_0(std::string_view key, uint64_t max)
    {
        uint64_t value = 0;
        check(key, false, [&](std::string_view text) { return parse_number(text, 0, max, value); });
        return value;
    }

    uint32_t choice(std::string_view key, std::span<const std::string_view> names)
    {
        std::size_t value = 0;
        check(key, true, [&](std::string_view text) {
            value = static_cast<std::size_t>(std::find(names.begin(), names.end(), text) - names.begin());
            return value < names.size() ? std::string() : quoted(text) + " is no state";
        });
        return static_cast<uint32_t>(value);
    }

    template <std::size_t Size>
    void octets(std::string_view key, uint8_t (&to)[Size])
    {
        std::string bytes;
        check(key, false, [&](std::string_view text) { return parse_hex(text, Size, bytes); });
        std::memcpy(to, bytes.data(), bytes.size());
    }

    // A byte stays free for the NUL.
    template <std::size_t Size>
    void text(std::string_view key, bool required, uint8_t (&to)[Size])
    {
        check(key, required, [&](std::string_view text) {
            std::string why = text.empty() ? "is empty" : check_text(text, Size - 1);
            if (why.empty())
                std::memcpy(to, text.data(), text.size());
            return why;
        });
    }

    // The next word that is no pair; empty when there is none.
    std::string_view plain_word()
    {
        for (std::size_t at = 0; at < words_.size(); ++at)
            if (!used_[at] && words_[at].find('=') == std::string_view::npos) {
                used_[at] = true;
                return words_[at];
            }
        return {};
    }

    void fault(std::string_view at, const std::string &what) { faults_.add(line_, column(at), what); }
    void fault(const std::string &what) { faults_.add(line_, 0, what); }

    void done()
    {
        for (std::size_t at = 0; at < words_.size(); ++at)
            if (!used_[at])
                fault(words_[at],
                      quoted(words_[at]) + " does not belong to '" + std::string(keyword()) + "'");
    }

private:
    template <typename Parser>
    void check(std::string_view key, bool required, const Parser &parse)
    {
        for (std::size_t at = 0; at < words_.size(); ++at) {
            const std::string_view word = words_[at];
            if (used_[at] || !word.starts_with(key) || word.substr(key.size()).substr(0, 1) != "=")
                continue;
            used_[at] = true;
            if (const std::string why = parse(word.substr(key.size() + 1)); !why.empty())
                fault(word, std::string(key) + ": " + why);
            return;
        }
        if (required)
            fault(std::string(key).append(": is missing; '").append(keyword()).append("' needs it"));
    }

    std::size_t column(std::string_view word) const
    {
        return static_cast<std::size_t>(word.data() - text_.data()) + 1;
    }

    std::size_t line_;
    std::string_view text_;
    std::vector<std::string_view> words_;
    fault_list &faults_;
    std::vector<bool> used_;
};

class reader {
public:
    reader(mstp_scenario &scenario, fault_list &faults) : scenario_(scenario), faults_(faults) {}

    void read(const std::vector<std::string> &lines);

private:
    struct row {
        std::string_view keyword;
        void (reader::*read)(statement &);
    };
    static const std::array<row, 5> rows;

    void read_class(statement &from);
    void read_root(statement &from);
    void read_port(statement &from);
    void read_vlans(statement &from);
    void read_protect(statement &from);
    void add_vlans(statement &from, std::string_view range, uint16_t msti);

    mstp_scenario &scenario_;
    fault_list &faults_;
    std::size_t line_ = 0;
    bool class_given_ = false;
    std::array<std::size_t, last_vlan + 1> line_of_vlan_{};
};

constexpr std::array<reader::row, 5> reader::rows = {{
    {"class", &reader::read_class},
    {"root", &reader::read_root},
    {"port", &reader::read_port},
    {"vlans", &reader::read_vlans},
    {"protect", &reader::read_protect},
}};

void reader::read(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        ++line_;
        const std::string_view text = trim(line);
        if (text.empty() || text.starts_with('#'))
            continue;
        if (const std::string why = check_text(line, line.size()); !why.empty()) {
            faults_.add(line_, 0, "line: " + why);
            continue;
        }
        statement from(line_, line, faults_);
        const auto found = std::find_if(rows.begin(), rows.end(),
                                        [&](const row &one) { return one.keyword == from.keyword(); });
        if (found == rows.end()) {
            from.fault(from.keyword(),
                       quoted(from.keyword()) + " is none of class, root, port, vlans and protect");
            continue;
        }
        (this->*found->read)(from);
        from.done();
    }
    std::sort(scenario_.vlans.begin(), scenario_.vlans.end(),
              [](const auto &one, const auto &other) { return one.half2 < other.half2; });
    if (!faults_.empty())
        return;
    if (!class_given_)
        faults_.add(0, 0, "says no class; it needs a line 'class NUMBER'");
    else if (scenario_.empty())
        faults_.add(0, 0, "says nothing but its class");
}

void reader::read_class(statement &from)
{
    const std::string_view word = from.plain_word();
    uint64_t number = 0;
    std::string why = parse_number(word, 0, L2VPN_AC_CLASS_MAX - 1, number);
    if (why.empty() && (usable_classes >> number & 1U) == 0)
        why = quoted(word) + " is a class that no owner can use";
    if (why.empty() && class_given_)
        why = "is given twice";
    if (!why.empty())
        from.fault("class: " + why);
    class_given_ = true;
    scenario_.class_id = static_cast<uint32_t>(number);
}

void reader::read_root(statement &from)
{
    l2vpn_msti_root_t record{};
    record.word = static_cast<uint32_t>(from.number("handle", 1, last_handle));
    record.half = static_cast<uint16_t>(from.number("msti", 0, last_msti));
    from.octets("priority", record.octets);
    scenario_.roots.push_back(record);
}

void reader::read_port(statement &from)
{
    l2vpn_mstp_req_t record{};
    record.word = static_cast<uint32_t>(from.number("handle", 1, last_handle));
    record.half = static_cast<uint16_t>(from.number("msti", 0, last_msti));
    from.octets("role", record.octets);
    record.word2 = from.choice("state", port_states);
    record.word3 = static_cast<uint32_t>(from.number_or_0("cost", UINT32_MAX));
    record.half2 = static_cast<uint16_t>(from.number_or_0("port", UINT16_MAX));
    from.text("note", false, record.opaque);
    record.word4 = static_cast<uint32_t>(from.number_or_0("age", UINT32_MAX));
    from.octets("tail", record.tail);
    scenario_.ports.push_back(record);
}

void reader::read_vlans(statement &from)
{
    const auto msti = static_cast<uint16_t>(from.number("msti", 0, last_msti));
    const std::string_view list = from.plain_word();
    if (list.empty())
        return from.fault("vlans: are missing, as in 1-99,200");
    for (std::size_t at = 0; at <= list.size();) {
        const std::size_t end = std::min(list.find(',', at), list.size());
        add_vlans(from, list.substr(at, end - at), msti);
        at = end + 1;
    }
}

void reader::add_vlans(statement &from, std::string_view range, uint16_t msti)
{
    const std::size_t dash = range.find('-');
    uint64_t first = 0;
    uint64_t last = 0;
    std::string why = parse_number(range.substr(0, dash), 1, last_vlan, first);
    if (why.empty() && dash == std::string_view::npos)
        last = first;
    else if (why.empty())
        why = parse_number(range.substr(dash + 1), 1, last_vlan, last);
    if (why.empty() && first > last)
        why = quoted(range) + " goes backwards";
    for (uint64_t vlan = first; why.empty() && vlan <= last; ++vlan) {
        if (line_of_vlan_[vlan] != 0)
            why = std::to_string(vlan) + " is in line " + std::to_string(line_of_vlan_[vlan]) + " already";
        else
            scenario_.vlans.push_back({msti, static_cast<uint16_t>(vlan)});
        line_of_vlan_[vlan] = line_;
    }
    if (!why.empty())
        from.fault(range, "vlans: " + why);
}

void reader::read_protect(statement &from)
{
    l2vpn_mstp_prot_t record{};
    from.text("name", true, record.opaque);
    from.octets("tail", record.tail);
    record.word = static_cast<uint32_t>(from.number_or_0("number", UINT32_MAX));
    scenario_.protections.push_back(record);
}

// Bytes of the wire, in hexadecimal, one field after the other.
class wire_text {
public:
    wire_text &number(uint64_t value, unsigned width)
    {
        std::string bytes;
        for (unsigned at = width; at-- > 0;)
            bytes += static_cast<char>(value >> (8U * at) & 0xFFU);
        text_ += to_hex(bytes);
        return *this;
    }

    template <std::size_t Size>
    wire_text &octets(const uint8_t (&bytes)[Size])
    {
        text_ += to_hex({reinterpret_cast<const char *>(bytes), Size});
        return *this;
    }

    std::string take() { return std::move(text_); }

private:
    std::string text_;
};

} // namespace

bool read_mstp(const std::string &path, mstp_scenario &scenario, fault_list &faults)
{
    std::vector<std::string> lines;
    if (!read_lines(path, lines, faults))
        return false;
    reader(scenario, faults).read(lines);
    return faults.empty();
}

mstp_wire wire_form(const mstp_scenario &scenario)
{
    mstp_wire wire;
    for (const l2vpn_msti_root_t &one : scenario.roots)
        wire.roots.push_back(wire_text().number(one.word, 4).number(one.half, 2).octets(one.octets).take());
    for (const l2vpn_mstp_req_t &one : scenario.ports)
        wire.ports.push_back(wire_text()
                                 .number(one.word, 4)
                                 .number(one.half, 2)
                                 .octets(one.octets)
                                 .number(one.word2, 4)
                                 .number(one.word3, 4)
                                 .number(one.half2, 2)
                                 .octets(one.opaque)
                                 .number(one.word4, 4)
                                 .octets(one.tail)
                                 .take());
    for (const l2vpn_mstp_prot_t &one : scenario.protections)
        wire.protections.push_back(
            wire_text().octets(one.opaque).octets(one.tail).number(one.word, 4).take());
    for (const l2vpn_msti_vid_map_t &one : scenario.vlans)
        wire.msti_of_vlan[one.half2] = one.half;
    return wire;
}

} // namespace owner
