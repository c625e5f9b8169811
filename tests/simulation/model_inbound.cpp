/*
 * Inbound messages.
 */
#include "model.h"

#include <cstdio>

namespace simulation {

namespace {

constexpr std::uint32_t status_flag = 3;
constexpr std::uint32_t notice_bit = 2;

const std::string receiving = "l2vpn_ac_msg_cb";

std::string with_sizes(const char *what, std::size_t length, std::uint32_t bulk)
{
    return std::string(what) + " msg len=" + std::to_string(static_cast<std::int32_t>(length)) +
           ", bulk=" + std::to_string(static_cast<std::int32_t>(bulk));
}

bool is_null(const client &of, unsigned callback)
{
    return (of.null_callbacks >> callback & 1) != 0;
}

} // namespace

void model::handle_provision(const client_ptr &to, const delivery &item, std::uint32_t bulk,
                             std::uint32_t flags)
{
    const std::size_t length = item.content.size();
    const std::uint32_t told = item.number;
    platform_.debug(receiving, with_sizes("Receiving prov AC", length, bulk));
    if (bulk == 0) {
        hit(feature::prov_empty);
        return;
    }
    if (!ac_classes::valid(told)) {
        hit(feature::prov_bad_class);
        platform_.debug(receiving, "Unable to get AC data size for class id " + std::to_string(to->class_id));
        return;
    }
    if (header_size + std::uint64_t{bulk} * data_size(told) != length) {
        hit(feature::prov_bad_length);
        platform_.debug(receiving, with_sizes("incorrect provision", length, bulk));
        return;
    }
    const bool made = !platform_.verdict(fn::calloc_named);
    platform_.say({"calloc_named", {bulk, data_stride, made}, "AC data array"});
    if (!made) {
        hit(feature::prov_no_memory);
        platform_.debug("l2vpn_ac_data_base_to_ac_data", "Cannot allocate memory for AC data array");
        return;
    }
    if (!has_data_layout(told))
        throw fatal_assertion{"size == 0"};
    if (is_null(*to, 1)) {
        hit(feature::prov_no_callback);
        return;
    }
    const byte_view payload = byte_view(item.content).subspan(header_size);
    bytes data(payload.begin(), payload.begin() + std::ptrdiff_t{4} * bulk);
    turn_words(data);
    const bytes decoded = decode_data(told, payload.subspan(std::size_t{4} * bulk), bulk, mistake_);
    data.insert(data.end(), decoded.begin(), decoded.end());
    hit(feature::prov_delivered);
    call_back(*to, "prov", {bulk, flags}, std::move(data));
}

void model::handle_message(const delivery &item)
{
    const client_ptr to = find(*platform_.cookie_of(item.class_id));
    if (to == nullptr) {
        hit(feature::message_without_client);
        return;
    }
    const byte_view message = item.content;
    const std::uint32_t type = get32(message.subspan(4));
    const std::uint32_t bulk = get32(message.subspan(8));
    std::uint32_t flags = get32(message.subspan(12));
    const std::size_t length = message.size();
    platform_.seen().hit_received(type);
    to->busy = true;

    /* Unprovisions and bulk notices, alike but for their records. */
    const auto records = [&](std::size_t size, const char *name, unsigned callback, auto turn,
                             std::initializer_list<feature> seen) {
        if (bulk == 0) {
            hit(seen.begin()[0]);
        } else if (header_size + std::uint64_t{bulk} * size != length) {
            hit(seen.begin()[1]);
            platform_.debug(receiving, with_sizes("incorrect unprovision", length, bulk));
        } else if (is_null(*to, callback)) {
            hit(seen.begin()[2]);
        } else {
            hit(seen.begin()[3]);
            bytes data(message.begin() + header_size, message.end());
            turn(data);
            call_back(*to, name, {bulk, flags}, std::move(data));
        }
    };

    switch (type) {
    case 7:
        handle_provision(to, item, bulk, flags);
        break;
    case 8:
        platform_.debug(receiving, with_sizes("Receiving unprov AC", length, bulk));
        records(4, "unprov", 2, turn_words,
                {feature::unprov_empty, feature::unprov_bad_length, feature::unprov_no_callback,
                 feature::unprov_delivered});
        break;
    case 13:
        records(notify_size, "bulk_notify", 3, turn_notifies,
                {feature::notify_empty, feature::notify_bad_length, feature::notify_no_callback,
                 feature::notify_delivered});
        break;
    case 15: { /* back in network order: what a host reads there depends on the host */
        const std::uint32_t word = host32(message.subspan(12));
        if (is_null(*to, 4)) {
            hit(feature::hdr_no_callback);
        } else {
            hit(feature::hdr_delivered);
            call_back(*to, "hdr_notify", {host32(message.subspan(8)), word});
        }
        if (!mistaken(fault::hdr_notice_bit_in_host_order))
            flags = word;
        break;
    }
    default:
        if (type < 17) {
            hit(feature::message_ignored);
        } else {
            char line[128];
            std::snprintf(line, sizeof line,
                          "Invalid message type(0x%x) possible endian mismatch file "
                          "l2vpn/lib/src/l2vpn_ac_api",
                          type);
            hit(feature::message_of_invalid_type);
            platform_.say({"syslog", {6}, line});
        }
        break;
    }
    if ((flags & notice_bit) != 0) {
        hit(type == 15 ? feature::notice_flag_of_header_notice : feature::notice_flag);
        call_back(*to, "status", {status_flag, flags});
    }
    to->busy = false;
}

} // namespace simulation
