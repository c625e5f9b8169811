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
            m_sources.push_back({source, 0, 0});
        }
        guarded([this] { open(m_how.force); });
    }

    bool take(size_t source, const captured &record, uint64_t lost) override
    {
        guarded([&] {
            m_file->add(static_cast<uint32_t>(source), record, lost);
            m_sources[source].received += 1 + lost;
            m_sources[source].lost += lost;
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
        const source_row &of = m_sources[source];
        guarded([&] {
            m_file->add_statistics(static_cast<uint32_t>(source), of.received + lost, of.lost + lost);
            m_file->place();
        });
    }

private:
    struct source_row {
        std::string name;
        uint64_t received; /* in the present file, those lost included */
        uint64_t lost;
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
        for (const source_row &source : m_sources) {
            m_file->add_interface(source.name);
        }
        m_file->flush();
    }

    /* The present file gets the number 1, the others the next one; the oldest goes. */
    void rotate()
    {
        m_full = m_how.written_files == 1;
        if (m_full) {
            return;
        }
        for (uint32_t i = 0; i < m_sources.size(); i++) {
            m_file->add_statistics(i, m_sources[i].received, m_sources[i].lost);
            m_sources[i].received = m_sources[i].lost = 0;
        }
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
};

} // namespace

void capture(const command_line &line)
{
    recorder out(line.recordings);
    read_recordings(line, out);
}

} // namespace l2vpnctl
