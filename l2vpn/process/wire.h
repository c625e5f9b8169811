/*
 * The wire as the L2VPN process sees it: one row a message type, one row a class.
 *
 * The process describes the wire in tables of its own and shares none with the library, so that a fault in one
 * of the two codecs shows up between them instead of cancelling itself out. Only the names of the type codes
 * and flag bits are common.
 *
 * Rows are constant and may be read from any thread.
 */
#ifndef L2VPND_WIRE_H
#define L2VPND_WIRE_H

#include <cstdint>

namespace l2vpnd {

constexpr uint32_t hdr_len = 16;
constexpr uint32_t handle_len = 4;
constexpr uint32_t defn_len = 616;
constexpr uint32_t info_head_len = 16;
constexpr uint32_t name_len = 64; /* the first bytes of a definition: the interface's name, NUL-padded */
constexpr uint32_t message_types = 17;
constexpr uint32_t class_count = 18;
constexpr uint32_t no_handle = 0xFFFFFFFFu;

enum class direction : uint8_t { none, to_process, to_owner };

/* What follows the header, `bulk` times. */
struct payload {
    uint32_t handle;     /* bytes: 4 where ACs are named by handle */
    uint32_t definition; /* bytes: 616 in a CREATE */
    bool info;           /* an info message, as large as the class says */
    uint32_t record;     /* bytes of a record of any other kind */
};

struct message_row {
    uint32_t type;
    const char *name;
    direction dir;
    payload each;
    bool
        counted; /* `bulk` is the number of records; else the message has exactly one, whatever `bulk` says */
    uint32_t begin_bit;
    uint32_t end_bit;
    bool begin_repeats; /* the begin bit rides on every message of a request, not only on the first */

    constexpr bool batched() const { return begin_bit != 0; }
};

/* Null for a code that is no message type at all; a row without a name for one that nobody sends. */
const message_row *find_message(uint32_t type);

/* The type's name, or its number. */
const char *message_name(uint32_t type, char (&buffer)[16]);

struct class_row {
    uint32_t id;
    bool valid;         /* owners of the class are accepted */
    uint32_t info_size; /* one info message on the wire, its 16-byte head included; 0: has no wire form */
    bool info_opaque;   /* nothing behind the handles can be told apart: kept and shown as bytes */
    uint32_t data_size; /* one record of a PROV message, without the handle; 0: has no layout, never sent */
};

/* Null for an id that is no class. */
const class_row *find_class(uint32_t class_id);

inline uint16_t get16(const uint8_t *from)
{
    return static_cast<uint16_t>((from[0] << 8) | from[1]);
}

inline uint32_t get32(const uint8_t *from)
{
    return (static_cast<uint32_t>(get16(from)) << 16) | get16(from + 2);
}

inline uint64_t get64(const uint8_t *from)
{
    return (static_cast<uint64_t>(get32(from)) << 32) | get32(from + 4);
}

inline void put16(uint8_t *to, uint16_t value)
{
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

inline void put32(uint8_t *to, uint32_t value)
{
    put16(to, static_cast<uint16_t>(value >> 16));
    put16(to + 2, static_cast<uint16_t>(value));
}

} // namespace l2vpnd

#endif
