/*
 * Verbs that show the process itself, its owners and what was counted.
 */
#include "verbs.h"

#include <platform/config.h>
#include <unistd.h>

namespace l2vpnd {

namespace {

json show_types(const std::array<uint64_t, message_types> &counts)
{
    json out = json::object();
    for (uint32_t type = 0; type < message_types; type++) {
        const message_row *row = find_message(type);
        if (row->name != nullptr && counts[type] != 0) {
            out[row->name] = counts[type];
        }
    }
    return out;
}

uint64_t sum(const std::array<uint64_t, message_types> &counts)
{
    uint64_t all = 0;
    for (const uint64_t count : counts) {
        all += count;
    }
    return all;
}

json show_counters(const counters &c)
{
    json dropped = json::object();
    for (uint32_t reason = 1; reason < drop_count; reason++) {
        dropped[drop_name(static_cast<drop>(reason))] = c.dropped[reason];
    }
    return {
        {"received", show_types(c.received)},
        {"records", show_types(c.records)},
        {"sent", show_types(c.sent)},
        {"dropped", std::move(dropped)},
        {"bytes", {{"received", c.bytes_received}, {"sent", c.bytes_sent}}},
        {"send_failures", c.send_failures},
        {"acs",
         {{"created", c.acs_created},
          {"replaced", c.acs_replaced},
          {"taken_over", c.acs_taken_over},
          {"outdated", c.acs_outdated},
          {"updated", c.acs_updated},
          {"deleted", c.acs_deleted},
          {"withdrawn", c.acs_withdrawn},
          {"provisioned", c.acs_provisioned},
          {"unprovisioned", c.acs_unprovisioned},
          {"unknown_updates", c.unknown_updates},
          {"unknown_deletes", c.unknown_deletes}}},
        {"batches",
         {{"opened", c.batch.opened},
          {"closed", c.batch.closed},
          {"reopened", c.batch.reopened},
          {"stray_ends", c.batch.stray_ends},
          {"abandoned", c.batch.abandoned}}},
    };
}

json time_or_null(time_t since)
{
    return since == 0 ? json() : json(since);
}

uint32_t open_batches(const owner &o)
{
    uint32_t open = 0;
    for (uint32_t type = 0; type < message_types; type++) {
        open += o.batch.of(type).open ? 1 : 0;
    }
    return open;
}

/* 0: none is open. */
time_t oldest_batch(const owner &o)
{
    time_t since = 0;
    for (uint32_t type = 0; type < message_types; type++) {
        const batch &b = o.batch.of(type);
        since = b.open && (since == 0 || b.since < since) ? b.since : since;
    }
    return since;
}

class clients_answer : public owner_answer {
public:
    using owner_answer::owner_answer;

private:
    bool show(owner &o, row_writer &rows) override
    {
        json row = row_of(o);
        row.update({{"pid", o.info.pid},
                    {"uid", o.info.uid},
                    {"gid", o.info.gid},
                    {"mtu", o.info.mtu},
                    {"since", o.since},
                    {"joins", o.count.received[0]},
                    {"acs", o.ac_count()},
                    {"waiting", o.list(ac_stage::waiting).count},
                    {"queued", m_process.queued(o)},
                    {"waiting_since", time_or_null(o.waiting_since)},
                    {"open_batches", open_batches(o)},
                    {"batch_since", time_or_null(oldest_batch(o))},
                    {"mstp_records", o.mstp.records()},
                    {"vlans", o.mstp.vlans().size()},
                    {"messages", sum(o.count.received)},
                    {"dropped", o.count.all_dropped()},
                    {"sent", sum(o.count.sent)},
                    {"send_failures", o.count.send_failures},
                    {"reconnects", o.reconnects},
                    {"changes",
                     {{"created", o.count.acs_created + o.count.acs_replaced + o.count.acs_taken_over},
                      {"updated", o.count.acs_updated},
                      {"deleted", o.count.acs_deleted},
                      {"provisioned", o.count.acs_provisioned},
                      {"unprovisioned", o.count.acs_unprovisioned}}},
                    {"bytes_received", o.count.bytes_received},
                    {"bytes_sent", o.count.bytes_sent}});
        rows.add(row);
        m_shown++;
        return true;
    }

    json result() override
    {
        return {{"owners", m_shown},
                {"seen", m_process.owners_seen()},
                {"refused", m_process.owners_refused()},
                {"reconnects", m_process.reconnects()},
                {"pid", getpid()},
                {"since", m_process.since()}};
    }

    uint64_t m_shown = 0;
};

class counters_answer : public owner_answer {
public:
    counters_answer(const verb_context &context, arguments &args)
        : owner_answer(context, args), m_each(args.flag("owners"))
    {
    }

private:
    bool show(owner &o, row_writer &rows) override
    {
        if (m_each) {
            json row = row_of(o);
            row.update(show_counters(o.count));
            rows.add(row);
        }
        return true;
    }

    json result() override
    {
        json total = show_counters(m_process.totals());
        total["owners"] = {{"now", m_process.owners().size()},
                           {"seen", m_process.owners_seen()},
                           {"refused", m_process.owners_refused()}};
        total["log"] = {{"left_out", m_process.log().suppressed()}, {"lost", m_process.log().lost()}};
        return total;
    }

    bool m_each;
};

class batches_answer : public owner_answer {
public:
    using owner_answer::owner_answer;

private:
    bool show(owner &o, row_writer &rows) override
    {
        for (uint32_t type = 0; type < message_types; type++) {
            const batch &b = o.batch.of(type);
            if (b.open) {
                json row = row_of(o);
                row.update({{"type", find_message(type)->name},
                            {"since", b.since},
                            {"messages", b.messages},
                            {"records", b.records}});
                rows.add(row);
                m_open++;
            }
        }
        return true;
    }

    json result() override { return {{"open", m_open}}; }

    uint64_t m_open = 0;
};

} // namespace

answer_ptr verb_status(const verb_context &context, arguments & /*args*/)
{
    const l2vpn_process &p = context.process;
    const process_options &o = p.options();
    json classes = json::object();
    for (uint32_t class_id = 0; class_id < class_count; class_id++) {
        if (p.acs().store(class_id).size() != 0) {
            classes[std::to_string(class_id)] = p.acs().store(class_id).size();
        }
    }
    const counters c = p.totals();
    return answer_with({
        {"version", L2VPN_VERSION},
        {"pid", getpid()},
        {"nodeid", o.nodeid},
        {"socket", context.service_path},
        {"control", context.control_path},
        {"capture", platform_capture_path()},
        {"since", p.since()},
        {"uptime", time(nullptr) - p.since()},
        {"auto_provision", o.auto_provision},
        {"owners", p.owners().size()},
        {"max_owners", o.max_owners},
        {"acs", p.acs().size()},
        {"max_acs", o.max_acs},
        {"acs_by_class", std::move(classes)},
        {"ac_memory", p.acs().memory()},
        {"mstp_records", p.mstp_budget().used},
        {"max_mstp", o.max_mstp},
        {"messages", sum(c.received)},
        {"dropped", c.all_dropped()},
        {"sent", sum(c.sent)},
    });
}

answer_ptr verb_show_clients(const verb_context &context, arguments &args)
{
    return std::make_unique<clients_answer>(context, args);
}

answer_ptr verb_show_batches(const verb_context &context, arguments &args)
{
    return std::make_unique<batches_answer>(context, args);
}

answer_ptr verb_show_counters(const verb_context &context, arguments &args)
{
    return std::make_unique<counters_answer>(context, args);
}

} // namespace l2vpnd
