/*
 * Standard output: text that must get there, and how it may look.
 */
#ifndef L2VPNCTL_OUTPUT_H
#define L2VPNCTL_OUTPUT_H

#include "table.h"

#include <cstdint>
#include <string>

namespace l2vpnctl {

/* Both throw failure. */
void write_out(const std::string &text);
void flush_out();

/* `colour`: auto, always or never. */
style style_of(const std::string &colour);

/* How many records were read, on standard error where that is a terminal; gone when the reading is. */
class record_progress {
public:
    explicit record_progress(uint64_t every) : m_every(every) {}
    ~record_progress();
    record_progress(const record_progress &) = delete;
    record_progress &operator=(const record_progress &) = delete;
    void count();

private:
    uint64_t m_every;
    uint64_t m_total = 0;
    bool m_is_terminal = is_terminal();
    bool m_shown = false;

    static bool is_terminal();
};

} // namespace l2vpnctl

#endif
