/*
 * What a record says, for people and for programs, with the names that the process has for everything.
 */
#ifndef L2VPN_CAPTURE_DESCRIBE_H
#define L2VPN_CAPTURE_DESCRIBE_H

#include "captured.h"

#include "fields.h"

#include <optional>

namespace l2vpn::capture {

/* One kind of element behind the header: as many as the message has ACs or records, side by side. */
struct section {
    const char *name; /* "handle", "definition", "info", "data", "record" */
    std::size_t offset;
    std::uint32_t each; /* bytes */
};

/* A message as far as it can be relied on. */
struct reading {
    const l2vpnd::message_row *row = nullptr; /* null: its type has no name */
    std::uint32_t type = 0;
    std::uint32_t words[2] = {0, 0}; /* the header's third and fourth */
    std::uint32_t count = 0;         /* ACs or records; 0 where a fault leaves open where they are */
    std::vector<section> sections;
    const char *fault = nullptr; /* why it is malformed */
    bool is_cut = false;         /* not all of it was kept */

    [[nodiscard]] bool is_sound() const { return row != nullptr && fault == nullptr; }
};

[[nodiscard]] reading read(const captured &what);

/* The same; a malformed message is read as its header says, too, as far as that is there. Its fault stays. */
[[nodiscard]] reading read_as_claimed(const captured &what);

/* The bytes of an element; empty where they were not kept. */
[[nodiscard]] std::span<const std::uint8_t> element(const captured &what, const section &of,
                                                    std::uint32_t index);

/* What the records of a message of this type hold. */
[[nodiscard]] l2vpnd::field_list record_fields(std::uint32_t type);

/* The handle that AC or record `index` names; nothing where it names none, or it was not kept. */
[[nodiscard]] std::optional<std::uint32_t> handle_in(const captured &what, const reading &message,
                                                     std::uint32_t index);

/* The same for a name; else empty. */
[[nodiscard]] std::string name_in(const captured &what, const reading &message, std::uint32_t index);

/* A time of a record, in the local zone or UTC: the format of strftime(), then nanoseconds. */
[[nodiscard]] std::string time_text(std::uint64_t time, const char *format, bool utc);

/* The name of the owner's program, for people. */
[[nodiscard]] std::string program_of(const record_head &head);

enum class detail : std::uint8_t { none, records };

[[nodiscard]] l2vpnd::json describe(const captured &what, const reading &message, detail how);

/* One line, and with `records` more lines below it; `bytes`: a hexadecimal dump, too. All end with a newline. */
[[nodiscard]] std::string to_lines(const captured &what, const reading &message, detail how, bool bytes);

} // namespace l2vpn::capture

#endif
