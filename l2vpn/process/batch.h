/*
 * Batches: bulk requests that span several messages, told apart by a begin and an end bit only.
 *
 * One batch an owner and message type can be open. The rules, the same for all six types:
 *   - a begin bit opens a batch when none is open; when one is open it goes on (a sender that failed half-way
 *     begins anew without having ended, and the MSTP requests set the bit on every message);
 *   - an end bit, or a message without records, closes it;
 *   - a message outside any batch is complete in itself, and an end bit there is only counted;
 *   - what closes a batch also closes those of its type on the other links of the same client process: a client
 *     library knows one batch for all its classes, so the end can come on another link than the beginning.
 */
#ifndef L2VPND_BATCH_H
#define L2VPND_BATCH_H

#include "wire.h"

#include <array>
#include <ctime>

namespace l2vpnd {

struct batch {
    bool open = false;
    time_t since = 0;
    uint64_t messages = 0;
    uint64_t records = 0;
};

/* Counted where the batch was. */
struct batch_counters {
    uint64_t opened = 0;
    uint64_t closed = 0;
    uint64_t reopened = 0; /* a begin bit inside an open batch, where it is not usual */
    uint64_t stray_ends = 0;
    uint64_t abandoned = 0; /* open when the link ended */
};

/* What a message is in its batch. */
struct batch_step {
    bool inside; /* it belongs to a batch */
    bool opened; /* and is its first message */
    bool closed; /* and its last */
    bool ends;   /* it closes what is open, here or on other links of the same client */
};

/* The batches of one owner. */
class batches {
public:
    batch_step follow(const message_row &row, uint32_t flags, uint32_t records, batch_counters &counters);
    void close(uint32_t type, batch_counters &counters);
    const batch &of(uint32_t type) const { return m_batches[type]; }
    void abandon(batch_counters &counters);

private:
    std::array<batch, message_types> m_batches{};
};

} // namespace l2vpnd

#endif
