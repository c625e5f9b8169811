/*
 * show mstp: roots, port states, protections and VLAN maps of the owners, a row a record.
 */
#include "verbs.h"

#include <utility>

namespace l2vpnd {

namespace {

enum class part : uint8_t { roots, states, protections, vlans, end };

class mstp_answer : public owner_answer {
public:
    mstp_answer(const verb_context &context, arguments &args)
        : owner_answer(context, args), m_raw(args.flag("raw")), m_kind(args.text("kind"))
    {
        if (m_kind && *m_kind != "root" && *m_kind != "state" && *m_kind != "protection" &&
            *m_kind != "vlan") {
            refuse_argument("kind", "root, state, protection or vlan");
        }
    }

private:
    void begin(owner & /*o*/) override
    {
        m_part = part::roots;
        m_place = {};
        m_name = {};
        m_vlan = 0;
    }

    bool show(owner &o, row_writer &rows) override
    {
        while (m_part != part::end) {
            if (!show_part(o, rows)) {
                return false;
            }
            m_part = static_cast<part>(static_cast<int>(m_part) + 1);
            m_place = {};
        }
        return true;
    }

    bool show_part(const owner &o, row_writer &rows)
    {
        switch (m_part) {
        case part::roots:
            return show_records(o, "root", o.mstp.roots(), m_place, msti_root_fields(), rows);
        case part::states:
            return show_records(o, "state", o.mstp.states(), m_place, mstp_state_fields(), rows);
        case part::protections:
            return show_records(o, "protection", o.mstp.protections(), m_name, mstp_protection_fields(),
                                rows);
        default:
            return show_vlans(o, rows);
        }
    }

    bool wanted(const char *kind) const { return !m_kind || *m_kind == kind; }

    /* `from`: the key that was shown last, if any; a map can change between two steps. */
    template <typename Map, typename Key>
    bool show_records(const owner &o, const char *kind, const Map &map, std::optional<Key> &from,
                      field_list fields, row_writer &rows)
    {
        if (!wanted(kind)) {
            return true;
        }
        for (auto at = from ? map.upper_bound(*from) : map.begin(); at != map.end(); ++at) {
            if (rows.full()) {
                return false;
            }
            json row = row_of(o);
            row["kind"] = kind;
            show_fields(fields, at->second, SIZE_MAX, row);
            if (m_raw) {
                row["raw"] = to_hex(at->second);
            }
            rows.add(row);
            from = at->first;
            m_count[kind]++;
        }
        return true;
    }

    bool show_vlans(const owner &o, row_writer &rows)
    {
        if (!wanted("vlan") || o.mstp.vlans().size() == 0) {
            return true;
        }
        for (; m_vlan < vlan_map::vlans; m_vlan++) {
            if (rows.full()) {
                return false;
            }
            if (o.mstp.vlans().has(m_vlan)) {
                json row = row_of(o);
                row["kind"] = "vlan";
                row["vlan"] = m_vlan;
                row["msti"] = o.mstp.vlans().msti(m_vlan);
                rows.add(row);
                m_count["vlan"]++;
            }
        }
        return true;
    }

    json result() override
    {
        return {{"roots", m_count["root"]},
                {"states", m_count["state"]},
                {"protections", m_count["protection"]},
                {"vlans", m_count["vlan"]}};
    }

    bool m_raw;
    std::optional<std::string> m_kind;
    part m_part = part::roots;
    std::optional<mstp_table::place> m_place;
    std::optional<mstp_table::name> m_name;
    uint32_t m_vlan = 0;
    std::map<std::string, uint64_t> m_count;
};

} // namespace

answer_ptr verb_show_mstp(const verb_context &context, arguments &args)
{
    return std::make_unique<mstp_answer>(context, args);
}

} // namespace l2vpnd
