#include "recording_source.h"

#include <algorithm>

namespace l2vpnctl {

namespace {

constexpr int patient_looks = 5;

} // namespace

bool record_source::give(size_t index, record_consumer &to, uint64_t lost)
{
    const bool wanted = to.take(index, *next(), lost);
    pass();
    return wanted;
}

void record_source::pass()
{
    m_told += missing();
    pop();
}

uint64_t record_source::lost_at_end() const
{
    const uint64_t all = lost();
    return all - std::min(all, m_told);
}

ring_source::ring_source(const std::string &path, bool history) : m_ring(path), m_started(history)
{
    if (!history) {
        m_ring.skip();
    }
}

void ring_source::look(bool is_last)
{
    std::vector<captured> records;
    m_ring.read(records);
    for (captured &record : records) {
        const uint64_t number = record.head.number;
        m_waiting.emplace(number, std::move(record));
    }
    m_looks += m_waiting.empty() ? 0 : 1;
    m_is_last = is_last;
}

const captured *ring_source::next()
{
    const bool due = !m_waiting.empty() && (m_is_last || missing() == 0 ||
                                            m_waiting.size() > overtaken_most || m_looks > patient_looks);
    return due ? &m_waiting.begin()->second : nullptr;
}

uint64_t ring_source::missing() const
{
    const uint64_t number = m_waiting.begin()->first;
    return m_started && number > m_next ? number - m_next : 0;
}

void ring_source::pop()
{
    m_started = true;
    m_next = std::max(m_next, m_waiting.begin()->first + 1);
    m_waiting.erase(m_waiting.begin());
    m_looks = 0;
}

pcapng_source::pcapng_source(const std::string &path)
    : m_name(path.substr(path.rfind('/') + 1)), m_file(path, std::ios::binary), m_reader(m_file)
{
}

const captured *pcapng_source::next()
{
    while (m_waiting.size() <= overtaken_most && read()) {
    }
    return m_waiting.empty() ? nullptr : &m_waiting.front().record;
}

/* False: there is no more. */
bool pcapng_source::read()
{
    waiting made{};
    bool is_there = false;
    try {
        is_there = !m_is_over && m_reader.next(made.record, made.missing);
    } catch (const l2vpn::capture::bad_file &bad) {
        if (m_reader.summary().records == 0) {
            throw;
        }
        m_damage = bad.what();
    }
    m_is_over = !is_there;
    if (is_there) {
        const uint64_t number = made.record.head.number;
        made.first = number - std::min(number, made.missing);
        put_in_order(std::move(made));
    }
    return is_there;
}

/* Numbers that begin again were not overtaken: what was has its place between two of the same recorder. */
void pcapng_source::put_in_order(waiting &&made)
{
    const captured &late = made.record;
    const auto is_of_same = [&late](const waiting &other) {
        return other.record.interface == late.interface && has_same_observer(other.record, late);
    };
    auto place = m_waiting.end();
    for (auto at = m_waiting.end(); at != m_waiting.begin();) {
        --at;
        const uint64_t number = at->record.head.number;
        if (!is_of_same(*at)) {
            continue;
        }
        if (number == late.head.number || number > late.head.number + overtaken_most) {
            break;
        }
        if (number < late.head.number) {
            const auto gap = std::find_if(place, m_waiting.end(), [&is_of_same](const waiting &behind) {
                return behind.missing > 0 && is_of_same(behind);
            });
            if (gap != m_waiting.end()) {
                gap->missing--;
                m_overtaken++;
            }
            m_waiting.insert(place, std::move(made));
            return;
        }
        place = at;
    }
    m_waiting.push_back(std::move(made));
}

/* Where a capture goes on in another file, a late one may be there. */
bool pcapng_source::misses(const captured &record) const
{
    const waiting &due = m_waiting.front();
    return due.missing > 0 && record.head.number >= due.first && are_neighbours(record, due.record);
}

void pcapng_source::note_found()
{
    m_waiting.front().missing--;
    m_overtaken++;
}

uint64_t pcapng_source::lost() const
{
    const uint64_t all = m_reader.summary().lost;
    return all - std::min(all, m_overtaken);
}

std::string pcapng_source::fault() const
{
    const l2vpn::capture::pcapng_summary read = m_reader.summary();
    const bool has_ended = m_waiting.empty(); /* else nobody has come there */
    if (has_ended && (!m_damage.empty() || !read.ends_early.empty())) {
        return m_damage.empty() ? read.ends_early : m_damage;
    }
    return read.damaged + read.foreign == 0 ? ""
                                            : std::to_string(read.damaged) + " packets are damaged, " +
                                                  std::to_string(read.foreign) + " are of another link type";
}

} // namespace l2vpnctl
