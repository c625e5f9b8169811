/*
 * l2vpnctl capture: records into pcapng files, of a bounded size and number.
 */
#include "command_line.h"
#include "output.h"
#include "pcapng_writer.h"
#include "recordings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace l2vpnctl {

namespace {

using l2vpn::capture::bad_file;
using l2vpn::capture::pcapng_writer;

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint64_t shown_every = 1 << 16; /* and when nothing more is there */

class recorder : public record_consumer {
public:
    explicit recorder(const recording_options &how) : m_how(how), m_size(how.size_mib * mebibyte)
    {
        /* Found out before anything is waited for. */
        for (uint32_t i = 0; i < how.written_files; i++) {
            look_at(name(i), i == 0);
        }
    }

    void begin(const std::vector<std::string> &sources) override
    {
        for (const std::string &source : sources) {
            m_sources.push_back({source, nullptr});
        }
        guarded([this] { open(m_how.force); });
    }

    bool take(size_t source, const captured &record, uint64_t lost) override
    {
        guarded([&] {
            m_sources[source].latest = record.interface;
            const uint32_t number = interface_of(source);
            m_file->add(number, record, lost);
            m_interfaces[number].received += 1 + lost;
            m_interfaces[number].lost += lost;
            m_total++;
            if (m_file->size() >= m_size) {
                rotate();
            }
        });
        m_progress.count();
        return !m_full && m_total != m_how.count;
    }

    void idle() override
    {
        guarded([this] { m_file->place(); });
        m_progress.show();
    }

    void end(size_t source, uint64_t lost) override
    {
        guarded([&] {
            interface_row &latest = m_interfaces[interface_of(source)];
            latest.received += lost;
            latest.lost += lost;
            add_statistics([source](const interface_row &of) { return of.source == source; });
            m_file->place();
        });
    }

private:
    using interface = std::shared_ptr<const std::string>;

    struct source_row {
        std::string name;
        interface latest; /* that a record of it had; a ring's have none */
    };
    struct interface_row {
        size_t source;
        uint64_t received = 0; /* those lost included */
        uint64_t lost = 0;
    };

    [[noreturn]] static void refuse(const std::string &path, const std::string &why)
    {
        throw failure{exit_failed, path + ": " + why};
    }

    /* What may become of the file that is at `path`. Nothing that is to be read is written over, and no ring. */
    void look_at(const std::string &path, bool is_first)
    {
        struct stat there {};
        if (stat(path.c_str(), &there) != 0) {
            return;
        }
        if (!m_how.force) {
            refuse(path, "there already (--force replaces it)");
        }
        if (!S_ISREG(there.st_mode)) {
            if (!is_first) {
                refuse(path, "there already and not a file");
            }
            m_size = UINT64_MAX; /* a pipe or a device: there is nothing to be kept */
            return;
        }
        refuse_to_replace(path, m_how.files);
    }

    std::string name(uint32_t index) const
    {
        return index == 0 ? m_how.write : m_how.write + "." + std::to_string(index);
    }

    template <typename Work>
    void guarded(const Work &work)
    {
        try {
            work();
        } catch (const bad_file &bad) {
            refuse(m_how.write, bad.what());
        }
    }

    void open(bool replace)
    {
        m_file = std::make_unique<pcapng_writer>(m_how.write, replace, "l2vpnctl " L2VPN_VERSION, is_stopped);
        m_interfaces.clear();
        m_numbers.clear();
        if (m_how.files.empty()) {
            interface_of(0); /* of the process that is followed, be it silent */
        }
        m_file->flush();
    }

    /* Where records of the source go that are as its latest. One that was read from a file keeps the name that it has
     * there: it says whose they are. */
    uint32_t interface_of(size_t source)
    {
        const source_row &of = m_sources[source];
        const auto [place, is_new] = m_numbers.try_emplace({source, of.latest}, 0);
        if (is_new) {
            place->second = m_file->add_interface(of.latest ? *of.latest : of.name);
            m_interfaces.push_back({source});
        }
        return place->second;
    }

    template <typename Wanted>
    void add_statistics(const Wanted &wanted)
    {
        for (uint32_t i = 0; i < m_interfaces.size(); i++) {
            if (wanted(m_interfaces[i])) {
                m_file->add_statistics(i, m_interfaces[i].received, m_interfaces[i].lost);
            }
        }
    }

    /* The present file gets the number 1, the others the next one; the oldest goes. */
    void rotate()
    {
        m_full = m_how.written_files == 1;
        if (m_full) {
            return;
        }
        add_statistics([](const interface_row &) { return true; });
        m_file->place();
        m_file.reset();
        for (uint32_t i = m_how.written_files - 1; i > 0; i--) {
            if (rename(name(i - 1).c_str(), name(i).c_str()) != 0 && errno != ENOENT) {
                refuse(name(i), strerror(errno));
            }
        }
        open(false);
    }

    const recording_options &m_how;
    std::unique_ptr<pcapng_writer> m_file;
    record_progress m_progress{shown_every};
    bool m_full = false;
    uint64_t m_size;
    uint64_t m_total = 0;
    std::vector<source_row> m_sources;
    std::vector<interface_row> m_interfaces; /* of the present file */
    std::map<std::pair<size_t, interface>, uint32_t> m_numbers;
};

} // namespace

void capture(const command_line &line)
{
    recorder out(line.recordings);
    read_recordings(line, out);
}

} // namespace l2vpnctl
