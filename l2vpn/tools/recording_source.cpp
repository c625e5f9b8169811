#include "recording_source.h"

#include <algorithm>

namespace l2vpnctl {

namespace {

constexpr size_t window = 64;
constexpr int patient_looks = 5;

} // namespace

bool record_source::give(size_t index, record_consumer &to, uint64_t others_miss)
{
    const uint64_t before = missing();
    const bool wanted = to.take(index, *next(), std::min(before, others_miss));
    m_told += before;
    m_has_given = true;
    pop();
    return wanted;
}

uint64_t record_source::leave_out()
{
    const uint64_t before = missing();
    m_told += before;
    m_has_left_out = true;
    pop();
    return before;
}

uint64_t record_source::lost_at_end() const
{
    const uint64_t all = m_has_left_out && !m_has_given ? 0 : lost();
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
    const bool due = !m_waiting.empty() &&
                     (m_is_last || missing() == 0 || m_waiting.size() > window || m_looks > patient_looks);
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
    if (!m_is_there && !m_is_over) {
        try {
            m_is_there = m_reader.next(m_record, m_missing);
        } catch (const l2vpn::capture::bad_file &bad) {
            if (m_reader.summary().records == 0) {
                throw;
            }
            m_damage = bad.what();
        }
        m_is_over = !m_is_there;
    }
    return m_is_there ? &m_record : nullptr;
}

std::string pcapng_source::fault() const
{
    const l2vpn::capture::pcapng_summary read = m_reader.summary();
    if (!m_damage.empty() || !read.ends_early.empty()) {
        return m_damage.empty() ? read.ends_early : m_damage;
    }
    return read.damaged + read.foreign == 0 ? ""
                                            : std::to_string(read.damaged) + " packets are damaged, " +
                                                  std::to_string(read.foreign) + " are of another link type";
}

} // namespace l2vpnctl
