/*
 * explain: where an AC stands, and why. What happened to it is told by the recorded messages, not by the process,
 * which keeps of each AC only when and by which message it was created, and who has asked to provision it.
 */
#include "verbs_ac.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>
#include <platform/config.h>
#include <unistd.h>

namespace l2vpnd {

namespace {

constexpr uint64_t most_rows = 100;

struct reason_row {
    const char *code;
    bool (*holds)(const l2vpn_process &p, const owner &o, const ac_head &ac);
};

/* The first that holds counts. docs/process.md tells operators of each. */
constexpr reason_row s_reasons[] = {
    {"provisioned:unprovision-waiting",
     [](const l2vpn_process &, const owner &, const ac_head &ac) {
         return ac.provisioned && ac.stage == ac_stage::waiting && !ac.wanted;
     }},
    {"provisioned", [](const l2vpn_process &, const owner &, const ac_head &ac) { return ac.provisioned; }},
    {"not-provisioned:no-layout",
     [](const l2vpn_process &, const owner &o, const ac_head &) {
         return find_class(o.info.class_id)->data_size == 0;
     }},
    {"not-provisioned:link-too-narrow",
     [](const l2vpn_process &, const owner &o, const ac_head &) { return !l2vpn_process::can_provision(o); }},
    {"not-provisioned:batch-open",
     [](const l2vpn_process &, const owner &, const ac_head &ac) { return ac.stage == ac_stage::batched; }},
    {"not-provisioned:link-full",
     [](const l2vpn_process &p, const owner &o, const ac_head &ac) {
         return ac.stage == ac_stage::waiting && ac.wanted && !p.has_room(o);
     }},
    {"not-provisioned:waiting", /* why sending failed, or whether it was tried at all, is not kept */
     [](const l2vpn_process &, const owner &, const ac_head &ac) {
         return ac.stage == ac_stage::waiting && ac.wanted;
     }},
    {"not-provisioned:unprovisioned", [](const l2vpn_process &, const owner &,
                                         const ac_head &ac) { return ac.asker == ac_asker::an_operator; }},
    {"not-provisioned:automatic-off",
     [](const l2vpn_process &, const owner &, const ac_head &) { return true; }},
};

constexpr const char *s_askers[] = {"nobody", "automatic", "operator"};
static_assert(std::size(s_askers) == static_cast<size_t>(ac_asker::count));

class explain_answer : public ac_answer {
public:
    explain_answer(const verb_context &context, arguments &args) : ac_answer(context, args)
    {
        if (filter().handles.empty() && !filter().name) {
            throw refusal{"bad_argument", "\"handles\" or \"name\" is needed: say which AC"};
        }
    }

    json result() override
    {
        const counters c = process().totals();
        const auto dropped = [&c](drop reason) { return c.dropped[static_cast<size_t>(reason)]; };
        return {{"acs", taken()},
                {"pid", getpid()},
                {"since", process().since()},
                {"auto_provision", process().options().auto_provision},
                {"capture", platform_capture_path()},
                {"dropped", {{"limit", dropped(drop::limit)}, {"memory", dropped(drop::memory)}}}};
    }

private:
    void take(owner &o, const ac_store &store, uint32_t slot, row_writer &rows) override
    {
        if (taken() > most_rows) {
            return; /* nobody means as many; they are counted */
        }
        const ac_head &ac = store.head(slot);
        const auto *reason =
            std::ranges::find_if(s_reasons, [&](const reason_row &r) { return r.holds(process(), o, ac); });
        json row = {{"node", ac.node},
                    {"class", o.info.class_id},
                    {"handle", ac.handle},
                    {"name", to_text(store.definition(slot).first(name_len))},
                    {"owner", o.info.peer_id},
                    {"pid", o.info.pid},
                    {"state", state_of(ac)},
                    {"reason", reason->code},
                    {"asked_by", s_askers[static_cast<size_t>(ac.asker)]},
                    {"created", ac.created},
                    {"message", ac.message},
                    {"xcid", ac.xcid},
                    {"waiting", o.list(ac_stage::waiting).count},
                    {"queued", process().queued(o)}};
        if (const batch &b = o.batch.of(L2VPN_AC_MSG_CREATE); ac.stage == ac_stage::batched) {
            row["batch"] = {{"since", b.since}, {"messages", b.messages}, {"records", b.records}};
        }
        rows.add(row);
    }
};

} // namespace

answer_ptr verb_explain(const verb_context &context, arguments &args)
{
    return std::make_unique<explain_answer>(context, args);
}

} // namespace l2vpnd
