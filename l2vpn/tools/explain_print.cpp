/*
 * An explanation, for people and for programs.
 */
#include "cells.h"
#include "explain.h"

#include <cinttypes>

namespace l2vpnctl {

using namespace l2vpn::capture;

namespace {

std::string hex_of(uint32_t value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08" PRIx32, value);
    return text;
}

std::string name_of(const ac_key &key, const std::string &name)
{
    return "AC " + hex_of(key.handle) + (name.empty() ? "" : " \"" + name + "\"") + ", class " +
           std::to_string(key.class_id) + ", node " + hex_of(key.node);
}

std::string short_time(uint64_t time)
{
    return time_text(time, "%H:%M:%S", false);
}

std::string utc(uint64_t time)
{
    return time_text(time, "%Y-%m-%dT%H:%M:%S", true) + "Z";
}

struct batch_row {
    const char *code;
    const char *text;
};

constexpr batch_row s_batches[] = {
    {"alone", "outside any batch"},     {"opens", "which opens a batch"},
    {"inside", "inside an open batch"}, {"closes", "which ends its batch"},
    {"whole", "a batch of its own"},    {"not-known", "inside a batch or not: its beginning is not recorded"},
};

constexpr size_t code_width = 16;
constexpr size_t day_width = 10;
constexpr size_t second_width = 19;

std::string line_of(const chain_step &step)
{
    std::string text = step.code;
    if (!step.type.empty()) {
        text.resize(std::max(text.size(), code_width), ' ');
        text += " " + step.type;
    }
    if (step.count > 0 && step.code != "batch-closed") {
        text += ", AC " + std::to_string(step.index + 1) + " of " + std::to_string(step.count);
    }
    if (step.message > 0) {
        text += ", message " + std::to_string(step.message) + " of the link";
    }
    for (const batch_row &row : s_batches) {
        text += step.code != "batch-closed" && row.code == std::string(step.batch)
                    ? std::string(", ") + row.text
                    : "";
    }
    return text + (step.why.empty() ? "" : ": " + step.why);
}

std::string who(const chain_step &step)
{
    return (step.head.by == observer::process ? "owner " : "link ") + std::to_string(step.head.link) + " " +
           program_of(step.head) + "[" + std::to_string(step.head.pid) + "]";
}

json json_of(const chain_step &step, const std::vector<searched_source> &sources)
{
    const bool by_process = step.head.by == observer::process;
    json out = {{"time", utc(step.time)},
                {"code", step.code},
                {"fault", step.is_fault},
                {"source", sources[step.source].name},
                {"observer", by_process ? "process" : "owner"},
                {"number", step.head.number},
                {by_process ? "owner" : "link", step.head.link},
                {"class", step.head.class_id},
                {"pid", step.head.pid},
                {"program", program_of(step.head)}};
    if (!step.type.empty()) {
        out["type"] = step.type;
        out["index"] = step.index;
        out["count"] = step.count;
    }
    if (step.message > 0) {
        out["message"] = step.message;
    }
    if (*step.batch != '\0') {
        out["batch"] = step.batch;
    }
    out["status"] = step.head.status;
    if (!step.why.empty()) {
        out["text"] = step.why;
    }
    return out;
}

/* What the process says of the AC at this moment. */
std::string text_of_row(const json &row)
{
    const time_t created = row.value("created", int64_t{0});
    std::string text = "now: owner " + plain(row, "owner").text + " has it, " + plain(row, "state").text +
                       "; created " +
                       time_text(static_cast<uint64_t>(created) * 1'000'000'000, "%Y-%m-%d %H:%M:%S", false)
                           .substr(0, second_width) +
                       " by message " + plain(row, "message").text + " of its link";
    if (row.contains("batch")) {
        const json &batch = row["batch"];
        text += "; its batch is open for " + age(batch, "since").text + ", with " +
                count_of(batch.value("messages", uint64_t{0}), "message", "messages") + ", " +
                count_of(batch.value("records", uint64_t{0}), "AC", "ACs");
    }
    if (row.value("waiting", uint64_t{0}) + row.value("queued", uint64_t{0}) > 0) {
        text += "; " + count_of(row.value("waiting", uint64_t{0}), "AC waits", "ACs wait") +
                " for its link, " + plain(row, "queued").text + " bytes in the queue";
    }
    const std::string asker = row.value("asked_by", "");
    text += asker == "nobody"     ? ""
            : asker == "operator" ? "; an operator has asked"
                                  : "; asked for automatically";
    return text;
}

} // namespace

json explanation::to_json() const
{
    json out = {{"asked", asked}};
    if (!key) {
        out["verdict"] = candidates.empty() ? json{{"code", "unknown"}, {"text", in_one_line()}}
                                            : json{{"code", "ambiguous"}, {"text", in_one_line()}};
        out["candidates"] = candidates;
    } else {
        out["ac"] = {{"node", key->node}, {"class", key->class_id}, {"handle", key->handle}, {"name", name}};
        out["verdict"] = {{"code", verdict.code}, {"text", verdict.text}};
        out["now"] = row ? *row : json();
        out["steps"] = json::array();
        for (const chain_step &step : steps) {
            out["steps"].push_back(json_of(step, searched));
        }
        out["steps_left_out"] = left_out;
        out["last_error"] = last_fault ? json_of(*last_fault, searched) : json();
    }
    out["notes"] = json::array();
    for (const remark &one : notes) {
        out["notes"].push_back({{"code", one.code}, {"text", one.text}});
    }
    out["searched"] = json::array();
    for (const searched_source &of : searched) {
        json shown = {
            {"name", of.name}, {"path", of.path}, {"records", of.records}, {"messages", of.messages}};
        shown["from"] = of.records == 0 ? json() : json(utc(of.from));
        shown["to"] = of.records == 0 ? json() : json(utc(of.to));
        shown.update(
            {{"overwritten", of.overwritten}, {"lost", of.lost}, {"cut", of.cut}, {"refused", of.refused}});
        out["searched"].push_back(std::move(shown));
    }
    return out;
}

std::string explanation::to_text() const
{
    if (!key) {
        std::string out;
        for (const json &one : candidates) {
            const ac_key of{one["node"], one["class"], one["handle"]};
            out += name_of(of, one["name"]);
            for (const json &owner : one["owners"]) {
                out += ", owner " + owner.dump();
            }
            out += "\n";
        }
        return out + (more_candidates == 0 ? "" : "and " + std::to_string(more_candidates) + " more\n");
    }
    std::string out = name_of(*key, name) + "\n" + verdict.text + " (" + verdict.code + ")\n";
    std::string latest_day;
    for (size_t i = 0; i < steps.size(); i++) {
        const chain_step &step = steps[i];
        const bool is_new = i == 0 || who(steps[i - 1]) != who(step) || steps[i - 1].source != step.source;
        const std::string day = time_text(step.time, "%Y-%m-%d", false).substr(0, day_width);
        out += day == latest_day ? "" : "\n" + day + "\n";
        latest_day = day;
        out += (is_new ? "seen by " + searched[step.source].name + ": " + who(step) + "\n" : "");
        out += "  " + short_time(step.time) + "  " + line_of(step) + (step.is_fault ? " (!)" : "") + "\n";
    }
    if (left_out > 0) {
        out += "  (" + std::to_string(left_out) + " steps in the middle are left out)\n";
    }
    out += "\n";
    out += row ? text_of_row(*row) + "\n" : "";
    out += "last error: " +
           (last_fault ? short_time(last_fault->time) + " " + last_fault->code +
                             (last_fault->why.empty() ? "" : ": " + last_fault->why)
                       : std::string("none")) +
           "\n";
    for (const remark &one : notes) {
        out += "note: " + one.text + " (" + one.code + ")\n";
    }
    for (const searched_source &of : searched) {
        out += "searched: " + of.name + ": " + count_of(of.messages, "message", "messages");
        if (of.records > 0) {
            out += " from " + time_text(of.from, "%Y-%m-%d %H:%M:%S", false) + " to " + short_time(of.to);
        }
        out += ", " + std::to_string(of.overwritten) + " earlier records overwritten, " +
               std::to_string(of.lost) + " lost\n";
    }
    return out;
}

} // namespace l2vpnctl
