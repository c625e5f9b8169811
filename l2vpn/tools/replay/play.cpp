#include "play.h"

#include "command_line.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnctl {

namespace {

using namespace l2vpn::capture;

struct recording {
    std::vector<captured> records;
    uint64_t first = UINT64_MAX; /* the lowest number */
    uint64_t before = 0;         /* records that are said to be missing before it */
};

/* Of each observer, by its pid or, the process's, 0. */
using by_observer = std::map<uint32_t, recording>;

class collector : public record_consumer {
public:
    bool take(size_t /*source*/, const captured &record, uint64_t lost) override
    {
        recording &of = m_found[link_of(record).observer];
        const uint64_t number = record.head.number;
        if (number <= of.first) {
            of.before = std::max(number < of.first ? 0 : of.before, std::min(lost, number));
            of.first = number;
        }
        of.records.push_back(record);
        return true;
    }
    void end(size_t /*source*/, uint64_t lost) override { m_lost_at_end += lost; }

    by_observer &found() { return m_found; }
    uint64_t lost_at_end() const { return m_lost_at_end; }

private:
    by_observer m_found;
    uint64_t m_lost_at_end = 0;
};

/* In order. What a file says of gaps, it says again where it holds them twice; the numbers do not. */
uint64_t lost_of(const recording &of)
{
    return of.before + (of.records.back().head.number - of.first - (of.records.size() - 1));
}

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
    for (auto &[observer, of] : found) {
        queues.push_back({&of.records});
        all += of.records.size();
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
    out.lost = all.lost_at_end();
    by_observer &found = all.found();
    const bool has_process = found.contains(0);
    for (auto &[observer, of] : found) {
        put_in_order(of.records, observer);
        const bool is_played = !has_process || observer == 0;
        out.lost += is_played ? lost_of(of) : 0;
        out.left_out += is_played ? 0 : of.records.size();
    }
    if (has_process) {
        out.before = found[0].first;
        out.records = std::move(found[0].records);
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
