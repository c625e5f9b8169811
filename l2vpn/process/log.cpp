#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace l2vpnd {

namespace {

const char *level_name(int level)
{
    static constexpr const char *names[] = {"emergency", "alert",  "critical", "error",
                                            "warning",   "notice", "info",     "debug"};
    return level >= 0 && level <= LOG_DEBUG ? names[level] : "debug";
}

/* The variable is inherited by whatever is started from a service, the stream is not. */
bool stderr_is_the_journal()
{
    const char *const stream = getenv("JOURNAL_STREAM");
    struct stat here {};
    if (stream == nullptr || fstat(STDERR_FILENO, &here) != 0) {
        return false;
    }
    char name[48];
    snprintf(name, sizeof name, "%ju:%ju", static_cast<uintmax_t>(here.st_dev),
             static_cast<uintmax_t>(here.st_ino));
    return strcmp(stream, name) == 0;
}

} // namespace

const char *journal_prefix(int level)
{
    static constexpr const char *prefixes[] = {"<0>", "<1>", "<2>", "<3>", "<4>", "<5>", "<6>", "<7>"};
    if (!stderr_is_the_journal()) {
        return "";
    }
    return prefixes[std::clamp(level, LOG_EMERG, LOG_DEBUG)];
}

event_log::event_log(sink out, int least_level, now_fn now)
    : m_out(std::move(out)), m_least_level(least_level), m_now(now)
{
    for (ration &r : m_rations) {
        r.since = m_now();
    }
}

bool event_log::may_write(ration &r)
{
    const auto earned = (m_now() - r.since) / refill;
    if (earned > 0) {
        r.left += static_cast<uint32_t>(std::min<int64_t>(earned, burst - r.left));
        r.since += refill * earned;
    }
    if (r.left == 0) {
        r.held_back++;
        m_suppressed++;
        return false;
    }
    r.left--;
    return true;
}

void event_log::put(int level, const char *line)
{
    bool written = false;
    try {
        written = m_out(level, line);
    } catch (const std::bad_alloc &) {
        written = false; /* lost like a line that nobody reads */
    }
    m_lost += written ? 0 : 1;
}

void event_log::write(topic about, int level, const char *format, ...)
{
    if (level > m_least_level) {
        return;
    }
    ration &r = m_rations[static_cast<size_t>(about)];
    if (!may_write(r)) {
        return;
    }
    char line[1024];
    if (r.held_back > 0) {
        snprintf(line, sizeof line, "%llu lines like the next were left out",
                 static_cast<unsigned long long>(r.held_back));
        r.held_back = 0;
        put(level, line);
    }
    va_list values;
    va_start(values, format);
    vsnprintf(line, sizeof line, format, values);
    va_end(values);
    put(level, line);
}

event_log::sink event_log::to_stderr(const char *program)
{
    return [program](int level, const char *line) {
        const std::string text =
            std::string(journal_prefix(level)) + program + ": " + level_name(level) + ": " + line + "\n";
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        return poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0 &&
               ::write(STDERR_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    };
}

event_log::sink event_log::to_syslog(const char *program)
{
    openlog(program, LOG_PID, LOG_DAEMON);
    return [](int level, const char *line) {
        syslog(level, "%s", line);
        return true;
    };
}

} // namespace l2vpnd
