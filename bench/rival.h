/*
 * What a user would write, or pick, instead of the library. Each is written as its makers advise: room is
 * reserved, objects and buffers are used again, nothing is copied that need not be.
 */
#ifndef BENCH_RIVAL_H
#define BENCH_RIVAL_H

#include "counting_platform.h"
#include "job.h"

#include <algorithm>
#include <memory>
#include <span>
#include <type_traits>
#include <vector>

/* Calls `what` with the class as a constant: encoders, too, ask for it once a message and never a record. */
template <typename What>
void with_class(uint32_t class_id, What what)
{
    switch (class_id) {
    case 0:
        return what(std::integral_constant<uint32_t, 0>());
    case 6:
        return what(std::integral_constant<uint32_t, 6>());
    case 7:
        return what(std::integral_constant<uint32_t, 7>());
    default:
        return what(std::integral_constant<uint32_t, 8>());
    }
}

class rival {
public:
    virtual ~rival() = default;
    virtual const char *name() const = 0;

    /* Encodes the ACs from `first` to before `end` as one message, and puts it out. */
    virtual void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) = 0;

    /* What create() put out, decoded without haste. The arrays of `read` have the right size. */
    virtual void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) = 0;

    /* The same as an update. Those that make the library's wire have one; the others carry what a create of
     * theirs carries but for the definitions, and would say nothing new. */
    virtual bool update(const create_job &, uint32_t, uint32_t, counting::outlet &) { return false; }

    /* A provision message of the whole job, encoded without haste; `words` because 8-aligned. */
    virtual std::vector<uint64_t> provision(const provision_job &job, size_t &size) = 0;

    /* Decodes it into arrays that are there; what it does not write in a record is zeroed. False: garbage. */
    virtual bool read_provision(std::span<const std::byte> message, provision_job &read) = 0;
};

std::unique_ptr<rival> stream_rival();  /* field by field, into a std::stringbuf */
std::unique_ptr<rival> growing_rival(); /* the same into an array that grows */
std::unique_ptr<rival> packed_rival();  /* copies records into a message, and swaps there */
std::unique_ptr<rival> protobuf_rival();
std::unique_ptr<rival> flatbuffers_structs_rival(); /* vectors of records that can never change */
std::unique_ptr<rival> flatbuffers_tables_rival();  /* a table an AC */
std::unique_ptr<rival> capnproto_rival();

/* As many of them as this build has. */
std::vector<std::unique_ptr<rival>> all_rivals();

/* Of an encoded message that is known to be of a multiple of 8 bytes, or is padded to it. */
inline std::vector<uint64_t> aligned_copy(const void *message, size_t size)
{
    std::vector<uint64_t> words((size + 7) / 8);
    std::copy_n(static_cast<const std::byte *>(message), size, reinterpret_cast<std::byte *>(words.data()));
    return words;
}

#endif
