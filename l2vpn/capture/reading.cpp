/*
 * Malformed is what its receiver would not take as it is meant. A message that the recorder cut is judged by the
 * length that it had.
 */
#include "describe.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpn::capture {
namespace {

/* What is behind the header of each AC or record. */
std::vector<section> sections_of(const l2vpnd::message_row &row, const l2vpnd::class_row &cls,
                                 std::uint64_t count)
{
    std::vector<section> found;
    std::size_t offset = l2vpnd::hdr_len;
    const auto add = [&](const char *name, std::uint32_t each) {
        if (each > 0) {
            found.push_back({name, offset, each});
            offset += count * each;
        }
    };
    add("handle", row.each.handle);
    add("definition", row.each.definition);
    add("info", row.each.info ? cls.info_size : 0);
    add("data", row.type == L2VPN_AC_MSG_PROV ? cls.data_size : 0);
    add("record", row.each.record);
    return found;
}

std::uint64_t length_of(const std::vector<section> &sections, std::uint64_t count)
{
    std::uint64_t length = l2vpnd::hdr_len;
    for (const section &one : sections) {
        length += count * one.each;
    }
    return length;
}

/* As far as it was kept. */
bool names_no_ac(const captured &what, const reading &message)
{
    for (std::uint32_t i = 0; i < message.count; i++) {
        const std::optional<std::uint32_t> handle = handle_in(what, message, i);
        if (!handle) {
            break;
        }
        if (*handle == 0 || *handle == l2vpnd::no_handle) {
            return true;
        }
    }
    return false;
}

const char *read_body(const captured &what, reading &message)
{
    using l2vpnd::drop;
    const std::uint8_t *bytes = what.message.data();
    if (what.message.size() < l2vpnd::hdr_len) {
        return what.head.length < l2vpnd::hdr_len ? l2vpnd::drop_text(drop::header) : nullptr;
    }
    message.type = l2vpnd::get32(bytes + 4);
    message.words[0] = l2vpnd::get32(bytes + 8);
    message.words[1] = l2vpnd::get32(bytes + 12);
    const l2vpnd::message_row *row = l2vpnd::find_message(message.type);
    if (row != nullptr && row->dir != l2vpnd::direction::none) {
        message.row = row;
    }
    const bool in = what.head.direction == flow::to_process;
    if (in && l2vpnd::get32(bytes) != L2VPN_AC_HDR_MARK) {
        return l2vpnd::drop_text(drop::mark);
    }
    if (message.row == nullptr) {
        return l2vpnd::drop_text(drop::type);
    }
    if (in != (row->dir == l2vpnd::direction::to_process)) {
        return "a message type of the other direction";
    }
    const l2vpnd::class_row *cls = l2vpnd::find_class(what.head.class_id);
    if (cls == nullptr || !cls->valid) {
        return l2vpnd::drop_text(drop::layout);
    }
    const bool has_count = row->counted && row->type != L2VPN_AC_MSG_HDR_NOTIFY;
    const std::uint64_t count = has_count ? message.words[0] : std::uint64_t{!row->counted};
    const bool needs_data = row->type == L2VPN_AC_MSG_PROV && cls->data_size == 0;
    if (count > 0 && (needs_data || (row->each.info && cls->info_size == 0))) {
        return l2vpnd::drop_text(drop::layout);
    }
    message.sections = sections_of(*row, *cls, count);
    if (length_of(message.sections, count) != what.head.length ||
        (message.sections.empty() && has_count && count > 0)) {
        message.sections.clear();
        return l2vpnd::drop_text(drop::length);
    }
    message.count = row->type == L2VPN_AC_MSG_HDR_NOTIFY ? 0 : static_cast<std::uint32_t>(count);
    return in && row->each.handle != 0 && names_no_ac(what, message) ? l2vpnd::drop_text(drop::handle)
                                                                     : nullptr;
}

} // namespace

std::span<const std::uint8_t> element(const captured &what, const section &of, std::uint32_t index)
{
    const std::size_t begin = of.offset + std::size_t{index} * of.each;
    const std::span<const std::uint8_t> bytes = what.message;
    return begin + of.each <= bytes.size() ? bytes.subspan(begin, of.each) : std::span<const std::uint8_t>();
}

reading read(const captured &what)
{
    reading message;
    if (what.head.kind == record_kind::message) {
        message.is_cut = what.message.size() < what.head.length;
        message.fault = read_body(what, message);
    }
    return message;
}

reading read_as_claimed(const captured &what)
{
    reading message = read(what);
    const l2vpnd::class_row *cls = l2vpnd::find_class(what.head.class_id);
    if (message.fault != nullptr && message.row != nullptr && cls != nullptr) {
        const std::uint64_t count = message.row->counted ? message.words[0] : 1;
        message.sections = sections_of(*message.row, *cls, count);
        message.count = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, what.message.size()));
    }
    return message;
}

l2vpnd::field_list record_fields(std::uint32_t type)
{
    switch (type) {
    case L2VPN_MSTP_MSG_STATE:
        return l2vpnd::mstp_state_fields();
    case L2VPN_MSTP_MSG_PROTECTED:
        return l2vpnd::mstp_protection_fields();
    case L2VPN_MSTP_MSG_IS_ROOT:
        return l2vpnd::msti_root_fields();
    case L2VPN_AC_MSG_BULK_NOTIFY:
        return l2vpnd::bulk_notify_fields();
    default:
        return l2vpnd::vid_map_fields();
    }
}

namespace {

/* The field of this name of AC or record `index`, wherever in it; empty where there is none, or it was not kept. */
std::span<const std::uint8_t> field_in(const captured &what, const reading &message, std::uint32_t index,
                                       std::string_view name)
{
    for (const section &one : message.sections) {
        const std::string_view of = one.name;
        const auto bytes = element(what, one, index);
        if (of == name || bytes.empty()) {
            return bytes;
        }
        const l2vpnd::field_list fields = of == "definition" ? l2vpnd::definition_fields(what.head.class_id)
                                          : of == "record"   ? record_fields(message.type)
                                                             : l2vpnd::field_list();
        const auto found = std::ranges::find(fields, name, &l2vpnd::field::name);
        if (found != fields.end()) {
            return bytes.subspan(found->offset, std::size_t{found->width} * found->count);
        }
    }
    return {};
}

} // namespace

std::optional<std::uint32_t> handle_in(const captured &what, const reading &message, std::uint32_t index)
{
    const auto bytes = field_in(what, message, index, "handle");
    return bytes.size() < sizeof(std::uint32_t) ? std::nullopt : std::optional(l2vpnd::get32(bytes.data()));
}

std::string name_in(const captured &what, const reading &message, std::uint32_t index)
{
    return l2vpnd::to_text(field_in(what, message, index, "name"));
}

} // namespace l2vpn::capture
