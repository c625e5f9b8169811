/*
 * Standard output: text that must get there, and how it may look.
 */
#ifndef L2VPNCTL_OUTPUT_H
#define L2VPNCTL_OUTPUT_H

#include "control_link.h"
#include "table.h"

#include <cstdint>
#include <string>

namespace l2vpnctl {

/* It was asked to end while nobody took what it wrote. */
struct interrupted : failure {};

/* Both throw failure, interrupted among them. */
void write_out(const std::string &text);
void flush_out();

/* `colour`: auto, always or never. */
style style_of(const std::string &colour);

/* How far long work is, in a line on standard error, where that is a terminal; gone when the work is. */
class progress_line {
public:
    /* Of work that prints meanwhile: not where that goes to a pipe, whose reader may have the terminal. */
    explicit progress_line(bool prints_meanwhile = false);
    ~progress_line() { clear(); }
    progress_line(const progress_line &) = delete;
    progress_line &operator=(const progress_line &) = delete;
    void tell(const std::string &text);
    void clear() { tell(""); }

private:
    bool m_is_terminal;
    std::string m_told;
};

/* The same for how many records were read. */
class record_progress {
public:
    /* It is told with so many more. */
    explicit record_progress(uint64_t every, bool prints_meanwhile = false)
        : m_every(every), m_line(prints_meanwhile)
    {
    }
    void count()
    {
        if (++m_total % m_every == 0) {
            show();
        }
    }
    void show();
    /* Before something else is printed. */
    void clear() { m_line.clear(); }

private:
    uint64_t m_every;
    uint64_t m_total = 0;
    progress_line m_line;
};

} // namespace l2vpnctl

#endif
