#include "recordings.h"

#include "command_line.h"
#include "pcapng_reader.h"
#include "ring_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sys/stat.h>

namespace l2vpnctl {

namespace {

using l2vpn::capture::bad_file;
using l2vpn::capture::ring_reader;

constexpr int look_again_ms = 20;

volatile sig_atomic_t s_stopped = 0;

void on_signal(int)
{
    s_stopped = 1;
}

[[noreturn]] void refuse(const std::string &path, const std::string &why)
{
    throw failure{exit_failed, path + ": " + why};
}

/* Gives the records of one ring by number, with what is missing before each. Threads that record at the same
 * moment swap places: a gap counts only when much has come behind it, or nothing for a while. */
class source {
public:
    source(const std::string &path, bool history) : m_ring(path), m_started(history)
    {
        if (!history) {
            m_ring.skip();
        }
    }

    std::string name() const { return m_ring.process() + "-" + std::to_string(m_ring.pid()); }
    bool ended() const { return m_ring.writer_ended(); }

    /* Takes what is new. With `is_last`, nothing is waited for any more. */
    void look(bool is_last)
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

    /* The record to be given next, if there is one by now. */
    const captured *next() const
    {
        const bool due = !m_waiting.empty() && (m_is_last || missing() == 0 || m_waiting.size() > window ||
                                                m_looks > patient_looks);
        return due ? &m_waiting.begin()->second : nullptr;
    }
    bool give(size_t index, record_consumer &to)
    {
        const uint64_t lost = missing();
        const bool wanted = to.take(index, m_waiting.begin()->second, lost);
        m_told += lost;
        m_started = true;
        m_next = std::max(m_next, m_waiting.begin()->first + 1);
        m_waiting.erase(m_waiting.begin());
        m_looks = 0;
        return wanted;
    }

    /* Behind what was given, when everything was. */
    uint64_t lost_at_end() const { return m_ring.lost() - std::min(m_ring.lost(), m_told); }

private:
    static constexpr size_t window = 64;
    static constexpr int patient_looks = 5;

    uint64_t missing() const
    {
        const uint64_t number = m_waiting.begin()->first;
        return m_started && number > m_next ? number - m_next : 0;
    }

    ring_reader m_ring;
    bool m_started; /* a number is expected */
    uint64_t m_next = 0;
    uint64_t m_told = 0; /* that were said to be missing */
    int m_looks = 0;     /* that found some waiting, since one was given */
    bool m_is_last = false;
    std::multimap<uint64_t, captured> m_waiting;
};

void follow(const command_line &line, const std::string &path, record_consumer &to)
{
    source from(path, line.recordings.history);
    stop_on_signals();
    to.begin({from.name()});
    bool wanted = true;
    bool ended = false;
    for (bool is_last = false; wanted && !is_last;) {
        ended = from.ended();
        is_last = ended || s_stopped != 0;
        from.look(is_last);
        while (wanted && from.next() != nullptr) {
            wanted = from.give(0, to);
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

/* The one whose next record is the oldest; each keeps its own order, be its clock set back or not. */
size_t oldest_of(const std::vector<std::unique_ptr<source>> &sources)
{
    size_t found = sources.size();
    for (size_t i = 0; i < sources.size(); i++) {
        const captured *next = sources[i]->next();
        if (next != nullptr && (found == sources.size() || next->time < sources[found]->next()->time)) {
            found = i;
        }
    }
    return found;
}

void read_rings(const std::vector<std::string> &paths, record_consumer &to)
{
    std::vector<std::unique_ptr<source>> sources;
    std::vector<std::string> names;
    for (const std::string &path : paths) {
        try {
            sources.push_back(std::make_unique<source>(path, true));
            sources.back()->look(true);
        } catch (const bad_file &bad) {
            refuse(path, bad.what());
        }
        names.push_back(sources.back()->name());
    }
    stop_on_signals();
    to.begin(names);
    bool wanted = true;
    while (wanted && s_stopped == 0) {
        const size_t index = oldest_of(sources);
        if (index == sources.size()) {
            break;
        }
        wanted = sources[index]->give(index, to);
    }
    wanted = wanted && s_stopped == 0;
    for (size_t i = 0; i < sources.size(); i++) {
        to.end(i, wanted ? sources[i]->lost_at_end() : 0);
    }
}

void read_pcapng_file(const std::string &path, record_consumer &to)
{
    std::ifstream file(path, std::ios::binary);
    stop_on_signals();
    to.begin({path.substr(path.rfind('/') + 1)});
    try {
        const auto summary = l2vpn::capture::read_pcapng(
            file, [&](const captured &record) { return to.take(0, record, 0) && s_stopped == 0; });
        to.end(0, summary.lost);
        if (!summary.ends_early.empty()) {
            refuse(path, summary.ends_early);
        }
        if (summary.damaged + summary.foreign > 0) {
            refuse(path, std::to_string(summary.damaged) + " packets are damaged, " +
                             std::to_string(summary.foreign) + " are of another link type");
        }
    } catch (const bad_file &bad) {
        refuse(path, bad.what());
    }
}

} // namespace

/* Without SA_RESTART: whatever waits is woken. */
void stop_on_signals()
{
    struct sigaction action {};
    action.sa_handler = on_signal;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
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

bool is_ring(const std::string &path)
{
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
    const std::vector<std::string> &files = line.recordings.files;
    if (files.empty()) {
        follow_process(line, to);
    } else if (files.size() == 1 && !is_ring(files[0])) {
        read_pcapng_file(files[0], to);
    } else {
        read_rings(files, to);
    }
}

} // namespace l2vpnctl
