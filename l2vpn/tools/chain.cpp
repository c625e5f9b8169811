#include "chain.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <l2vpn/l2vpn_ac_msg.h>
#include <platform/qerr.h>
#include <utility>

namespace l2vpnctl {

using namespace l2vpn::capture;
using l2vpnd::drop;

namespace {

constexpr size_t first_kept = 20;
constexpr size_t last_kept = 180;

std::string text_of_end(const record_head &head)
{
    const char *closed = head.by == observer::process ? "closed by the owner" : "closed by the process";
    return head.status == EOK         ? closed
           : head.status == ECANCELED ? "ended by whom recorded it"
                                      : qerr_strerror(head.status);
}

} // namespace

std::optional<uint32_t> index_of(const captured &record, const reading &message, uint32_t handle)
{
    if (message.row == nullptr || message.row->each.handle == 0) {
        return std::nullopt;
    }
    for (uint32_t i = 0; i < message.count; i++) {
        const std::optional<uint32_t> found = handle_in(record, message, i);
        if (!found || *found == handle) {
            return found ? std::optional(i) : std::nullopt;
        }
    }
    return std::nullopt;
}

const char *drop_code(const reading &message)
{
    if (message.fault == nullptr) {
        return nullptr;
    }
    for (uint32_t reason = 1; reason < l2vpnd::drop_count; reason++) {
        if (strcmp(l2vpnd::drop_text(static_cast<drop>(reason)), message.fault) == 0) {
            return l2vpnd::drop_name(static_cast<drop>(reason));
        }
    }
    return l2vpnd::drop_name(drop::direction);
}

chain::recorder_state &chain::recorder_of(size_t source, const captured &record)
{
    const recorders::place at = m_recorders.take(source, record);
    if (at.is_new) {
        m_states.push_back({.source = source, .by = record.head.by, .links = {}, .now = {}});
    }
    recorder_state &of = m_states[at.recorder];
    if (at.missing > 0) {
        of.now.in_doubt = true;
        for (auto &[number, on] : of.links) {
            on.is_known = false;
            on.batches = {};
            on.batch_is_known.fill(false);
        }
    }
    return of;
}

void chain::take(size_t source, const captured &record)
{
    const record_head &head = record.head;
    recorder_state &of = recorder_of(source, record);
    switch (head.kind) {
    case record_kind::message:
        take_message(of, source, record);
        break;
    case record_kind::link_up: {
        link_state &on = of.links[head.link] = {};
        on.up = record;
        on.is_known = true;
        on.pid = head.pid;
        on.class_id = head.class_id;
        on.batch_is_known.fill(true);
        break;
    }
    case record_kind::link_down:
        take_link_end(of, source, record);
        break;
    case record_kind::link_refused:
        if (m_pids.contains(head.pid)) {
            add(step_of(source, record, "link-refused", true, qerr_strerror(head.status)));
        }
        break;
    }
}

chain_step chain::step_of(size_t source, const captured &record, std::string code, bool is_fault,
                          std::string why)
{
    chain_step made{};
    made.time = record.time;
    made.source = source;
    made.code = std::move(code);
    made.is_fault = is_fault;
    made.head = record.head;
    made.batch = "";
    made.why = std::move(why);
    return made;
}

void chain::take_message(recorder_state &of, size_t source, const captured &record)
{
    const record_head &head = record.head;
    const bool by_process = head.by == observer::process;
    const bool is_request = head.direction == flow::to_process;
    link_state &on = of.links[head.link];
    on.pid = head.pid;
    on.class_id = head.class_id;
    on.messages += is_request ? 1 : 0;
    const reading sound = read(record);
    const char *dropped = is_request ? drop_code(sound) : nullptr;
    const reading claimed = dropped != nullptr ? read_as_claimed(record) : sound;
    const bool is_mine = head.class_id == m_key.class_id && head.nodeid == m_key.node;
    const std::optional<uint32_t> index = is_mine ? index_of(record, claimed, m_key.handle) : std::nullopt;

    if (is_mine && !index && claimed.is_cut && (claimed.row == nullptr || claimed.row->each.handle != 0)) {
        of.now.in_doubt = true;
    }
    chain_step made = step_of(source, record, "", head.status != EOK, "");
    made.type = claimed.row != nullptr ? claimed.row->name : "";
    made.index = index.value_or(0);
    made.count = claimed.count;
    made.message = by_process && is_request && on.is_known ? on.messages : 0;
    made.why = head.status != EOK ? qerr_strerror(head.status) : "";
    if (!by_process) {
        if (index) {
            made.code = !is_request ? "received" : head.status == EOK ? "sent" : "not-sent";
            tell(on, std::move(made));
        }
    } else if (!is_request) {
        if (index) {
            take_told(of, on, std::move(made));
        }
    } else if (dropped != nullptr) {
        if (index) {
            made.code = std::string("dropped:") + dropped;
            made.is_fault = true;
            made.why = sound.fault;
            if (of.now.where == standing::place::unheard) {
                of.now.where = standing::place::dropped;
                of.now.since = record.time;
            }
            tell(on, std::move(made));
        }
    } else {
        bool ends = false;
        made.batch = follow(on, sound, ends);
        if (index) {
            take_request(of, on, made);
        }
        if (ends && sound.type == L2VPN_AC_MSG_CREATE) {
            close_batches(of, on, made);
        }
    }
}

/* What the message is in its batch. */
const char *chain::follow(link_state &on, const reading &message, bool &ends)
{
    if (!message.row->batched()) {
        return "";
    }
    l2vpnd::batch_counters ignored;
    const l2vpnd::batch_step step = on.batches.follow(*message.row, message.words[1], message.count, ignored);
    const bool begins = (message.words[1] & message.row->begin_bit) != 0;
    const bool was_known = std::exchange(on.batch_is_known[message.type],
                                         on.batch_is_known[message.type] || begins || step.ends);
    ends = step.ends;
    if (!step.inside) {
        return was_known ? "alone" : step.ends ? "closes" : "not-known";
    }
    return step.opened ? (step.closed ? "whole" : "opens") : step.closed ? "closes" : "inside";
}

/* Its client has said the AC since over a newer link, and may have ended this one: the AC stays where it is. */
bool chain::is_outdated(const recorder_state &of, uint64_t number, const link_state &on)
{
    const auto holder = of.links.find(of.now.link);
    return of.now.where == standing::place::held && on.pid != 0 && number < of.now.link &&
           holder != of.links.end() && holder->second.pid == on.pid;
}

void chain::take_request(recorder_state &of, link_state &on, chain_step made)
{
    using place = standing::place;
    standing &now = of.now;
    const uint64_t link = made.head.link;
    const bool is_create = made.type == "CREATE";
    const bool is_delete = made.type == "DELETE";
    /* What is missing may have been its CREATE. */
    const bool has = now.in_doubt || (now.where == place::held && now.link == link);
    if (is_create && is_outdated(of, link, on)) {
        made.code = "create-ignored";
        made.why = "its client has said it since over a newer link";
    } else if (is_create) {
        made.code = now.where != place::held ? "created" : now.link == link ? "created-anew" : "taken-over";
        now = {.where = place::held, .link = link, .since = made.time, .is_created = true};
        now.batched = strcmp(made.batch, "opens") == 0 || strcmp(made.batch, "inside") == 0;
    } else if (has) {
        made.code = is_delete ? "deleted" : "updated";
        now.where = is_delete ? place::deleted : place::held;
        now.link = link;
        now.since = made.time;
        now.in_doubt = false;
    } else {
        made.code = is_delete ? "delete-ignored" : "update-ignored";
        made.is_fault = true;
        made.why = "the owner does not have it";
    }
    tell(on, std::move(made));
}

/* Of those of its client process and class. */
bool chain::is_latest(const recorder_state &of, uint64_t number, const link_state &on)
{
    return std::none_of(of.links.upper_bound(number), of.links.end(), [&on](const auto &later) {
        return later.second.pid == on.pid && later.second.class_id == on.class_id;
    });
}

/* The end of a batch ends those of the same client process's other links, too: of each class, the latest. */
void chain::close_batches(recorder_state &of, const link_state &on, chain_step made)
{
    l2vpnd::batch_counters ignored;
    for (auto &[number, other] : of.links) {
        const bool is_same =
            &other == &on || (on.pid > 0 && other.pid == on.pid && is_latest(of, number, other));
        if (is_same && other.batches.of(L2VPN_AC_MSG_CREATE).open) {
            other.batches.close(L2VPN_AC_MSG_CREATE, ignored);
        }
        if (is_same && of.now.where == standing::place::held && of.now.link == number && of.now.batched) {
            of.now.batched = false;
            of.now.since = made.time;
            made.code = "batch-closed";
            made.index = 0;
            add(made);
        }
    }
}

void chain::take_told(recorder_state &of, link_state &on, chain_step made)
{
    standing &now = of.now;
    const bool provisions = made.type == "PROV";
    if (now.where == standing::place::unheard || now.in_doubt) { /* only who has it is told */
        now.where = standing::place::held;
        now.link = made.head.link;
        now.in_doubt = false;
    }
    now.send_failed = made.is_fault;
    if (made.is_fault) {
        made.code = "send-failed";
    } else {
        made.code = provisions ? "provisioned" : "unprovisioned";
        now.provisioned = provisions;
        now.unprovisioned = !provisions;
    }
    now.since = made.time;
    tell(on, std::move(made));
}

void chain::take_link_end(recorder_state &of, size_t source, const captured &record)
{
    const uint64_t link = record.head.link;
    const auto on = of.links.find(link);
    const uint32_t status = record.head.status;
    const bool is_fault = status != EOK && status != ECANCELED;
    if (record.head.by == observer::process && of.now.where == standing::place::held && of.now.link == link) {
        of.now.where = standing::place::withdrawn;
        of.now.since = record.time;
        add(step_of(source, record, "withdrawn", is_fault, text_of_end(record.head)));
    } else if (on != of.links.end() && on->second.is_told) {
        add(step_of(source, record, "link-down", is_fault, text_of_end(record.head)));
    }
    if (on != of.links.end()) {
        of.links.erase(on);
    }
}

/* A link is told of before the first that it carried. */
void chain::tell(link_state &on, chain_step made)
{
    if (on.up && !on.is_told) {
        add(step_of(made.source, *on.up, "link-up", false, ""));
    }
    on.is_told = true;
    m_pids.insert(made.head.pid);
    add(std::move(made));
}

void chain::add(chain_step made)
{
    if (made.is_fault) {
        m_last_fault = made;
    }
    if (m_first.size() < first_kept) {
        m_first.push_back(std::move(made));
        return;
    }
    m_last.push_back(std::move(made));
    if (m_last.size() > last_kept) {
        m_last.pop_front();
        m_left_out++;
    }
}

std::vector<chain_step> chain::steps() const
{
    std::vector<chain_step> all = m_first;
    all.insert(all.end(), m_last.begin(), m_last.end());
    std::ranges::stable_sort(all, {}, &chain_step::time);
    return all;
}

const standing *chain::latest(std::optional<size_t> source) const
{
    const standing *found = nullptr;
    for (const recorder_state &of : m_states) {
        const bool tells = of.by == observer::process && of.now.where != standing::place::unheard &&
                           (!source || of.source == *source);
        if (tells && (found == nullptr || of.now.since >= found->since)) {
            found = &of.now;
        }
    }
    return found;
}

} // namespace l2vpnctl
