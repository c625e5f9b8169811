/*
 * Create, update and delete.
 */
#include "model.h"

#include <algorithm>

namespace simulation {

namespace {

constexpr std::uint64_t record_of_no_memory = std::uint64_t{1} << 32 | 0x2002051a;
constexpr std::size_t entries_recorded = 1024;

struct ac_kind {
    const char *where;
    const char *name;
    std::uint64_t trace;
    std::uint32_t type;
    std::uint32_t start;
    std::uint32_t end;
};

const ac_kind &ac_kind_of(op what)
{
    static const ac_kind create = {"l2vpn_ac_create", "CREATE", 1079, 2, 0x1, 0x2};
    static const ac_kind update = {"l2vpn_ac_update", "UPDATE", 1080, 3, 0x4, 0x8};
    static const ac_kind remove = {"l2vpn_ac_delete", "DELETE", 1081, 6, 0x10, 0x20};
    return what == op::create ? create : what == op::update ? update : remove;
}

bool has_bit(const step &what, std::uint32_t bit)
{
    return (what.variant & bit) != 0;
}

} // namespace

/* --- sending ----------------------------------------------------------------------------------------- */

std::uint32_t model::send(const client &from, std::uint32_t type, std::uint32_t flags,
                          const std::vector<piece> &pieces, std::size_t done, std::uint32_t count)
{
    bytes message = header_of(type, count, flags);
    std::vector<std::uint64_t> lengths = {header_size};
    std::vector<std::uint64_t> places;
    for (const auto &[wire, element, place] : pieces) {
        const auto first = wire.begin() + static_cast<std::ptrdiff_t>(done * element);
        message.insert(message.end(), first, first + static_cast<std::ptrdiff_t>(count * element));
        lengths.push_back(count * element);
        places.insert(places.end(), {place, place == 0 ? 0 : done * element});
    }
    return platform_.ucastv(from.class_id, message, lengths, places);
}

std::uint32_t model::failed_send(const client_ptr &from, std::uint32_t status)
{
    constexpr feature while_in[] = {feature::failed_send_while_idle, feature::failed_send_while_joining,
                                    feature::failed_send_while_up};
    hit(while_in[from->state]);
    if (from->state == client::up && platform_.leaf_running(from->leaf))
        hit(feature::failed_send_while_up_with_timer);
    const bool taken_over = activate_timer(*from) == 0;
    hit(taken_over ? feature::request_taken_over : feature::request_failed);
    return taken_over ? 0 : status;
}

/* --- create, update, delete -------------------------------------------------------------------------- */

std::uint32_t model::sanitize(const step &what, const settled &call, std::size_t number,
                              std::uint32_t class_id)
{
    const bytes &ifhs = call.given->first;
    event checked{"l2vpn_ac_data_sanitize", {class_id, 1}};
    const bool with[] = {call.what == op::create && !has_bit(what, null_second),
                         call.what != op::remove && !has_bit(what, null_third)};
    for (std::size_t i = 0; i < 2; ++i)
        checked.numbers.insert(checked.numbers.end(), {with[i] ? array_number(number, i + 1) : 0, 0});

    std::uint32_t status = 0;
    for (std::size_t i = 0; i < call.count; ++i) {
        const std::uint32_t ifh = host32(byte_view(ifhs).subspan(4 * i));
        if (ifh == 0 || ifh == 0xffffffff)
            status = einval;
        if (i < entries_recorded)
            put32(checked.data, ifh);
    }
    checked.data.resize(2 * checked.data.size()); /* the second words are 0 */
    status = platform_.verdict(fn::l2vpn_ac_data_sanitize).value_or(status);
    checked.numbers.insert(checked.numbers.end(), {call.count, status});
    platform_.say(std::move(checked));
    return status;
}

std::uint32_t model::ac_request(const step &what, const settled &call, std::size_t number)
{
    const ac_kind &kind = ac_kind_of(call.what);
    const bool create = call.what == op::create;
    platform_.say({"gen_dbg_ltrace_ctx", {kind.trace}, kind.where});

    const client_ptr from = find(call.handle);
    if (from == nullptr) {
        hit(initialised() ? feature::request_unknown : feature::request_uninitialised);
        if (create)
            platform_.debug(kind.where, "No such L2VPN AC client handle");
        return create ? 2 : einval;
    }
    const bool missing = has_bit(what, null_first) || (create && has_bit(what, null_second)) ||
                         (call.what != op::remove && has_bit(what, null_third));
    if (call.count > 0 && missing) {
        hit(feature::request_null_array);
        return einval;
    }
    if (const std::uint32_t status = sanitize(what, call, number, from->class_id); status != 0) {
        hit(feature::request_refused);
        return call.what == op::remove && !mistaken(fault::delete_refused_as_told) ? einval : status;
    }
    char line[96];
    std::snprintf(line, sizeof line, "Flags from AC_class=%d: 0x%x bulk_size=%d",
                  static_cast<int>(from->class_id), what.flags, static_cast<int>(call.count));
    platform_.debug(kind.where, line);

    if (call.count > 0)
        return send_acs(what, call, number, from);

    hit(feature::request_empty);
    if (call.what == op::remove)
        return 0;
    const bool with_flags = create || mistaken(fault::empty_update_with_flags);
    std::uint32_t status = send(*from, kind.type, with_flags ? what.flags : 0, {}, 0, 0);
    if (status != 0) {
        hit(feature::request_empty_failed);
        status = failed_send(from, status);
        platform_.debug(kind.where, std::string("Failed to unicast an empty ") + kind.name +
                                        " to L2VPN:" + text_of(status));
    }
    if (create && !mistaken(fault::empty_create_keeps_batch)) {
        if (create_batch_ != 0)
            hit(feature::create_batch_closed_empty);
        create_batch_ = 0;
    }
    return status;
}

bool model::converted(const client &of, const std::string &where, std::uint32_t count)
{
    const bool made = !platform_.verdict(fn::calloc_named);
    platform_.say({"calloc_named", {count, info_size(of.class_id), made}, "AC info msg array"});
    if (!made) {
        hit(feature::request_no_memory);
        platform_.report("l2vpn_ac_info_to_msg", "Cannot allocate memory for info msg array",
                         record_of_no_memory, "%u ");
        platform_.debug(where, "Failed to convert l2vpn_ac_info_t struct:" + text_of(12));
        return false;
    }
    if (of.class_id == 9)
        throw fatal_assertion{"size == 0"};
    for (std::uint32_t i = 0; of.class_id == 17 && i < count; ++i)
        platform_.say({"l2vpn_gen_assert_errmsg", {1}});
    if (of.class_id == 17)
        hit(feature::request_class_17);
    return true;
}

std::uint32_t model::send_acs(const step &what, const settled &call, std::size_t number,
                              const client_ptr &from)
{
    const ac_kind &kind = ac_kind_of(call.what);
    const bool create = call.what == op::create;
    const std::uint32_t limit = create ? max_create_ : call.what == op::update ? max_update_ : max_delete_;
    const std::uint32_t end_request = what.flags & kind.end;

    /* The flags word of the first message. */
    std::uint32_t word = what.flags;
    if (!create) {
        word |= kind.start;
    } else if (create_batch_ != 0) {
        hit(feature::create_in_batch);
    } else {
        create_batch_ = what.flags & kind.start;
        if (create_batch_ == 0)
            word |= kind.start;
        else
            hit(feature::create_batch_opened);
    }
    if (call.what != op::remove && !converted(*from, kind.where, call.count))
        return 12;

    bytes ifhs = call.given->first;
    turn_words(ifhs);
    bytes defns = call.given->second;
    if (create)
        turn_defns(from->class_id, defns, mistake_);
    const bytes infos =
        call.what == op::remove ? bytes() : encode_infos(from->class_id, call.given->third, mistake_);
    std::vector<piece> pieces = {{ifhs, 4, array_number(number, 0)}};
    if (create)
        pieces.push_back({defns, defn_size, array_number(number, 1)});
    if (call.what != op::remove)
        pieces.push_back({infos, info_size(from->class_id, mistake_), 0});

    if (limit == 0)
        hit(feature::limit_of_zero);
    if (call.count > 16384)
        hit(feature::request_large);
    hit(call.count == limit  ? feature::request_exact
        : call.count < limit ? feature::request_whole
                             : feature::request_cut);

    std::uint32_t remaining = call.count;
    std::uint32_t status = 0;
    while (remaining > 0 && status == 0) {
        const bool last = remaining <= limit;
        const std::uint32_t n = last ? remaining : limit;
        if (create && !last)
            word &= ~kind.end;
        if (last)
            word |= !create ? kind.end : create_batch_ != 0 ? end_request : kind.end;
        if (last && create && mistaken(fault::create_without_end))
            word &= ~kind.end;
        status = send(*from, kind.type, word, pieces, call.count - remaining, n);
        if (status == 0) {
            word &= ~kind.start;
            remaining -= n;
        }
    }
    if (status == 0) {
        if (create && end_request != 0) {
            if (create_batch_ != 0)
                hit(feature::create_batch_closed);
            create_batch_ = 0;
        }
        return 0;
    }
    if (remaining < call.count)
        hit(feature::request_failed_midway);
    const std::uint32_t result = failed_send(from, status);
    platform_.debug(kind.where, std::string("Failed to unicast a ") + kind.name + " to L2VPN:" +
                                    text_of(mistaken(fault::taken_over_with_cause) ? status : result));
    return result;
}

} // namespace simulation
