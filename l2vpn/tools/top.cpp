/*
 * The process counts; what is shown are differences of two of its answers, the first time from its beginning or
 * the owner's. So it costs the process one short answer a refresh, and nothing in between.
 */
#include "top.h"

#include "cells.h"
#include "command_line.h"
#include "output.h"
#include "recordings.h"
#include "screen.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>

namespace l2vpnctl {

namespace {

using clock = screen::clock;

/* What has a rate: its name, and where it is counted. */
struct rate_row {
    const char *name;
    uint64_t (*count)(const json &row);
};

uint64_t change(const json &row, const char *key)
{
    return row.value("changes", json::object()).value(key, uint64_t{0});
}

constexpr rate_row s_rates[] = {
    {"messages", [](const json &row) { return row.value("messages", uint64_t{0}); }},
    {"sent", [](const json &row) { return row.value("sent", uint64_t{0}); }},
    {"bytes_received", [](const json &row) { return row.value("bytes_received", uint64_t{0}); }},
    {"bytes_sent", [](const json &row) { return row.value("bytes_sent", uint64_t{0}); }},
    {"acs",
     [](const json &row) {
         return change(row, "created") + change(row, "updated") + change(row, "deleted");
     }},
    {"provisioned", [](const json &row) { return change(row, "provisioned"); }},
};

struct sample {
    clock::time_point at;
    std::map<uint64_t, json> owners;
    json process;
};

sample take_sample(const command_line &line)
{
    sample taken;
    control_link link(control_path(line.runtime_dir), line.patience);
    taken.process = link.ask("show clients", json::object(), [&taken](const json &row) {
        taken.owners.emplace(row.value("owner", uint64_t{0}), row);
    });
    taken.at = clock::now();
    return taken;
}

/* Seconds since the time in `key`; null where there is none. */
json seconds_since(const json &row, const char *key)
{
    const auto at = row.find(key);
    const bool is_there = at != row.end() && at->is_number();
    return is_there ? json(std::max<int64_t>(time(nullptr) - at->get<int64_t>(), 0)) : json();
}

/* Of one owner: what it is, its rates, what waits, what went wrong. */
json owner_now(const json &row, const sample *before, double seconds)
{
    json shown;
    for (const char *key : {"owner", "node", "class", "pid", "acs"}) {
        shown[key] = row.value(key, uint64_t{0});
    }
    const json *past = nullptr;
    if (before != nullptr) {
        const auto found = before->owners.find(row.value("owner", uint64_t{0}));
        past = found == before->owners.end() ? nullptr : &found->second;
    }
    const double lived = seconds_since(row, "since").get<double>();
    const double span = before == nullptr ? std::max(lived, 1.0) : seconds;
    for (const rate_row &rate : s_rates) {
        const uint64_t counted = rate.count(row) - (past == nullptr ? 0 : rate.count(*past));
        shown["rates"][rate.name] = static_cast<double>(counted) / span;
    }
    for (const char *key : {"waiting", "queued"}) {
        shown[key] = row.value(key, uint64_t{0});
    }
    shown["waiting_seconds"] = seconds_since(row, "waiting_since");
    shown["open_batches"] = row.value("open_batches", uint64_t{0});
    shown["batch_seconds"] = seconds_since(row, "batch_since");
    for (const char *key : {"joins", "reconnects", "dropped", "send_failures"}) {
        shown[key] = row.value(key, uint64_t{0});
    }
    return shown;
}

json state_of(const sample &now, const sample *before)
{
    const double seconds =
        before == nullptr ? 0 : std::max(std::chrono::duration<double>(now.at - before->at).count(), 1e-3);
    json out = {{"time", time(nullptr)}, {"seconds", seconds}};
    out["process"] = {{"pid", now.process.value("pid", 0)},
                      {"uptime", seconds_since(now.process, "since")},
                      {"owners", now.owners.size()}};
    for (const char *key : {"seen", "reconnects", "refused"}) {
        out["process"][key] = now.process.value(key, uint64_t{0});
    }
    out["owners"] = json::array();
    for (const auto &[number, row] : now.owners) {
        out["owners"].push_back(owner_now(row, before, seconds));
    }
    return out;
}

/* What another process has counted is no beginning for this one. */
bool is_same_run(const sample &one, const sample &other)
{
    return std::ranges::all_of(std::array{"pid", "since"}, [&](const char *key) {
        return one.process.value(key, int64_t{0}) == other.process.value(key, int64_t{0});
    });
}

std::string rate_text(const json &owner, const char *name)
{
    char text[32];
    const double rate = owner.at("rates").at(name);
    snprintf(text, sizeof text, rate < 10 ? "%.1f" : "%.0f", rate);
    return text;
}

cell age_of(const json &owner, const char *key)
{
    return owner.at(key).is_null() ? cell{"-"} : cell{span_of(owner.at(key).get<int64_t>()), tint::busy};
}

/* What waits first, then what is busiest: the ones that a small terminal is to show. */
bool comes_first(const json &one, const json &other)
{
    const auto key = [](const json &owner) {
        const bool waits = !owner.at("waiting_seconds").is_null() || !owner.at("batch_seconds").is_null();
        return std::pair(waits, owner.at("rates").at("messages").get<double>());
    };
    return key(one) > key(other);
}

std::string print(const json &state, const style &how)
{
    const json &process = state.at("process");
    char head[200];
    const double seconds = state.at("seconds");
    snprintf(head, sizeof head, seconds == 0 ? "since the beginning" : "over %.1f s", seconds);
    std::string out = tinted("l2vpnd " + text_of(process.at("pid")), tint::heading, how) + ", up " +
                      (process.at("uptime").is_null() ? "?" : span_of(process.at("uptime").get<int64_t>())) +
                      ": " + count_of(process.at("owners").get<uint64_t>(), "owner", "owners") + ", " +
                      text_of(process.at("seen")) + " seen, " + text_of(process.at("reconnects")) +
                      " reconnected, " + text_of(process.at("refused")) + " refused; rates " + head + "\n\n";
    table rows({{"OWNER", true},
                {"CLASS", true},
                {"PID", true},
                {"ACS", true},
                {"MSG/S", true},
                {"SENT/S", true},
                {"AC/S", true},
                {"PROV/S", true},
                {"WAITING", true},
                {"QUEUED", true},
                {"WAITS", true},
                {"BATCH", true},
                {"JOINS", true},
                {"RECONN", true},
                {"DROPPED", true},
                {"FAILED", true}});
    std::vector<json> owners(state.at("owners").begin(), state.at("owners").end());
    std::ranges::stable_sort(owners, comes_first);
    for (const json &owner : owners) {
        rows.add({plain(owner, "owner"),
                  plain(owner, "class"),
                  plain(owner, "pid"),
                  plain(owner, "acs"),
                  {rate_text(owner, "messages")},
                  {rate_text(owner, "sent")},
                  {rate_text(owner, "acs")},
                  {rate_text(owner, "provisioned")},
                  plain(owner, "waiting"),
                  plain(owner, "queued"),
                  age_of(owner, "waiting_seconds"),
                  age_of(owner, "batch_seconds"),
                  plain(owner, "joins"),
                  fault(owner, "reconnects"),
                  fault(owner, "dropped"),
                  fault(owner, "send_failures")});
    }
    return out + (rows.empty() ? "" : rows.print(how));
}

void refresh(const command_line &line, sample now, screen &out)
{
    const top_options &how = line.top;
    const uint64_t count = how.once ? 1 : how.count;
    const auto interval =
        std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(how.interval));
    std::optional<sample> before;
    for (uint64_t shown = 1;; shown++) {
        const json state = state_of(now, before && is_same_run(*before, now) ? &*before : nullptr);
        const bool is_first = shown == 1;
        const auto show = [&] {
            out.show(line.as_json
                         ? state.dump() + "\n"
                         : (is_first || out.is_terminal() ? "" : "\n") + print(state, style_of(line.colour)));
        };
        show();
        if (shown == count) {
            return;
        }
        const clock::time_point next = now.at + interval;
        for (screen::event what = screen::event::resized; what == screen::event::resized;) {
            what = out.wait(next);
            if (what == screen::event::quit) {
                return;
            }
            if (what == screen::event::resized) {
                show();
            }
        }
        before = std::move(now);
        try {
            const screen::interruptible meanwhile(out);
            now = take_sample(line);
        } catch (const failure &why) {
            throw failure{why.status == exit_unreachable ? exit_broken : why.status, why.text};
        }
    }
}

} // namespace

void top(const command_line &line)
{
    sample first = take_sample(line); /* before the terminal is touched */
    screen out(line.as_json);
    try {
        refresh(line, std::move(first), out);
    } catch (const failure &) {
        if (!is_stopped()) { /* else it may have failed because of that */
            throw;
        }
    }
}

} // namespace l2vpnctl
