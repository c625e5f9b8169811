/*
 * Reading a trace file, of a process that has ended or one that goes on writing. Nothing in it is trusted.
 */
#ifndef L2VPN_TOOLS_TRACE_TRACE_FILE_H
#define L2VPN_TOOLS_TRACE_TRACE_FILE_H

#include "trace/format.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace l2vpn::trace_reader {

/* What is wrong with a file, as one line without the file's name. */
class bad_file : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct entry {
    std::uint64_t number; /* from 0, counting every record that was begun */
    std::uint64_t wall;   /* nanoseconds since 1970 */
    std::uint64_t monotonic;
    std::uint32_t thread;
    std::string kind;
    std::uint64_t id;     /* without the count of values that an error record has in its upper half */
    std::string function; /* empty: not given */
    std::uint32_t line;
    std::string text;
    bool cut; /* not all values are in the text */
};

struct lock_row {
    std::string function;
    std::uint32_t line;
    std::uint32_t waiting;
    std::uint64_t count;
    std::uint64_t total;
    std::uint64_t longest;
    std::uint64_t mutex;
};

struct contents {
    std::string process;
    std::uint32_t pid;
    std::uint64_t started;
    std::uint64_t begun;   /* records so far */
    std::uint64_t lost;    /* of these, never written */
    std::uint64_t damaged; /* slots that hold no record as it should be, those being written among them */
    std::vector<entry> entries; /* in the order of their numbers */
    std::vector<lock_row> locks;
};

/* Throws bad_file. */
[[nodiscard]] contents read_file(const std::string &path);

} // namespace l2vpn::trace_reader

#endif
