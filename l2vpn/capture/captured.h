/*
 * A recorded message, or what happened to a link, as every reader gives it and every writer takes it.
 */
#ifndef L2VPN_CAPTURE_CAPTURED_H
#define L2VPN_CAPTURE_CAPTURED_H

#include "capture/format.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace l2vpn::capture {

/* What is wrong with a file, as one line without the file's name. */
class bad_file : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct captured {
    std::uint64_t time; /* nanoseconds since 1970 */
    record_head head;
    std::vector<std::uint8_t> message;                 /* what was kept of it: head.length bytes or less */
    std::shared_ptr<const std::string> interface = {}; /* of a pcapng file, its name; of a ring none */
};

/* From head and message as they are in files. False: it is damaged. Throws bad_file: it has another version
 * than this program reads. */
[[nodiscard]] inline bool parse(std::span<const std::uint8_t> bytes, captured &out)
{
    if (bytes.size() < head_length) {
        return false;
    }
    if (const auto version = get_number<std::uint16_t>(bytes.data()); version != record_version) {
        throw bad_file("has records of version " + std::to_string(version) + "; this program reads version " +
                       std::to_string(record_version));
    }
    out.head = get_head(bytes.first<head_length>());
    const auto message = bytes.subspan(head_length);
    out.message.assign(message.begin(), message.end());
    return get_number<std::uint16_t>(&bytes[6]) == head_length && out.head.kind >= record_kind::message &&
           out.head.kind <= record_kind::link_refused && out.head.direction <= flow::to_owner &&
           (out.head.by == observer::process || out.head.by == observer::owner) &&
           (out.head.direction != flow::none) == (out.head.kind == record_kind::message) &&
           message.size() <= out.head.length;
}

} // namespace l2vpn::capture

#endif
