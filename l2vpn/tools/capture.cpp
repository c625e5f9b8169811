/*
 * l2vpnctl capture: records into pcapng files, of a bounded size and number.
 */
#include "command_line.h"
#include "pcapng_writer.h"
#include "recordings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

#ifndef L2VPN_VERSION
#define L2VPN_VERSION "0"
#endif

namespace l2vpnctl {

namespace {

using l2vpn::capture::bad_file;
using l2vpn::capture::pcapng_writer;

constexpr uint64_t mebibyte = uint64_t{1} << 20;

class recorder : public record_consumer {
public:
    explicit recorder(const recording_options &how)
        : m_how(how), m_progress(isatty(STDERR_FILENO) == 1), m_size(how.size_mib * mebibyte)
    {
        /* Found out before anything is waited for. */
        for (uint32_t i = 1; !how.force && i < how.written_files; i++) {
            if (access(name(i).c_str(), F_OK) == 0) {
                refuse(name(i), "there already (--force replaces it)");
            }
        }
        guarded([this] { open(m_how.force); });
    }
    recorder(const recorder &) = delete;
    recorder &operator=(const recorder &) = delete;
    ~recorder() override
    {
        if (m_progress && m_shown) {
            fputc('\n', stderr);
        }
    }

    void begin(const std::vector<std::string> &sources) override
    {
        for (const std::string &source : sources) {
            m_sources.push_back({source, 0, 0});
        }
        guarded([this] { describe_sources(); });
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
        return !m_full && m_total != m_how.count;
    }

    void idle() override
    {
        guarded([this] { m_file->flush(); });
        if (m_progress) {
            fprintf(stderr, "\r%llu records ", static_cast<unsigned long long>(m_total));
            m_shown = true;
        }
    }

    void end(size_t source, uint64_t lost) override
    {
        source_row &of = m_sources[source];
        const uint64_t behind = lost > m_lost_before + of.lost ? lost - m_lost_before - of.lost : 0;
        guarded([&] {
            m_file->add_statistics(static_cast<uint32_t>(source), of.received + behind, of.lost + behind);
            m_file->flush();
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
        m_file = std::make_unique<pcapng_writer>(m_how.write, replace, "l2vpnctl " L2VPN_VERSION);
    }

    void describe_sources()
    {
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
            m_lost_before += m_sources[i].lost;
            m_sources[i].received = m_sources[i].lost = 0;
        }
        m_file->flush();
        m_file.reset();
        for (uint32_t i = m_how.written_files - 1; i > 0; i--) {
            if (rename(name(i - 1).c_str(), name(i).c_str()) != 0 && errno != ENOENT) {
                refuse(name(i), strerror(errno));
            }
        }
        open(true);
        describe_sources();
    }

    const recording_options &m_how;
    std::unique_ptr<pcapng_writer> m_file;
    bool m_progress;
    bool m_shown = false;
    bool m_full = false;
    uint64_t m_size;
    uint64_t m_total = 0;
    uint64_t m_lost_before = 0; /* in files that are full */
    std::vector<source_row> m_sources;
};

} // namespace

void capture(const command_line &line)
{
    recorder out(line.recordings);
    read_recordings(line, out);
}

} // namespace l2vpnctl
