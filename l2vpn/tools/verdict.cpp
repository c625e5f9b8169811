/*
 * What explain says of an AC, by code. docs/process.md and the manual page list the codes; a test compares them.
 */
#include "explain.h"

#include <algorithm>
#include <chrono>

namespace l2vpnctl {

namespace {

struct verdict_row {
    const char *code;
    const char *text;
};

constexpr verdict_row s_verdicts[] = {
    {"provisioned", "provisioned: its owner was told"},
    {"provisioned:unprovision-waiting",
     "provisioned, and to be unprovisioned: its owner is still to be told"},
    {"not-provisioned:batch-open", "not provisioned: its CREATE batch is still open"},
    {"not-provisioned:no-layout", "not provisioned, and never will be: its class has no layout for it"},
    {"not-provisioned:link-too-narrow",
     "not provisioned: its owner's MTU is too small for a message with one such AC"},
    {"not-provisioned:link-full",
     "not provisioned yet: what its owner is to be told waits, because the link's queue is full"},
    {"not-provisioned:waiting",
     "not provisioned yet: its owner is still to be told, and the link's queue is not full"},
    {"not-provisioned:unprovisioned", "not provisioned: it was unprovisioned by an operator"},
    {"not-provisioned:automatic-off", "not provisioned: automatic provisioning was off when it was complete, "
                                      "and no operator has asked for it"},
    {"not-provisioned:send-failed",
     "not provisioned: the message that was to tell its owner could not be sent"},
    {"not-provisioned:not-told", "not provisioned: complete, but no message to its owner is recorded"},
    {"not-held:deleted", "not held: its owner has deleted it"},
    {"not-held:withdrawn", "not held: its owner's link has ended, and it was withdrawn with it"},
    {"not-held:dropped", "not held: the message that named it was dropped as malformed"},
    {"not-held:not-taken",
     "not held: its message was sound, but the process had no room or no memory for it"},
    {"not-held:not-anew",
     "not held: only a process that has ended was told of it, the one that runs was not"},
    {"not-held:not-sent", "not held: its owner could not send the message with it"},
    {"not-held:not-recorded", "not held, and what became of it is not recorded any more"},
    {"not-known:owner-only", "not known: only its owner's recording tells of it"},
    {"unknown", "no such AC"},
    {"ambiguous", "more than one AC is meant"},
};

explanation::remark verdict_of(const std::string &code)
{
    const auto *row =
        std::ranges::find(s_verdicts, code, [](const verdict_row &r) { return std::string(r.code); });
    return {code, row == std::end(s_verdicts) ? code : row->text};
}

const char *code_of(const standing &now, uint32_t class_id)
{
    using place = standing::place;
    switch (now.where) {
    case place::deleted:
        return "not-held:deleted";
    case place::withdrawn:
        return "not-held:withdrawn";
    case place::dropped:
        return "not-held:dropped";
    default:
        break;
    }
    return now.provisioned                                ? "provisioned"
           : now.send_failed                              ? "not-provisioned:send-failed"
           : l2vpnd::find_class(class_id)->data_size == 0 ? "not-provisioned:no-layout"
           : now.batched                                  ? "not-provisioned:batch-open"
           : now.unprovisioned                            ? "not-provisioned:unprovisioned"
                                                          : "not-provisioned:not-told";
}

} // namespace

uint64_t time_now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

void explanation::judge(const chain &story)
{
    steps = story.steps();
    left_out = story.left_out();
    if (story.last_fault() != nullptr) {
        last_fault = *story.last_fault();
    }
    std::optional<size_t> own; /* the ring of the process that was asked */
    for (size_t i = 0; i < searched.size(); i++) {
        if (was_asked && searched[i].path == own_ring) {
            own = i;
        }
    }
    const bool has_all =
        own && searched[*own].overwritten == 0 && searched[*own].lost == 0 && searched[*own].cut == 0;
    const auto latest_of_owner = std::find_if(steps.rbegin(), steps.rend(), [](const chain_step &step) {
        return step.head.by == l2vpn::capture::observer::owner && !step.type.empty();
    });
    const standing *now = story.latest(own);
    const standing *ever = story.latest({});
    std::string code;
    if (row) {
        code = row->value("reason", "");
    } else if (now != nullptr && (!was_asked || own)) {
        /* What was created after the process was asked may well be there by now. */
        const bool is_lost = was_asked && now->where == standing::place::held && now->since < asked_at;
        const bool is_sure = now->is_created && !now->in_doubt && !was_held;
        code = !is_lost  ? code_of(*now, key->class_id)
               : is_sure ? "not-held:not-taken"
                         : "not-held:not-recorded";
    } else if (ever != nullptr && has_all) {
        code = "not-held:not-anew";
    } else if (ever == nullptr && latest_of_owner != steps.rend() && latest_of_owner->code == "not-sent") {
        code = "not-held:not-sent";
    } else {
        code = was_asked ? "not-held:not-recorded" : "not-known:owner-only";
    }
    verdict = verdict_of(code);
    note_owner();

    const bool is_created =
        (now != nullptr && now->is_created) || (ever != nullptr && !was_asked && ever->is_created);
    for (const searched_source &of : searched) {
        if (of.overwritten > 0 && !is_created) {
            note("history:overwritten", of.name + " begins with its record " +
                                            std::to_string(of.overwritten) +
                                            ": what was before is overwritten, or was not recorded");
        }
        if (of.lost > 0) {
            note("history:lost", of.name + ": " + std::to_string(of.lost) + " records are missing");
        }
        if (of.cut > 0) {
            note("history:cut", of.name + ": " + std::to_string(of.cut) +
                                    " messages were not kept whole, and may have named it");
        }
    }
    if (searched.empty()) {
        note("history:none", "nothing is recorded: what happened before cannot be told");
    }
    if (verdict.code == "provisioned") {
        note("provisioned:no-answer", "an owner does not answer: what its callback made of it is not known");
    }
    if (verdict.code == "not-held:not-taken") {
        const json dropped = process->value("dropped", json::object());
        note("process:dropped", "the process has dropped " + dropped.value("limit", json(0)).dump() +
                                    " messages for a full table, " + dropped.value("memory", json(0)).dump() +
                                    " for want of memory");
    }
}

/* Rings are asked for where owners may make them; one that may not says nothing of it. */
void explanation::note_owner()
{
    const auto told = std::find_if(steps.rbegin(), steps.rend(), [](const chain_step &step) {
        return step.head.by == l2vpn::capture::observer::process;
    });
    const uint32_t pid = row ? row->value("pid", 0U) : told != steps.rend() ? told->head.pid : 0;
    const bool has_ring = std::ranges::any_of(
        searched, [pid](const searched_source &of) { return of.name.ends_with("-" + std::to_string(pid)); });
    if (was_asked && pid > 0 && !has_ring) {
        note("history:owner-not-recorded",
             "its owner [" + std::to_string(pid) +
                 "] has no ring here: what it sent is known from the process alone");
    }
}

std::string explanation::in_one_line() const
{
    if (!candidates.empty()) {
        return "'" + asked + "' is " + std::to_string(candidates.size() + more_candidates) +
               " ACs: say which with --class, --node, --owner or the handle";
    }
    std::string text = "no AC '" + asked + "'";
    bool is_first = true;
    if (was_asked) {
        text += " in l2vpnd";
        is_first = false;
    }
    for (const searched_source &of : searched) {
        text += (is_first ? " in " : ", nor in ") + std::to_string(of.messages) + " messages of " + of.name;
        if (of.records > 0) {
            text += " since " + l2vpn::capture::time_text(of.from, "%Y-%m-%d %H:%M:%S", false);
        }
        text += " (" + std::to_string(of.overwritten) + " earlier records overwritten, " +
                std::to_string(of.lost) + " lost, " + std::to_string(of.cut) + " cut, " +
                std::to_string(of.refused) + " links refused)";
        is_first = false;
    }
    return text + (searched.empty() ? ", and nothing is recorded" : "");
}

} // namespace l2vpnctl
