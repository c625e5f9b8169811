/*
 * From received bytes to a message that can be relied on.
 *
 * decode() trusts nothing: it looks at every byte that decides about another byte's place before anything
 * is read there, and computes lengths in 64 bits. What it accepts is whole: the rest of the process indexes
 * it without further checks. Nothing is copied; a message points into the received buffer.
 */
#ifndef L2VPND_DECODER_H
#define L2VPND_DECODER_H

#include "wire.h"

#include <span>

namespace l2vpnd {

/* Why a message is dropped. */
enum class drop : uint8_t {
    none,
    header,    /* shorter than a header */
    mark,      /* the first word is not the mark */
    type,      /* no message type */
    direction, /* a type that only the process sends */
    layout,    /* the class has no layout for this message */
    length,    /* the length is not what header and class say */
    handle,    /* an AC named by a handle that names none */
    limit,     /* a table is full */
    memory,    /* no memory */
    count
};

constexpr auto drop_count = static_cast<uint32_t>(drop::count);

/* One word for counters, one line for the log. */
const char *drop_name(drop reason);
const char *drop_text(drop reason);

using bytes = std::span<const uint8_t>;

struct message {
    const message_row *row;
    uint32_t bulk;  /* the header's word as received */
    uint32_t flags; /* the header's word as received */
    uint32_t count; /* number of ACs or records behind the header */
    const uint8_t *handles;
    const uint8_t *definitions;
    const uint8_t *infos;
    uint32_t info_size;
    const uint8_t *records;

    uint32_t handle(uint32_t i) const { return get32(handles + static_cast<size_t>(i) * handle_len); }
    bytes definition(uint32_t i) const { return {definitions + static_cast<size_t>(i) * defn_len, defn_len}; }
    bytes info(uint32_t i) const { return {infos + static_cast<size_t>(i) * info_size, info_size}; }
    bytes record(uint32_t i) const
    {
        return {records + static_cast<size_t>(i) * row->each.record, row->each.record};
    }
};

/* Reads `raw`, a message from an owner of `class_id`. drop::none: `out` is written and points into `raw`;
 * any other value: `out` holds nothing that may be used. */
drop decode(uint32_t class_id, bytes raw, message &out);

} // namespace l2vpnd

#endif
