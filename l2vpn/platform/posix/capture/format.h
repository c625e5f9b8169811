/*
 * Recorded messages: the record's head, which rings and pcapng files share, and the ring file. docs/capture.md
 * has both in pictures.
 */
#ifndef PLATFORM_POSIX_CAPTURE_FORMAT_H
#define PLATFORM_POSIX_CAPTURE_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace l2vpn::capture {

constexpr std::uint16_t record_version = 1;
constexpr std::size_t head_length = 64;
constexpr std::uint32_t no_class = 0xFFFFFFFF; /* of a link that was refused before it had told one */

enum class record_kind : std::uint8_t { message = 1, link_up, link_down, link_refused };
enum class flow : std::uint8_t { none, to_process, to_owner };
enum class observer : std::uint8_t { process = 1, owner };

struct record_head {
    record_kind kind;
    flow direction;
    observer by;
    std::uint32_t class_id;
    std::uint32_t nodeid;
    std::uint32_t pid;
    std::uint32_t uid;
    std::uint64_t link;
    std::uint64_t number;
    std::uint32_t status;
    std::uint32_t length;
    std::array<char, 16> name; /* NUL-padded */

    bool operator==(const record_head &other) const = default;
};

template <typename Number>
void put_number(std::uint8_t *to, Number value) noexcept
{
    for (std::size_t i = 0; i < sizeof value; ++i) {
        to[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof value - 1 - i)));
    }
}

template <typename Number>
[[nodiscard]] Number get_number(const std::uint8_t *from) noexcept
{
    Number value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        value = static_cast<Number>(value << 8 | from[i]);
    }
    return value;
}

inline void put_head(const record_head &head, std::uint8_t *to) noexcept
{
    put_number(to, record_version);
    to[2] = static_cast<std::uint8_t>(head.kind);
    to[3] = static_cast<std::uint8_t>(head.direction);
    to[4] = static_cast<std::uint8_t>(head.by);
    to[5] = 0;
    put_number(to + 6, static_cast<std::uint16_t>(head_length));
    put_number(to + 8, head.class_id);
    put_number(to + 12, head.nodeid);
    put_number(to + 16, head.pid);
    put_number(to + 20, head.uid);
    put_number(to + 24, head.link);
    put_number(to + 32, head.number);
    put_number(to + 40, head.status);
    put_number(to + 44, head.length);
    for (std::size_t i = 0; i < head.name.size(); ++i) {
        to[48 + i] = static_cast<std::uint8_t>(head.name[i]);
    }
}

/* Trusts nothing but the length: the caller looks at version, kind and the rest of the enumerators. */
[[nodiscard]] inline record_head get_head(std::span<const std::uint8_t, head_length> from) noexcept
{
    record_head head{.kind = static_cast<record_kind>(from[2]),
                     .direction = static_cast<flow>(from[3]),
                     .by = static_cast<observer>(from[4]),
                     .class_id = get_number<std::uint32_t>(&from[8]),
                     .nodeid = get_number<std::uint32_t>(&from[12]),
                     .pid = get_number<std::uint32_t>(&from[16]),
                     .uid = get_number<std::uint32_t>(&from[20]),
                     .link = get_number<std::uint64_t>(&from[24]),
                     .number = get_number<std::uint64_t>(&from[32]),
                     .status = get_number<std::uint32_t>(&from[40]),
                     .length = get_number<std::uint32_t>(&from[44]),
                     .name = {}};
    for (std::size_t i = 0; i < head.name.size(); ++i) {
        head.name[i] = static_cast<char>(from[48 + i]);
    }
    return head;
}

constexpr std::array<char, 8> ring_magic{'L', '2', 'V', 'P', 'N', 'C', 'R', '\n'};
constexpr std::uint32_t ring_version = 1;
constexpr std::uint32_t byte_order_mark = 0x01020304;
constexpr std::uint64_t slots_offset = 4096;
constexpr std::size_t slot_room = 240;

struct ring_header {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t byte_order;
    std::uint64_t file_size;
    std::uint64_t started_wall;
    std::uint64_t started_monotonic;
    std::uint32_t pid;
    std::uint32_t by;             /* an observer */
    std::array<char, 64> process; /* NUL-padded */
    std::uint64_t slot_count;
    std::uint64_t next;    /* atomic: slots begun so far */
    std::uint64_t records; /* atomic: records begun so far */
    std::uint64_t lost;    /* atomic: of these, how many were not written */
};
static_assert(sizeof(ring_header) == 144 && sizeof(ring_header) <= slots_offset);

struct slot {
    std::uint64_t sequence; /* 0 nothing yet, 2n + 1 slot n is being written, 2n + 2 it is there */
    std::uint32_t index;    /* which of its record's slots it is */
    std::uint32_t count;    /* slots of its record */
    std::array<std::uint8_t, slot_room> bytes;
};
static_assert(sizeof(slot) == 256);

/* What a record begins with in its first slot. */
struct record_prefix {
    std::uint64_t wall;
    std::uint32_t length; /* of what follows: head and as much of the message as was kept */
    std::uint32_t spare;
    std::array<std::uint8_t, head_length> head;
};
static_assert(sizeof(record_prefix) == 80);

/* So much of a message fits a record of one slot. */
constexpr std::uint32_t one_slot_message = slot_room - sizeof(record_prefix);

} // namespace l2vpn::capture

#endif
