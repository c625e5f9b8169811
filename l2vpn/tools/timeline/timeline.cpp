#include "timeline.h"

#include "command_line.h"
#include "output.h"
#include "pcapng_writer.h"
#include "story.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vpnctl {

namespace {

constexpr uint64_t progress_records = 1000;

/* Under a name of its own until it is whole. What is no regular file (a pipe, a device) is written as it is. */
class page_file {
public:
    page_file(std::string path, bool replace, const std::vector<std::string> &read)
        : m_path(std::move(path)), m_replace(replace)
    {
        struct stat there {};
        const bool exists = stat(m_path.c_str(), &there) == 0;
        if (exists && !replace) {
            refuse("there already (--force replaces it)");
        }
        refuse_to_replace(m_path, read);
        if (!exists || S_ISREG(there.st_mode)) {
            m_temporary = m_path + ".XXXXXX";
        }
        const int file = m_temporary.empty() ? open(m_path.c_str(), O_WRONLY | O_CLOEXEC)
                                             : mkostemp(m_temporary.data(), O_CLOEXEC);
        m_file = file < 0 ? nullptr : fdopen(file, "w");
        if (m_file == nullptr) {
            m_temporary.clear();
            refuse(strerror(errno));
        }
    }
    ~page_file()
    {
        if (m_file != nullptr) {
            fclose(m_file);
        }
        if (!m_temporary.empty()) {
            unlink(m_temporary.c_str());
        }
    }
    page_file(const page_file &) = delete;
    page_file &operator=(const page_file &) = delete;

    void write(std::string_view text)
    {
        if (fwrite(text.data(), 1, text.size(), m_file) != text.size()) {
            refuse(strerror(errno));
        }
    }
    /* Data of the page's own, which no text of a message gets out of. */
    void write_part(const std::string &id, std::string_view content)
    {
        write("<script type=\"text/plain\" id=\"" + id + "\">");
        write(content);
        write("</script>\n");
    }
    void place()
    {
        if (fclose(std::exchange(m_file, nullptr)) != 0) {
            refuse(strerror(errno));
        }
        if (!m_temporary.empty()) {
            if (!l2vpn::capture::give_name(m_temporary, m_path, m_replace)) {
                refuse(errno == EEXIST ? "there already (--force replaces it)" : strerror(errno));
            }
            m_temporary.clear();
        }
    }

private:
    [[noreturn]] void refuse(const std::string &why) const
    {
        throw failure{exit_failed, m_path + ": " + why};
    }

    std::string m_path;
    bool m_replace;
    std::string m_temporary;
    FILE *m_file = nullptr;
};

class teller : public record_consumer {
public:
    explicit teller(const command_line &line)
        : m_file(line.timeline.write, line.timeline.force, line.recordings.files),
          m_story([this](const std::string &part) {
              m_file.write_part("part" + std::to_string(m_parts++), part);
          })
    {
        m_file.write(page_head);
    }

    bool take(size_t source, const captured &record, uint64_t lost) override
    {
        m_story.take(source, record, lost);
        m_progress.count();
        return true;
    }
    void end(size_t /*source*/, uint64_t lost) override { m_lost += lost; }

    bool has_records() const { return m_story.records() > 0; }
    void finish(const std::string &title)
    {
        for (const auto &[name, content] : m_story.finish(title, m_lost)) {
            m_file.write_part(name, base64(deflated(content)));
        }
        m_file.write(page_tail);
        m_file.place();
    }

private:
    page_file m_file;
    uint64_t m_parts = 0;
    story m_story;
    record_progress m_progress{progress_records};
    uint64_t m_lost = 0;
};

std::string title_of(const std::vector<std::string> &files)
{
    const std::string &first = files.front();
    return first.substr(first.rfind('/') + 1) +
           (files.size() == 1 ? "" : " and " + std::to_string(files.size() - 1) + " more");
}

/* A file that breaks off has its page, too, and its line. */
} // namespace

void timeline(const command_line &line)
{
    stop_on_signals();
    teller page(line);
    std::exception_ptr broken;
    try {
        read_recordings(line, page);
    } catch (const failure &) {
        broken = std::current_exception();
    }
    if (is_stopped()) {
        throw failure{exit_failed, "interrupted"};
    }
    if (!broken || page.has_records()) {
        page.finish(title_of(line.recordings.files));
    }
    if (broken) {
        std::rethrow_exception(broken);
    }
}

} // namespace l2vpnctl
