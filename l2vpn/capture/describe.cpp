#include "describe.h"

#include <algorithm>
#include <cinttypes>
#include <ctime>
#include <l2vpn/l2vpn_ac_msg.h>
#include <platform/qerr.h>

namespace l2vpn::capture {
namespace {

using l2vpnd::json;

constexpr std::uint32_t notice_in_header_notice = 0x02000000; /* its receiver looks at the word as it lies */
constexpr std::size_t longest_octets = 16;
constexpr std::uint32_t class_of_packed_heads = 17;

const char *direction_name(flow direction)
{
    return direction == flow::to_process ? "to_process" : "to_owner";
}

json flags_of(const reading &message)
{
    json names = json::array();
    std::uint32_t left = message.words[1];
    const auto name = [&](std::uint32_t bit, const char *text) {
        if ((left & bit) != 0) {
            names.push_back(text);
            left &= ~bit;
        }
    };
    if (message.row != nullptr && message.row->dir == l2vpnd::direction::to_owner) {
        name(message.type == L2VPN_AC_MSG_HDR_NOTIFY ? notice_in_header_notice : L2VPN_AC_FLAG_NOTICE,
             "notice");
    } else if (message.row != nullptr && message.row->batched()) {
        name(message.row->begin_bit, "begin");
        name(message.row->end_bit, "end");
    }
    if (left != 0 && message.type != L2VPN_AC_MSG_HDR_NOTIFY) {
        char text[16];
        snprintf(text, sizeof text, "0x%" PRIx32, left);
        names.push_back(text);
    }
    return names;
}

/* The heads of class 17's information lie packed at the beginning, its other bytes are nobody's. */
std::span<const std::uint8_t> info_head(const captured &what, const section &of, std::uint32_t index)
{
    const std::uint32_t each = what.head.class_id == class_of_packed_heads ? l2vpnd::info_head_len : of.each;
    return element(what, {of.name, of.offset, each}, index);
}

void describe_part(const captured &what, const reading &message, const section &of, std::uint32_t index,
                   json &row)
{
    const std::string_view name = of.name;
    const auto bytes = name == "info" ? info_head(what, of, index) : element(what, of, index);
    if (bytes.empty()) {
        return;
    }
    const std::uint32_t class_id = what.head.class_id;
    json part = json::object();
    if (name == "handle") {
        row["handle"] = l2vpnd::get32(bytes.data());
    } else if (name == "definition") {
        l2vpnd::show_fields(l2vpnd::definition_fields(class_id), bytes, longest_octets, part);
    } else if (name == "info") {
        l2vpnd::show_fields(l2vpnd::info_head_fields(), bytes, longest_octets, part);
        l2vpnd::show_fields(l2vpnd::info_fields(class_id), bytes, longest_octets, part);
    } else if (name == "data") {
        l2vpnd::show_fields(l2vpnd::provision_fields(class_id), bytes, longest_octets, part);
    } else {
        l2vpnd::show_fields(record_fields(message.type), bytes, longest_octets, row);
    }
    if (!part.empty()) {
        row[of.name] = std::move(part);
    }
}

json records_of(const captured &what, const reading &message)
{
    json rows = json::array();
    for (std::uint32_t i = 0; i < message.count; i++) {
        json row = json::object();
        for (const section &one : message.sections) {
            describe_part(what, message, one, i, row);
        }
        if (row.empty()) {
            break; /* from here on nothing was kept */
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

/* "a=1 b=2:3" */
std::string flat(const json &object)
{
    std::string out;
    for (const auto &[key, value] : object.items()) {
        out += (out.empty() ? "" : " ") + key + "=";
        if (value.is_array()) {
            for (std::size_t i = 0; i < value.size(); i++) {
                out += (i == 0 ? "" : ":") + value[i].dump();
            }
        } else if (value.is_object()) {
            out += "(" + flat(value) + ")";
        } else if (key == "handle") {
            char text[16];
            snprintf(text, sizeof text, "0x%08" PRIx32, value.get<std::uint32_t>());
            out += text;
        } else {
            out += value.is_string() && key != "name" ? value.get<std::string>() : value.dump();
        }
    }
    return out;
}

std::string hex_dump(std::span<const std::uint8_t> bytes)
{
    constexpr std::size_t a_line = 16;
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += a_line) {
        char offset[24];
        snprintf(offset, sizeof offset, "    %05zx ", at);
        out += offset;
        for (const std::uint8_t &byte : bytes.subspan(at, std::min(a_line, bytes.size() - at))) {
            out += " " + l2vpnd::to_hex({&byte, 1});
        }
        out += "\n";
    }
    return out;
}

std::string message_text(const captured &what, const reading &message)
{
    char number[16];
    std::string out = what.head.direction == flow::to_process ? "-> " : "<- ";
    out += message.row != nullptr ? message.row->name : "type " + std::to_string(message.type);
    if (message.type == L2VPN_AC_MSG_HDR_NOTIFY && message.row != nullptr) {
        for (const std::uint32_t word : message.words) {
            snprintf(number, sizeof number, " 0x%" PRIx32, word);
            out += number;
        }
    } else if (message.row != nullptr && !message.sections.empty()) {
        const char *unit = message.row->each.handle != 0 ? "AC" : "record";
        out += " " + std::to_string(message.count) + " " + unit + (message.count == 1 ? "" : "s");
    }
    std::string flags;
    for (const json &flag : flags_of(message)) {
        flags += (flags.empty() ? " [" : ",") + flag.get<std::string>();
    }
    out += flags + (flags.empty() ? " " : "] ") + std::to_string(what.head.length) + " bytes";
    if (message.is_cut) {
        out += " (" + std::to_string(what.message.size()) + " recorded)";
    }
    return out;
}

} // namespace

std::string time_text(std::uint64_t time, const char *format, bool utc)
{
    const auto whole = static_cast<time_t>(time / 1'000'000'000);
    tm parts{};
    utc ? gmtime_r(&whole, &parts) : localtime_r(&whole, &parts);
    char text[64];
    strftime(text, sizeof text, format, &parts);
    char fraction[16];
    snprintf(fraction, sizeof fraction, ".%09" PRIu64, time % 1'000'000'000);
    return text + std::string(fraction);
}

std::string program_of(const record_head &head)
{
    return l2vpnd::to_text({reinterpret_cast<const std::uint8_t *>(head.name.data()), head.name.size()});
}

json describe(const captured &what, const reading &message, detail how)
{
    const record_head &head = what.head;
    json out = {{"time", time_text(what.time, "%Y-%m-%dT%H:%M:%S", true) + "Z"},
                {"observer", head.by == observer::process ? "process" : "owner"},
                {"number", head.number},
                {head.by == observer::process ? "owner" : "link", head.link},
                {"class", head.class_id == no_class ? json() : json(head.class_id)},
                {"node", head.nodeid},
                {"pid", head.pid},
                {"uid", head.uid},
                {"program", program_of(head)}};
    static constexpr const char *kinds[] = {"message", "up", "down", "refused"};
    out["kind"] = kinds[static_cast<int>(head.kind) - 1];
    out["status"] = head.status;
    if (head.kind != record_kind::message) {
        return out;
    }
    out["direction"] = direction_name(head.direction);
    out["type"] = message.row != nullptr ? json(message.row->name) : json(message.type);
    if (message.row != nullptr && message.type == L2VPN_AC_MSG_HDR_NOTIFY) {
        out["word2"] = message.words[0];
        out["word3"] = message.words[1];
    } else {
        out["count"] = message.count;
        out["flags"] = message.words[1];
    }
    out["flag_names"] = flags_of(message);
    out["length"] = head.length;
    out["recorded"] = what.message.size();
    if (message.fault != nullptr) {
        out["malformed"] = message.fault;
    }
    if (how == detail::records) {
        out["records"] = records_of(what, message);
    }
    return out;
}

std::string to_lines(const captured &what, const reading &message, detail how, bool bytes)
{
    const record_head &head = what.head;
    std::string out = time_text(what.time, "%H:%M:%S", false);
    out += (head.by == observer::process ? " owner " : " link ") + std::to_string(head.link) + " ";
    out += program_of(head) + "[" + std::to_string(head.pid) + "] " +
           (head.class_id == no_class ? "no class" : "class " + std::to_string(head.class_id)) + " ";
    switch (head.kind) {
    case record_kind::message:
        out += message_text(what, message);
        break;
    case record_kind::link_up:
        out += "UP";
        break;
    case record_kind::link_down:
        out += "DOWN";
        break;
    case record_kind::link_refused:
        out += "REFUSED";
        break;
    }
    if (head.status != EOK) {
        out +=
            std::string(head.kind == record_kind::message ? " FAILED: " : ": ") + qerr_strerror(head.status);
    }
    if (message.fault != nullptr) {
        out += std::string(" MALFORMED: ") + message.fault;
    }
    out += "\n";
    if (how == detail::records) {
        for (const json &row : records_of(what, message)) {
            out += "    " + flat(row) + "\n";
        }
    }
    return bytes ? out + hex_dump(what.message) : out;
}

} // namespace l2vpn::capture
