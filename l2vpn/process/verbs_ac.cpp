/*
 * Verbs about ACs: show acs, provision, unprovision. Like explain, all three go through the table slot by slot and
 * differ in what they do with an AC that the filter takes.
 */
#include "verbs_ac.h"

#include <algorithm>
#include <cinttypes>
#include <fnmatch.h>

namespace l2vpnd {

namespace {

constexpr uint32_t slots_a_step = 4096;

struct state_row {
    const char *name;
    ac_stage stage;
    bool flag; /* settled: it is provisioned; waiting: it is wanted provisioned */
};

constexpr state_row s_states[] = {
    {"batched", ac_stage::batched, false},     {"created", ac_stage::settled, false},
    {"provisioned", ac_stage::settled, true},  {"unprovisioning", ac_stage::waiting, false},
    {"provisioning", ac_stage::waiting, true},
};

} // namespace

const char *state_of(const ac_head &ac)
{
    const bool flag = ac.stage == ac_stage::settled ? ac.provisioned : ac.wanted;
    const auto *row = std::find_if(std::begin(s_states), std::end(s_states),
                                   [&](const state_row &s) { return s.stage == ac.stage && s.flag == flag; });
    return row->name;
}

ac_filter::ac_filter(arguments &args) : owners(args), name(args.text("name")), state(args.text("state"))
{
    if (const json *list = args.list("handles")) {
        for (const json &handle : *list) {
            if (!handle.is_number_unsigned() || handle.get<uint64_t>() > UINT32_MAX) {
                refuse_argument("handles", "a list of whole numbers from 0 to 4294967295");
            }
            handles.insert(handle.get<uint32_t>());
        }
    }
    if (state && std::none_of(std::begin(s_states), std::end(s_states),
                              [this](const state_row &s) { return *state == s.name; })) {
        refuse_argument("state", "batched, created, provisioned, provisioning or unprovisioning");
    }
}

bool ac_filter::takes(const owner &o, const ac_store &store, uint32_t slot) const
{
    const ac_head &ac = store.head(slot);
    return owners.takes(o) && (handles.empty() || handles.contains(ac.handle)) &&
           (!state || *state == state_of(ac)) &&
           (!name || fnmatch(name->c_str(), to_text(store.definition(slot).first(name_len)).c_str(), 0) == 0);
}

bool ac_answer::step(row_writer &rows)
{
    for (uint32_t looked = 0; m_class < class_count; m_class++, m_slot = 0) {
        if (m_filter.owners.class_id && *m_filter.owners.class_id != m_class) {
            continue;
        }
        const ac_store &store = m_process.acs().store(m_class);
        for (; m_slot < store.slots(); m_slot++) {
            if (looked++ == slots_a_step || rows.full()) {
                return true;
            }
            if (store.used(m_slot)) {
                consider(store, rows);
            }
        }
    }
    return false;
}

void ac_answer::consider(const ac_store &store, row_writer &rows)
{
    owner &o = m_process.owner_at(store.head(m_slot).owner);
    if (m_filter.takes(o, store, m_slot)) {
        m_taken++;
        take(o, store, m_slot, rows);
    }
}

namespace {

class show_answer : public ac_answer {
public:
    show_answer(const verb_context &context, arguments &args)
        : ac_answer(context, args), m_raw(args.flag("raw"))
    {
    }
    json result() override { return {{"acs", taken()}}; }

private:
    static constexpr size_t longest = 16; /* octets longer than this are shown in the raw form only */

    void take(owner &o, const ac_store &store, uint32_t slot, row_writer &rows) override
    {
        const ac_head &ac = store.head(slot);
        const uint32_t class_id = o.info.class_id;
        json definition = json::object();
        show_fields(definition_fields(class_id), store.definition(slot), longest, definition);
        json name = definition["name"];
        definition.erase("name");
        json info = json::object();
        if (!find_class(class_id)->info_opaque) {
            show_fields(info_head_fields(), store.info(slot), longest, info);
            show_fields(info_fields(class_id), store.info(slot), longest, info);
        }
        json row = {{"node", ac.node},         {"class", class_id},
                    {"handle", ac.handle},     {"name", std::move(name)},
                    {"owner", o.info.peer_id}, {"state", state_of(ac)},
                    {"xcid", ac.xcid},         {"definition", std::move(definition)},
                    {"info", std::move(info)}};
        if (m_raw) {
            row["definition_raw"] = to_hex(store.definition(slot));
            row["info_raw"] = to_hex(store.info(slot));
        }
        rows.add(row);
    }

    bool m_raw;
};

[[noreturn]] void refuse_layout(const std::string &what)
{
    throw refusal{"no_layout",
                  what + " cannot be provisioned: its class has no layout for it, and an owner would "
                         "stop on such a message"};
}

class provision_answer : public ac_answer {
public:
    provision_answer(const verb_context &context, arguments &args, bool provision)
        : ac_answer(context, args), m_provision(provision)
    {
        require_choice(args, filter().chooses(), "ACs");
        const std::optional<uint32_t> class_id = filter().owners.class_id;
        if (provision && class_id && find_class(*class_id)->data_size == 0) {
            refuse_layout("class " + std::to_string(*class_id));
        }
    }

    json result() override
    {
        if (taken() == 0) {
            throw refusal{"not_found", "no AC matches"};
        }
        if (m_refused == taken()) {
            refuse_layout("class " + std::to_string(m_refused_class));
        }
        process().send_all_waiting();
        uint64_t waiting = 0;
        const owner_table &owners = process().owners();
        for (const owner *o = owners.after(0); o != nullptr; o = owners.after(o->info.peer_id)) {
            waiting += filter().owners.takes(*o) ? o->list(ac_stage::waiting).count : 0;
        }
        return {{"matched", taken()},
                {"accepted", m_accepted},
                {"skipped", m_skipped},
                {"refused", m_refused},
                {"waiting", waiting}};
    }

private:
    void take(owner &o, const ac_store &store, uint32_t slot, row_writer & /*rows*/) override
    {
        const ac_head &ac = store.head(slot);
        if (m_provision && !l2vpn_process::can_provision(o)) {
            m_refused++;
            m_refused_class = o.info.class_id;
        } else if (ac.stage == ac_stage::batched || (!m_provision && !ac.provisioned && !ac.wanted)) {
            m_skipped++;
        } else {
            process().want(o, slot, m_provision);
            m_accepted++;
        }
    }

    bool m_provision;
    uint64_t m_accepted = 0;
    uint64_t m_skipped =
        0; /* its batch is still open; or it is not provisioned, so there is nothing to undo */
    uint64_t m_refused = 0;
    uint32_t m_refused_class = 0;
};

} // namespace

answer_ptr verb_show_acs(const verb_context &context, arguments &args)
{
    return std::make_unique<show_answer>(context, args);
}

answer_ptr verb_provision(const verb_context &context, arguments &args)
{
    return std::make_unique<provision_answer>(context, args, true);
}

answer_ptr verb_unprovision(const verb_context &context, arguments &args)
{
    return std::make_unique<provision_answer>(context, args, false);
}

} // namespace l2vpnd
