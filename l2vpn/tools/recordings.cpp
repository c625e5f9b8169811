#include "recordings.h"

#include "command_line.h"
#include "recording_source.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace l2vpnctl {

namespace {

using l2vpn::capture::bad_file;

constexpr int look_again_ms = 20;
constexpr uint64_t a_moment = 1'000'000'000; /* nanoseconds */

volatile sig_atomic_t s_stopped = 0;

/* And again: it may come just before a call that waits. */
void on_signal(int)
{
    s_stopped = 1;
    alarm(1);
}

[[noreturn]] void refuse(const std::string &path, const std::string &why)
{
    throw failure{exit_failed, path + ": " + why};
}

void follow(const command_line &line, const std::string &path, record_consumer &to)
{
    ring_source from(path, line.recordings.history);
    stop_on_signals();
    to.begin({from.name()});
    bool wanted = true;
    bool ended = false;
    for (bool is_last = false; wanted && !is_last;) {
        ended = from.ended();
        is_last = ended || s_stopped != 0;
        from.look(is_last);
        while (wanted && from.next() != nullptr) {
            wanted = from.give(0, to, from.missing());
        }
        to.idle();
        if (wanted && !is_last) {
            poll(nullptr, 0, look_again_ms);
        }
    }
    to.end(0, wanted ? from.lost_at_end() : 0);
    if (wanted && ended) {
        throw failure{exit_broken, "the process that was followed has ended: " + from.name()};
    }
}

void follow_process(const command_line &line, record_consumer &to)
{
    std::string path;
    {
        control_link link(control_path(line.runtime_dir), line.patience);
        path = link.ask("status", json::object(), [](const json &) {}).value("capture", "");
    }
    if (path.empty()) {
        throw failure{exit_failed,
                      "the process keeps no ring of its messages: it was started with --capture off, "
                      "or could not make one"};
    }
    try {
        follow(line, path, to);
    } catch (const bad_file &bad) {
        refuse(path, bad.what());
    }
}

struct opened_file {
    std::string path;
    std::unique_ptr<record_source> source;
    uint64_t latest = 0;             /* which of all records it had last, counted from 1 on */
    std::vector<size_t> beside = {}; /* the files that have that one */

    const captured *next() const
    {
        try {
            return source->next();
        } catch (const bad_file &bad) {
            refuse(path, bad.what());
        }
    }
};

opened_file open_file(const std::string &path)
{
    opened_file made{path, nullptr};
    if (!is_ring(path)) {
        made.source = std::make_unique<pcapng_source>(path);
        return made;
    }
    try {
        auto ring = std::make_unique<ring_source>(path, true);
        ring->look(true);
        made.source = std::move(ring);
    } catch (const bad_file &bad) {
        refuse(path, bad.what());
    }
    return made;
}

/* What comes next: the oldest, and of the same one in several files the longest; of those, one that has given before
 * and so knows what is missing. Each file keeps its own order, be its clock set back or not. */
bool comes_before(const opened_file &one, const opened_file &other)
{
    const auto rank = [](const opened_file &of) {
        const captured &next = *of.next();
        return std::tuple(next.time, next.head.number, UINT64_MAX - next.message.size(), of.latest == 0);
    };
    return rank(one) < rank(other);
}

/* One part of a capture begins where another ends, with records of the same moment, and one that was late is in the
 * next: there the numbers say which was first. */
bool must_wait(const opened_file &part, const opened_file &before)
{
    if (before.next() == nullptr || part.next()->time >= before.next()->time) {
        return false;
    }
    return part.latest == 0 ? before.latest > 0 && are_neighbours(*before.next(), *part.next())
                            : part.source->misses(*before.next());
}

/* Whoever waits does so for a lower number: not all of them do. */
std::optional<size_t> find_next(const std::vector<opened_file> &files)
{
    std::optional<size_t> found;
    for (size_t i = 0; i < files.size(); i++) {
        const opened_file &file = files[i];
        if (file.next() == nullptr || (found && !comes_before(file, files[*found]))) {
            continue;
        }
        const auto is_due = [&file](const opened_file &before) { return must_wait(file, before); };
        const bool may_wait = file.latest == 0 || file.source->missing() > 0;
        if (!may_wait || std::ranges::none_of(files, is_due)) {
            found = i;
        }
    }
    return found;
}

/* Where others have the same record, too, it is given once. What all of them miss is missing before it; whoever begins
 * with it does not know what was before. */
bool give_next(std::vector<opened_file> &files, size_t index, uint64_t number, record_consumer &to)
{
    const captured &record = *files[index].next();
    std::vector<size_t> holders;
    std::optional<uint64_t> least;
    uint64_t at_beginnings = 0;
    for (size_t i = 0; i < files.size(); i++) {
        const captured *next = files[i].next();
        if (next == nullptr) {
            continue;
        }
        if (!is_same_record(*next, record)) {
            if (files[i].source->misses(record)) {
                files[i].source->note_found();
            }
            continue;
        }
        const uint64_t missing = files[i].source->missing();
        if (files[i].latest > 0) {
            least = std::min(least.value_or(missing), missing);
        } else {
            at_beginnings = std::max(at_beginnings, missing);
        }
        holders.push_back(i);
    }
    for (const size_t i : holders) {
        files[i].latest = number;
        files[i].beside = holders;
        if (i != index) {
            files[i].source->pass();
        }
    }
    return files[index].source->give(index, to, least.value_or(at_beginnings));
}

/* Of files that end with the same record, one tells what is missing then: whichever misses most. Where another goes
 * on, that one has it, or says itself that it is missing. */
uint64_t lost_at_end(const std::vector<opened_file> &files, size_t index)
{
    const uint64_t lost = files[index].source->lost_at_end();
    const bool is_told = std::ranges::any_of(files[index].beside, [&](size_t other) {
        const uint64_t also = files[other].source->lost_at_end();
        return files[other].latest > files[index].latest || also > lost || (also == lost && other < index);
    });
    return is_told ? 0 : lost;
}

void read_files(const std::vector<std::string> &paths, record_consumer &to)
{
    std::vector<opened_file> files;
    std::vector<std::string> names;
    for (const std::string &path : distinct(paths)) {
        files.push_back(open_file(path));
        static_cast<void>(files.back().next()); /* or nothing can be read of it */
        names.push_back(files.back().source->name());
    }
    stop_on_signals();
    to.begin(names);
    bool wanted = true;
    for (uint64_t number = 1; wanted && s_stopped == 0; number++) {
        const std::optional<size_t> index = find_next(files);
        if (!index) {
            break;
        }
        wanted = give_next(files, *index, number, to);
    }
    wanted = wanted && s_stopped == 0;
    for (size_t i = 0; i < files.size(); i++) {
        to.end(i, wanted ? lost_at_end(files, i) : 0);
    }
    std::string faults;
    for (const opened_file &file : files) {
        if (const std::string fault = file.source->fault(); !fault.empty()) {
            faults += (faults.empty() ? "" : "; ") + file.path + ": " + fault;
        }
    }
    if (!faults.empty()) {
        throw failure{exit_failed, faults};
    }
}

} // namespace

/* Without SA_RESTART: whatever waits is woken. */
void stop_on_signals(std::initializer_list<int> numbers)
{
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(SIGALRM, &action, nullptr);
    for (const int number : numbers) {
        struct sigaction before {};
        sigaction(number, nullptr, &before);
        if (number != SIGHUP || before.sa_handler != SIG_IGN) { /* as nohup has it */
            sigaction(number, &action, nullptr);
        }
    }
}

bool is_stopped()
{
    return s_stopped != 0;
}

std::vector<std::string> distinct(const std::vector<std::string> &paths)
{
    std::set<std::pair<dev_t, ino_t>> known;
    std::vector<std::string> out;
    for (const std::string &path : paths) {
        struct stat about {};
        if (stat(path.c_str(), &about) != 0 || known.emplace(about.st_dev, about.st_ino).second) {
            out.push_back(path); /* whoever reads one that is not there will say so */
        }
    }
    return out;
}

bool has_same_observer(const captured &one, const captured &other)
{
    return one.head.by == other.head.by &&
           (one.head.by == l2vpn::capture::observer::process || one.head.pid == other.head.pid);
}

bool are_neighbours(const captured &before, const captured &after)
{
    const uint64_t apart = std::max(before.time, after.time) - std::min(before.time, after.time);
    return before.interface && after.interface && !before.interface->empty() &&
           *before.interface == *after.interface && has_same_observer(before, after) &&
           before.head.number < after.head.number &&
           after.head.number - before.head.number <= overtaken_most && apart < a_moment;
}

bool is_same_record(const captured &one, const captured &other)
{
    const size_t both = std::min(one.message.size(), other.message.size());
    return one.time == other.time && one.head == other.head &&
           std::equal(one.message.begin(), one.message.begin() + static_cast<ptrdiff_t>(both),
                      other.message.begin());
}

bool is_ring(const std::string &path)
{
    struct stat about {};
    if (stat(path.c_str(), &about) == 0 && !S_ISREG(about.st_mode) && !S_ISDIR(about.st_mode)) {
        refuse(path, "not a file, and cannot be read more than once: write what comes from it to one");
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::array<char, l2vpn::capture::ring_magic.size()> magic{};
    if (!file) {
        refuse(path, strerror(errno));
    }
    file.read(magic.data(), magic.size());
    if (file.bad()) {
        refuse(path, strerror(errno));
    }
    return magic == l2vpn::capture::ring_magic;
}

void refuse_to_replace(const std::string &path, const std::vector<std::string> &read)
{
    struct stat there {};
    if (stat(path.c_str(), &there) != 0 || !S_ISREG(there.st_mode)) {
        return;
    }
    for (const std::string &source : read) {
        struct stat one {};
        if (stat(source.c_str(), &one) == 0 && one.st_dev == there.st_dev && one.st_ino == there.st_ino) {
            refuse(path, "is to be read, and cannot be written at the same time");
        }
    }
    if (is_ring(path)) {
        refuse(path, "a capture ring, which is not replaced");
    }
}

void read_recordings(const command_line &line, record_consumer &to)
{
    if (line.recordings.files.empty()) {
        follow_process(line, to);
    } else {
        read_files(line.recordings.files, to);
    }
}

} // namespace l2vpnctl
