#include "recordings.h"

#include "command_line.h"
#include "pcapng_reader.h"
#include "ring_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <poll.h>
#include <tuple>

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

/* Without SA_RESTART: whatever waits is woken. */
void stop_on_signals()
{
    struct sigaction action {};
    action.sa_handler = on_signal;
    for (const int number : {SIGINT, SIGTERM}) {
        sigaction(number, &action, nullptr);
    }
}

[[noreturn]] void refuse(const std::string &path, const std::string &why)
{
    throw failure{exit_failed, path + ": " + why};
}

std::string name_of(const ring_reader &ring)
{
    return ring.process() + "-" + std::to_string(ring.pid());
}

/* The records of one source in the order of their numbers: what is missing before each. */
class gap_counter {
public:
    explicit gap_counter(bool from_zero) : m_started(from_zero) {}
    uint64_t before(const captured &record)
    {
        const uint64_t number = record.head.number;
        const uint64_t missing = m_started && number > m_next ? number - m_next : 0;
        m_started = true;
        m_next = std::max(m_next, number + 1);
        return missing;
    }

private:
    bool m_started;
    uint64_t m_next = 0;
};

void follow(const command_line &line, const std::string &path, record_consumer &to)
{
    ring_reader ring(path);
    if (!line.recordings.history) {
        ring.skip();
    }
    stop_on_signals();
    to.begin({name_of(ring)});
    gap_counter gaps(line.recordings.history);
    bool wanted = true;
    bool ended = false;
    while (wanted && !ended && s_stopped == 0) {
        ended = ring.writer_ended();
        std::vector<captured> records;
        ring.read(records);
        for (size_t i = 0; wanted && i < records.size(); i++) {
            wanted = to.take(0, records[i], gaps.before(records[i]));
        }
        to.idle();
        if (wanted && !ended) {
            poll(nullptr, 0, look_again_ms);
        }
    }
    to.end(0, ring.lost());
    if (wanted && ended) {
        throw failure{exit_broken, "the process that was followed has ended: " + name_of(ring)};
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

void read_rings(const std::vector<std::string> &paths, record_consumer &to)
{
    struct from_ring {
        size_t source;
        captured record;
    };
    std::vector<std::unique_ptr<ring_reader>> rings;
    std::vector<std::string> names;
    std::vector<from_ring> all;
    for (const std::string &path : paths) {
        try {
            rings.push_back(std::make_unique<ring_reader>(path));
            std::vector<captured> records;
            rings.back()->read(records);
            for (captured &record : records) {
                all.push_back({names.size(), std::move(record)});
            }
        } catch (const bad_file &bad) {
            refuse(path, bad.what());
        }
        names.push_back(name_of(*rings.back()));
    }
    std::stable_sort(all.begin(), all.end(), [](const from_ring &a, const from_ring &b) {
        return std::tie(a.record.time, a.source) < std::tie(b.record.time, b.source);
    });
    to.begin(names);
    std::vector<gap_counter> gaps(rings.size(), gap_counter(true));
    bool wanted = true;
    for (size_t i = 0; wanted && i < all.size(); i++) {
        wanted = to.take(all[i].source, all[i].record, gaps[all[i].source].before(all[i].record));
    }
    for (size_t i = 0; i < rings.size(); i++) {
        to.end(i, rings[i]->lost());
    }
}

void read_pcapng_file(const std::string &path, record_consumer &to)
{
    std::ifstream file(path, std::ios::binary);
    to.begin({path.substr(path.rfind('/') + 1)});
    try {
        bool wanted = true;
        const auto summary = l2vpn::capture::read_pcapng(
            file, [&](const captured &record) { wanted = wanted && to.take(0, record, 0); });
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
