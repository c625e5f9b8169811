/*
 * The log of the process: one line an event, on standard error or to syslog.
 *
 * A peer can cause lines, so lines are rationed by topic: a burst, then a few a second, and the number of
 * those left out is told with the next. A reader that does not read never holds the process up: a line
 * that standard error does not take at once is lost and counted.
 */
#ifndef L2VPND_LOG_H
#define L2VPND_LOG_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <platform/compiler.h>
#include <syslog.h>

namespace l2vpnd {

enum class topic : uint8_t { life, owners, dropped, unknown, transport, control, count };

/* What systemd's journal takes a line's level from, where standard error leads to it; else nothing. */
const char *journal_prefix(int level);

class event_log {
public:
    using clock = std::chrono::steady_clock;
    using sink = std::function<bool(int level, const char *line)>; /* false: the line was lost */
    using now_fn = clock::time_point (*)();

    static constexpr uint32_t burst = 20;
    static constexpr std::chrono::milliseconds refill{200}; /* one line more */

    event_log(sink out, int least_level, now_fn now = clock::now);

    void write(topic about, int level, const char *format, ...) PLATFORM_PRINTF(4, 5);
    void set_least_level(int level) { m_least_level = level; }
    uint64_t suppressed() const { return m_suppressed; }
    uint64_t lost() const { return m_lost; }

    static sink to_stderr(const char *program);
    static sink to_syslog(const char *program);

private:
    struct ration {
        uint32_t left = burst;
        uint64_t held_back = 0;
        clock::time_point since{};
    };

    bool may_write(ration &r);
    void put(int level, const char *line);

    sink m_out;
    int m_least_level;
    now_fn m_now;
    std::array<ration, static_cast<size_t>(topic::count)> m_rations;
    uint64_t m_suppressed = 0;
    uint64_t m_lost = 0;
};

} // namespace l2vpnd

#endif
