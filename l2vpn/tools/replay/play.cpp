#include "play.h"

#include "command_line.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnctl {

namespace {

using namespace l2vpn::capture;

/* Of each observer, by its pid or, the process's, 0. */
using by_observer = std::map<uint32_t, std::vector<captured>>;

class collector : public record_consumer {
public:
    bool take(size_t /*source*/, const captured &record, uint64_t lost) override
    {
        m_lost += lost;
        m_found[link_of(record).observer].push_back(record);
        return true;
    }
    void end(size_t /*source*/, uint64_t lost) override { m_lost += lost; }

    by_observer &found() { return m_found; }
    uint64_t lost() const { return m_lost; }

private:
    by_observer m_found;
    uint64_t m_lost = 0;
};

/* By number. One that a single file holds twice is left out once: of one that was cut, the longest stays. Others of
 * one number are of two processes. */
void put_in_order(std::vector<captured> &records, uint32_t observer)
{
    const auto number = [](const captured &of) { return of.head.number; };
    std::ranges::stable_sort(records, {}, [](const captured &of) {
        return std::pair(of.head.number, UINT64_MAX - of.message.size());
    });
    records.erase(std::unique(records.begin(), records.end(), is_same_record), records.end());
    const auto twice = std::ranges::adjacent_find(records, {}, number);
    if (twice != records.end()) {
        throw failure{exit_failed, "record " + std::to_string(twice->head.number) +
                                       " is there twice, of two " +
                                       (observer == 0 ? "processes" : "owners of one pid") +
                                       ": give the recordings of one"};
    }
}

/* The oldest first; each observer keeps its own order, be its clock set back or not. */
std::vector<captured> merge(by_observer &&found)
{
    struct queue {
        std::vector<captured> *records;
        size_t next = 0;
    };
    std::vector<queue> queues;
    size_t all = 0;
    for (auto &[observer, records] : found) {
        queues.push_back({&records});
        all += records.size();
    }
    std::vector<captured> out;
    out.reserve(all);
    while (out.size() < all) {
        const auto time = [](const queue &of) {
            return of.next < of.records->size() ? (*of.records)[of.next].time : UINT64_MAX;
        };
        queue &oldest = *std::ranges::min_element(queues, {}, time);
        if (oldest.next == oldest.records->size()) {
            oldest =
                *std::ranges::find_if(queues, [](const queue &of) { return of.next < of.records->size(); });
        }
        out.push_back(std::move((*oldest.records)[oldest.next++]));
    }
    return out;
}

void refuse_cut(const captured &record)
{
    const bool counts = has_arrived(record, flow::to_process) || has_arrived(record, flow::to_owner);
    const reading message = read(record);
    const bool is_told = message.type == L2VPN_AC_MSG_PROV || message.type == L2VPN_AC_MSG_UNPROV;
    if (counts && message.is_cut && (record.head.direction == flow::to_process || is_told)) {
        throw failure{exit_failed, "record " + std::to_string(record.head.number) +
                                       " cannot be played: only " + std::to_string(record.message.size()) +
                                       " of its " + std::to_string(record.head.length) +
                                       " bytes were recorded (snap length)"};
    }
}

} // namespace

play read_play(const command_line &line)
{
    collector all;
    read_recordings(line, all);
    play out;
    out.lost = all.lost();
    by_observer &found = all.found();
    for (auto &[observer, records] : found) {
        put_in_order(records, observer);
    }
    if (const auto process = found.find(0); process != found.end()) {
        out.before = process->second.front().head.number;
        for (const auto &[observer, records] : found) {
            out.left_out += observer == 0 ? 0 : records.size();
        }
        out.records = std::move(process->second);
    } else {
        out.records = merge(std::move(found));
    }
    if (line.recordings.count != 0 && out.records.size() > line.recordings.count) {
        out.records.resize(line.recordings.count);
    }
    std::ranges::for_each(out.records, refuse_cut);
    return out;
}

} // namespace l2vpnctl
