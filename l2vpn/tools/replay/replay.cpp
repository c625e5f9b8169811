#include "replay.h"

#include "account.h"
#include "cells.h"
#include "command_line.h"
#include "output.h"
#include "player.h"
#include "throw_away.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace l2vpnctl {

namespace {

using namespace l2vpn::capture;
using clock = std::chrono::steady_clock;

constexpr size_t shown_differences = 20;
constexpr double longest_wait_ns = 1e18; /* what a clock has room for, and more than anybody waits */

struct outcome {
    bool has_ended = false; /* the process, before it was asked: nothing is known of what it held */
    tables found;
    std::vector<difference> differences;
    uint64_t links = 0;
};

/* What --bisect found. */
struct culprit {
    size_t index;   /* of the record */
    bool is_steady; /* played once more, it makes a difference again */
};

class replayer {
public:
    explicit replayer(const command_line &line) : m_line(line), m_how(line.replay), m_play(read_play(line))
    {
        for (const std::string &file : m_how.against) {
            l2vpnctl::read_tables(file, has_owners(), m_reference);
        }
    }
    replayer(const replayer &) = delete;
    replayer &operator=(const replayer &) = delete;

    bool run()
    {
        const outcome all = play_all();
        std::optional<culprit> first;
        if (m_how.bisect && !all.differences.empty()) {
            first = find_first();
        }
        m_progress.clear();
        m_line.as_json ? tell_programs(all, first) : tell_people(all, first);
        flush_out();
        return all.differences.empty();
    }

private:
    const std::vector<captured> &records() const { return m_play.records; }

    /* The process's records have its own numbers of owners, which are those that were shown then. */
    bool has_owners() const
    {
        return std::ranges::all_of(records(), [](const captured &one) { return link_of(one).observer == 0; });
    }

    void play_one(player &to, size_t index, clock::time_point began, double speed)
    {
        if (speed > 0) {
            const double ns = static_cast<double>(records()[index].time -
                                                  std::min(records()[index].time, records()[0].time));
            const auto due =
                began + std::chrono::duration_cast<clock::duration>(
                            std::chrono::duration<double, std::nano>(std::min(ns / speed, longest_wait_ns)));
            for (auto left = due - clock::now(); left.count() > 0; left = due - clock::now()) {
                to.wait(std::min(std::chrono::ceil<std::chrono::milliseconds>(left),
                                 std::chrono::milliseconds(50)));
                stop_if_told();
                if (!to.surprises().empty()) {
                    break;
                }
            }
        }
        to.take(records()[index]);
    }

    static void stop_if_told()
    {
        if (is_stopped()) {
            throw failure{exit_broken, "interrupted"};
        }
    }

    outcome play_into(player &to, size_t count, double speed, const std::string &what)
    {
        const auto began = clock::now();
        account told;
        for (size_t i = 0; i < count; i++) {
            stop_if_told();
            play_one(to, i, began, speed);
            told.take(records()[i]);
            m_progress.tell(what + std::to_string((i + 1) * 100 / count) + " %");
        }
        outcome out;
        out.found = to.read_tables();
        tables expected = m_how.against.empty() ? told.result() : m_reference;
        out.differences = to.surprises();
        std::ranges::copy(compare(expected, has_owners() ? out.found : without_owners(out.found)),
                          std::back_inserter(out.differences));
        out.links = to.links();
        return out;
    }

    /* As far as it makes a difference: what messages say names owners, whatever numbers they have. */
    tables without_owners(const tables &from) const
    {
        if (m_how.against.empty()) {
            return from;
        }
        tables out;
        for (size_t i = 0; i < table_count; i++) {
            out.of[i].emplace();
            for (const auto &[key, row] : *from.of[i]) {
                json bare = row;
                bare.erase("owner");
                out.add(i, std::move(bare));
            }
        }
        return out;
    }

    outcome play_prefix(size_t count, double speed, const std::string &what)
    {
        throw_away process(m_how, m_line.patience);
        std::optional<player> to;
        try {
            to.emplace(process.control(), records(), m_line.patience);
            return play_into(*to, count, speed, what);
        } catch (const failure &) {
            if (is_stopped() || process.ended_by_now().empty()) {
                throw;
            }
            outcome out;
            out.has_ended = true;
            out.differences.push_back({nullptr, "l2vpnd " + process.ended(), nullptr, nullptr});
            return out;
        }
    }

    outcome play_all()
    {
        if (!m_how.running) {
            return play_prefix(records().size(), m_how.speed, "replayed ");
        }
        player to(control_path(m_line.runtime_dir), records(), m_line.patience);
        to.refuse_collisions(records());
        return play_into(to, records().size(), m_how.speed, "replayed ");
    }

    /* Before it all was the same, behind it something differed. */
    culprit find_first()
    {
        size_t same = 0;
        size_t differs = records().size();
        while (differs - same > 1) {
            const size_t middle = same + (differs - same) / 2;
            const std::string what = "between record " + std::to_string(same + 1) + " and " +
                                     std::to_string(differs) + ": replayed ";
            (play_prefix(middle, 0, what).differences.empty() ? same : differs) = middle;
        }
        const std::string again = "record " + std::to_string(differs) + " again: replayed ";
        return {differs - 1, !play_prefix(differs, 0, again).differences.empty()};
    }

    /* Of a capture that does not tell all, for people. */
    std::vector<std::string> warnings() const
    {
        std::vector<std::string> out;
        if (m_play.lost > 0) {
            out.push_back(count_of(m_play.lost, "record is", "records are") +
                          " missing in the capture: what they did is not told");
        }
        if (m_play.before > 0 && m_play.lost == 0) {
            out.push_back("the capture begins with record " + std::to_string(m_play.before) +
                          " of the process: what was before is not told");
        }
        if (m_play.left_out > 0) {
            out.push_back(count_of(m_play.left_out, "record", "records") +
                          " of owners left out: the process's tell the same");
        }
        return out;
    }

    void tell_people(const outcome &all, const std::optional<culprit> &first) const
    {
        std::string out;
        for (const std::string &warning : warnings()) {
            out += "(" + warning + ")\n";
        }
        out += count_of(records().size(), "record", "records") +
               (all.has_ended
                    ? " were to be replayed\n"
                    : " of " + count_of(all.links, "link", "links") +
                          " replayed: " + count_of(all.found.count(0), "AC", "ACs") + ", " +
                          count_of(all.found.count(1), "spanning-tree record", "spanning-tree records") +
                          ", " + count_of(all.found.count(2), "open batch", "open batches") + "\n");
        for (size_t i = 0; i < std::min(all.differences.size(), shown_differences); i++) {
            out += all.differences[i].text + "\n";
        }
        if (all.differences.size() > shown_differences) {
            out += "and " + std::to_string(all.differences.size() - shown_differences) +
                   " more (--json has all)\n";
        }
        out += all.differences.empty() ? "the tables are the same\n"
                                       : count_of(all.differences.size(), "difference", "differences") + "\n";
        if (first) {
            const captured &record = records()[first->index];
            out += "a record that makes one, number " + std::to_string(record.head.number) + ":\n" +
                   to_lines(record, read(record), detail::none, false);
            out += first->is_steady
                       ? ""
                       : "(played once more up to it, nothing differed: it is not so each time)\n";
        }
        write_out(out);
    }

    void tell_programs(const outcome &all, const std::optional<culprit> &first) const
    {
        json differences = json::array();
        for (const difference &one : all.differences) {
            differences.push_back({{"table", one.table == nullptr ? json() : json(one.table)},
                                   {"text", one.text},
                                   {"expected", one.expected},
                                   {"found", one.found}});
        }
        const auto known = [&all](uint64_t count) { return all.has_ended ? json() : json(count); };
        json out = {{"same", all.differences.empty()},
                    {"records", records().size()},
                    {"links", known(all.links)},
                    {"lost", m_play.lost},
                    {"before", m_play.before},
                    {"left_out", m_play.left_out},
                    {"acs", known(all.found.count(0))},
                    {"mstp", known(all.found.count(1))},
                    {"batches", known(all.found.count(2))},
                    {"differences", std::move(differences)}};
        if (first) {
            const captured &record = records()[first->index];
            out["first"] = describe(record, read(record), detail::records);
            out["steady"] = first->is_steady;
        }
        write_out(out.dump(2) + "\n");
    }

    const command_line &m_line;
    const replay_options &m_how;
    const play m_play;
    tables m_reference;
    progress_line m_progress;
};

} // namespace

/* Status 1 says that tables differ, and nothing else. */
void replay(const command_line &line)
{
    bool same = false;
    try {
        same = replayer(line).run();
    } catch (const failure &why) {
        if (is_stopped()) { /* which is why something waited in vain */
            throw failure{exit_broken, "interrupted"};
        }
        throw failure{why.status == exit_failed ? exit_broken : why.status, why.text};
    } catch (const std::exception &error) {
        throw failure{exit_broken, error.what()};
    }
    if (!same) {
        throw failure{exit_failed, ""};
    }
}

} // namespace l2vpnctl
