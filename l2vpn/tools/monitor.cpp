/*
 * l2vpnctl monitor: records as lines, for people or, with --json, for programs.
 */
#include "command_line.h"
#include "describe.h"
#include "output.h"
#include "recordings.h"

#include <cstring>
#include <fnmatch.h>

namespace l2vpnctl {

namespace {

using namespace l2vpn::capture;

constexpr uint64_t progress_records = 1 << 16;

uint32_t type_of(const std::string &name)
{
    for (uint32_t type = 0; type < l2vpnd::message_types; type++) {
        const l2vpnd::message_row *row = l2vpnd::find_message(type);
        if (row->name != nullptr && strcasecmp(row->name, name.c_str()) == 0) {
            return type;
        }
    }
    throw failure{exit_usage, "no message type '" + name + "'"};
}

class printer : public record_consumer {
public:
    explicit printer(const command_line &line) : m_line(line), m_filter(line.recordings.choice) {}

    bool take(size_t /*source*/, const captured &record, uint64_t lost) override
    {
        const recording_options &how = m_line.recordings;
        tell_lost(lost, " here");
        m_progress.count();
        if (!m_filter.takes(record)) {
            return true;
        }
        m_progress.clear();
        const reading message = read(record);
        const detail more = how.verbose ? detail::records : detail::none;
        if (m_line.as_json) {
            json shown = describe(record, message, more);
            if (how.bytes) {
                shown["bytes"] = l2vpnd::to_hex(record.message);
            }
            write_out(l2vpnd::to_line(shown) + "\n");
        } else {
            write_out(to_lines(record, message, more, how.bytes));
        }
        return ++m_shown != how.count;
    }

    void end(size_t /*source*/, uint64_t lost) override { tell_lost(lost, ""); }

    void idle() override { flush_out(); }

private:
    void tell_lost(uint64_t lost, const char *where)
    {
        if (lost > 0) {
            m_progress.clear();
            write_out(m_line.as_json ? json({{"lost", lost}}).dump() + "\n"
                                     : "(" + std::to_string(lost) + " records are missing" + where + ")\n");
        }
    }

    const command_line &m_line;
    record_filter m_filter;
    record_progress m_progress{progress_records, true}; /* of a choice that is seldom met */
    uint64_t m_shown = 0;
};

} // namespace

record_filter::record_filter(const record_choice &choice)
    : m_choice(choice), m_handles(choice.handles.begin(), choice.handles.end())
{
    if (choice.type) {
        m_type = type_of(*choice.type);
    }
}

/* A message of many ACs is taken when one of them is meant. */
bool record_filter::takes_ac(const captured &record, const reading &message)
{
    std::set<uint32_t> &named = m_named[{record.head.nodeid, record.head.class_id}];
    bool found = false;
    for (uint32_t i = 0; i < message.count; i++) {
        const std::optional<uint32_t> handle = handle_in(record, message, i);
        const std::string name = m_choice.name ? name_in(record, message, i) : std::string();
        if (!handle && name.empty()) {
            break; /* from here on nothing was kept */
        }
        const bool matches = !name.empty() && fnmatch(m_choice.name->c_str(), name.c_str(), 0) == 0;
        if (handle && matches) {
            named.insert(*handle);
        } else if (handle && !name.empty()) {
            named.erase(*handle);
        }
        found = found || matches || (handle && (m_handles.contains(*handle) || named.contains(*handle)));
    }
    return found;
}

bool record_filter::takes(const captured &record)
{
    const bool by_ac = m_choice.name || !m_handles.empty();
    const reading message = read(record);
    /* Always looked at: names are learnt from records that are not wanted, too. */
    const bool of_ac = !by_ac || takes_ac(record, message);
    return of_ac &&
           (!m_choice.owner ||
            (record.head.by == observer::process && *m_choice.owner == record.head.link)) &&
           (!m_choice.class_id || *m_choice.class_id == record.head.class_id) &&
           (!m_type || (message.row != nullptr && message.type == *m_type));
}

void monitor(const command_line &line)
{
    printer out(line);
    try {
        read_recordings(line, out);
    } catch (const interrupted &) {
        return; /* as it ends otherwise */
    }
}

} // namespace l2vpnctl
