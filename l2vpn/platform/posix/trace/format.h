/*
 * The trace file: what a process leaves for people who come after it. The writer maps the file and is its
 * only writer; readers map it too, while the process runs or after it was killed. Numbers are in the byte
 * order of the machine that wrote them, times in nanoseconds.
 *
 *   header                     4096 bytes
 *   texts    text_count        formats and function names, each once; a record names them by number
 *   locks    lock_count        where threads waited for mutexes
 *   records  record_count      the ring
 *
 * Everything after the header's constant part is written word by word with atomic stores. A record's first
 * word tells what it holds: 0 nothing yet, 2n + 1 record n is being written, 2n + 2 it is there. Record n is
 * in slot n % record_count. A record whose slot was still being written a whole lap later was lost, and
 * counted. A text is complete before a record names it and stays: readers take the records first, then the
 * texts.
 */
#ifndef PLATFORM_POSIX_TRACE_FORMAT_H
#define PLATFORM_POSIX_TRACE_FORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace l2vpn::trace {

constexpr std::array<char, 8> magic{'L', '2', 'V', 'P', 'N', 'T', 'R', '\n'};
constexpr std::uint32_t version = 1;
constexpr std::uint32_t byte_order_mark = 0x01020304;

constexpr std::uint64_t header_size = 4096;
constexpr std::uint32_t text_count = 512;
constexpr std::uint32_t lock_count = 128;
constexpr std::size_t value_words = 10;

/* Who gave a record. */
enum class record_kind : std::uint16_t { debug, entry, report, error, assertion, syslog, count_ };

struct region {
    std::uint64_t offset;
    std::uint64_t count;
};

struct header {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t byte_order;
    std::uint64_t file_size;
    std::uint64_t started_wall;
    std::uint64_t started_monotonic;
    std::uint32_t pid;
    std::uint32_t spare;
    std::array<char, 64> process; /* NUL-padded */
    region texts;
    region locks;
    region records;
    std::uint64_t next; /* atomic: records begun so far */
    std::uint64_t lost; /* atomic: of these, how many were not written */
};
static_assert(sizeof(header) == 176 && sizeof(header) <= header_size);

struct text {
    std::uint64_t hash;          /* 0: free */
    std::uint64_t ready;         /* 1 when `bytes` is written */
    std::array<char, 112> bytes; /* NUL-terminated, cut to fit */
};
static_assert(sizeof(text) == 128);

struct lock_site {
    std::uint64_t count; /* waits that have ended */
    std::uint64_t total;
    std::uint64_t longest;
    std::uint64_t mutex; /* address of the latest one waited for */
    std::uint32_t line;
    std::uint32_t waiting;         /* threads that wait now */
    std::array<char, 88> function; /* NUL-terminated, cut to fit; empty: free */
};
static_assert(sizeof(lock_site) == 128);

struct record {
    std::uint64_t sequence;
    std::uint64_t monotonic;
    std::uint64_t wall;
    std::uint64_t id; /* debug id, trace id, component, record key or syslog level, by kind */
    std::uint32_t thread;
    std::uint32_t line;
    record_kind kind;
    std::uint16_t format;                          /* number of a text from 1; 0: not known */
    std::uint16_t function;                        /* the same */
    std::uint8_t used;                             /* words of `values` */
    std::uint8_t cut;                              /* 1: the values did not all fit */
    std::array<std::uint64_t, value_words> values; /* as values.h says */
};
static_assert(sizeof(record) == 128);

constexpr std::uint64_t texts_offset = header_size;
constexpr std::uint64_t locks_offset = texts_offset + text_count * sizeof(text);
constexpr std::uint64_t records_offset = locks_offset + lock_count * sizeof(lock_site);

constexpr std::uint64_t being_written(std::uint64_t number) noexcept
{
    return 2 * number + 1;
}
constexpr std::uint64_t written(std::uint64_t number) noexcept
{
    return 2 * number + 2;
}

} // namespace l2vpn::trace

#endif
