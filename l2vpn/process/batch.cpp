#include "batch.h"

namespace l2vpnd {

batch_step batches::follow(const message_row &row, uint32_t flags, uint32_t records, batch_counters &counters)
{
    if (!row.batched()) {
        return {};
    }
    batch &b = m_batches[row.type];
    const bool begin = (flags & row.begin_bit) != 0;
    const bool end = (flags & row.end_bit) != 0;
    const bool opened = begin && !b.open;
    if (opened) {
        b = {true, time(nullptr), 0, 0};
        counters.opened++;
    } else if (begin && !row.begin_repeats) {
        counters.reopened++;
    }
    const bool ends = end || records == 0;
    if (!b.open) {
        counters.stray_ends += end ? 1 : 0;
        return {false, false, false, ends};
    }
    b.messages++;
    b.records += records;
    if (ends) {
        close(row.type, counters);
    }
    return {true, opened, ends, ends};
}

void batches::close(uint32_t type, batch_counters &counters)
{
    m_batches[type].open = false;
    counters.closed++;
}

void batches::abandon(batch_counters &counters)
{
    for (batch &b : m_batches) {
        counters.abandoned += b.open ? 1 : 0;
        b.open = false;
    }
}

} // namespace l2vpnd
