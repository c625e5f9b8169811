#include "decoder.h"

#include <array>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnd {

namespace {

struct drop_row {
    drop reason;
    const char *name;
    const char *text;
};

constexpr std::array<drop_row, drop_count> s_drops = {{
    {drop::none, "none", "nothing is wrong"},
    {drop::header, "header", "shorter than a header"},
    {drop::mark, "mark", "wrong mark in the header"},
    {drop::type, "type", "unknown message type"},
    {drop::direction, "direction", "a message type that only this process sends"},
    {drop::layout, "layout", "the class has no layout for this message"},
    {drop::length, "length", "length and header do not agree"},
    {drop::handle, "handle", "an interface handle that names no AC"},
    {drop::limit, "limit", "the table is full"},
    {drop::memory, "memory", "out of memory"},
}};

constexpr bool reasons_are_in_order()
{
    for (uint32_t i = 0; i < drop_count; i++) {
        if (s_drops[i].reason != static_cast<drop>(i)) {
            return false;
        }
    }
    return true;
}

static_assert(reasons_are_in_order(), "a row's index is its reason");

/* Bytes of one AC or record of `row` for a class; 0 for a message that is its header alone. */
uint64_t size_of_each(const message_row &row, const class_row &cls)
{
    const payload &each = row.each;
    return uint64_t{each.handle} + each.definition + (each.info ? cls.info_size : 0) + each.record;
}

bool handles_are_right(const message &msg)
{
    for (uint32_t i = 0; i < msg.count; i++) {
        const uint32_t handle = msg.handle(i);
        if (handle == 0 || handle == no_handle) {
            return false;
        }
    }
    return true;
}

} // namespace

const char *drop_name(drop reason)
{
    return s_drops[static_cast<uint32_t>(reason)].name;
}

const char *drop_text(drop reason)
{
    return s_drops[static_cast<uint32_t>(reason)].text;
}

drop decode(uint32_t class_id, bytes raw, message &out)
{
    out = {};
    if (raw.size() < hdr_len) {
        return drop::header;
    }
    if (get32(raw.data()) != L2VPN_AC_HDR_MARK) {
        return drop::mark;
    }
    const message_row *row = find_message(get32(raw.data() + 4));
    if (row == nullptr || row->dir == direction::none) {
        return drop::type;
    }
    if (row->dir != direction::to_process) {
        return drop::direction;
    }
    const class_row *cls = find_class(class_id);
    if (cls == nullptr || !cls->valid) {
        return drop::layout;
    }

    const uint32_t bulk = get32(raw.data() + 8);
    const uint64_t count = row->counted ? bulk : 1;
    if (row->each.info && count > 0 && cls->info_size == 0) {
        return drop::layout;
    }
    const uint64_t each = size_of_each(*row, *cls);
    /* A header that announces records where there are none to be is as wrong as one that lies about them. */
    if (raw.size() != hdr_len + count * each || (each == 0 && bulk != 0)) {
        return drop::length;
    }

    out.row = row;
    out.bulk = bulk;
    out.flags = get32(raw.data() + 12);
    out.count = static_cast<uint32_t>(count);
    out.info_size = cls->info_size;
    const uint8_t *cursor = raw.data() + hdr_len;
    out.handles = cursor;
    cursor += count * row->each.handle;
    out.definitions = cursor;
    cursor += count * row->each.definition;
    out.infos = cursor;
    out.records = cursor;
    return row->each.handle == 0 || handles_are_right(out) ? drop::none : drop::handle;
}

} // namespace l2vpnd
