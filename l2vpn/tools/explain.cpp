/*
 * l2vpnctl explain: what happened to one AC, from the tables of the process and from what was recorded.
 *
 * The recordings are read twice: first for which ACs are meant, then for what happened to the one. So of files it
 * keeps no more than its answer; a ring is in memory while it is read. The process has the last word; what it does
 * not hold any more is followed once again, because its end may just have been recorded.
 */
#include "explain.h"

#include "chain.h"
#include "command_line.h"
#include "finder.h"
#include "number.h"
#include "output.h"
#include "ring_reader.h"
#include "survey.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/resource.h>

namespace l2vpnctl {

namespace {

using namespace l2vpn::capture;
namespace fs = std::filesystem;

constexpr size_t most_candidates = 100;

/* So that fnmatch() matches this and nothing else. */
std::string as_pattern(const std::string &name)
{
    std::string out;
    for (const char c : name) {
        out += (strchr("*?[]\\", c) != nullptr ? "\\" : "") + std::string(1, c);
    }
    return out;
}

std::optional<uint32_t> handle_of(const std::string &word)
{
    const std::optional<uint64_t> value = l2vpnd::number_in(word);
    return value && *value <= UINT32_MAX ? std::optional(static_cast<uint32_t>(*value)) : std::nullopt;
}

/* What the process holds of ACs that are meant; each row is one. */
struct process_answer {
    json rows = json::array();
    json result;
    uint64_t at = 0; /* nanoseconds since 1970 */
};

class explainer {
public:
    explicit explainer(const command_line &line)
        : m_line(line), m_choice(line.recordings.choice), m_word(line.asked), m_handle(handle_of(line.asked))
    {
    }

    /* What is to be printed, and how it ends. */
    explanation run();

private:
    process_answer ask(const json &more) const;
    process_answer ask_for_all() const;
    void find_rings(const std::string &folder, const std::string &own);
    bool is_named(const std::string &path) const;
    bool drop_unreadable();
    void read(record_consumer &to);
    void follow(std::optional<chain> &story);
    bool choose(const finder &find, const std::optional<process_answer> &before);

    const command_line &m_line;
    const record_choice &m_choice;
    std::string m_word;
    std::optional<uint32_t> m_handle;
    std::vector<std::string> m_files;
    bool m_were_named = true;
    explanation m_out;
};

process_answer explainer::ask(const json &more) const
{
    json args = more;
    const auto put = [&args](const char *name, const auto &value) {
        if (value) {
            args[name] = *value;
        }
    };
    put("owner", m_choice.owner);
    put("class", m_choice.class_id);
    put("node", m_choice.node);
    process_answer got;
    got.at = time_now();
    control_link link(control_path(m_line.runtime_dir), m_line.patience);
    got.result = link.ask("explain", args, [&got](const json &row) { got.rows.push_back(row); });
    return got;
}

/* The word can be the handle of one and the name of another. */
process_answer explainer::ask_for_all() const
{
    process_answer got = ask({{"name", as_pattern(m_word)}});
    if (m_handle) {
        process_answer more = ask({{"handles", {*m_handle}}});
        for (json &row : more.rows) {
            if (row.at("name") != m_word) { /* else it is there already */
                got.rows.push_back(std::move(row));
            }
        }
    }
    return got;
}

/* Of a ring, or of one that a later ring of the same path has set aside: NAME.ring, NAME.ring.1. */
bool is_ring_name(const fs::path &file)
{
    const std::string end = file.extension();
    return end == ".ring" ||
           (file.stem().extension() == ".ring" && end.size() == 2 && end[1] >= '1' && end[1] <= '9');
}

/* How many files may be open, but for some that are not rings. */
size_t most_rings()
{
    constexpr rlim_t spare = 32;
    rlimit files{};
    const bool is_known = getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY;
    return is_known ? files.rlim_cur - std::min(files.rlim_cur, spare) : SIZE_MAX;
}

/* The process's own, those of owners, who make them beside its socket, and those that were named. */
void explainer::find_rings(const std::string &folder, const std::string &own)
{
    std::vector<std::string> found;
    std::error_code error;
    for (fs::directory_iterator at(folder, error); !error && at != fs::directory_iterator();
         at.increment(error)) {
        if (is_ring_name(at->path())) {
            found.push_back(at->path());
        }
    }
    std::ranges::sort(found);
    if (!own.empty()) {
        found.insert(found.begin(), own);
    }
    const std::vector<std::string> &named = m_line.recordings.also;
    found = distinct(found);
    const size_t most = most_rings();
    if (const size_t kept = most - std::min(most, named.size()); found.size() > kept) {
        const size_t others = found.size() - kept - 1;
        m_out.note("recording:unreadable",
                   found[kept] + (others > 0 ? " and " + std::to_string(others) + " others" : "") + ": " +
                       strerror(EMFILE));
        found.resize(kept);
    }
    found.insert(found.end(), named.begin(), named.end());
    m_files = distinct(found);
    m_were_named = false;
    drop_unreadable();
}

/* However it is spelled. */
bool explainer::is_named(const std::string &path) const
{
    return std::ranges::any_of(m_line.recordings.also, [&path](const std::string &named) {
        std::error_code error;
        return named == path || fs::equivalent(named, path, error);
    });
}

/* Of rings that nobody named. True: there were some. */
bool explainer::drop_unreadable()
{
    bool found = false;
    for (size_t i = 0; i < m_files.size();) {
        try {
            const ring_reader readable(m_files[i]);
            i++;
        } catch (const bad_file &bad) {
            if (is_named(m_files[i])) {
                throw failure{exit_failed, m_files[i] + ": " + bad.what()};
            }
            found = true;
            m_out.note("recording:unreadable", m_files[i] + ": " + bad.what());
            m_files.erase(m_files.begin() + static_cast<ptrdiff_t>(i));
            if (i < m_out.searched.size()) {
                m_out.searched.erase(m_out.searched.begin() + static_cast<ptrdiff_t>(i));
            }
        }
    }
    return found;
}

/* Rings of owners that have ended are removed by others that begin, also just now: before anything is taken. */
void explainer::read(record_consumer &to)
{
    for (bool again = !m_files.empty(); again;) {
        command_line with = m_line;
        with.recordings.files = m_files;
        try {
            read_recordings(with, to);
            again = false;
        } catch (const failure &) {
            if (m_were_named || !drop_unreadable()) {
                throw;
            }
            again = !m_files.empty();
        }
    }
    if (is_stopped()) {
        throw failure{exit_failed, "interrupted"};
    }
}

void explainer::follow(std::optional<chain> &story)
{
    story.emplace(*m_out.key);
    follower after(*story);
    read(after);
}

/* Of several the one that the process holds. False: it is not known which is meant. */
bool explainer::choose(const finder &find, const std::optional<process_answer> &before)
{
    const auto &found = find.found();
    auto chosen = found.begin();
    m_out.was_held = before && before->rows.size() == 1;
    if (m_out.was_held) {
        const json &row = before->rows[0];
        chosen = found.find({row.at("node"), row.at("class"), row.at("handle")});
        if (found.size() > 1) {
            m_out.note("others:recorded",
                       std::to_string(found.size() - 1) +
                           " others are recorded that are not held: --class and --node choose");
        }
    } else if (found.size() != 1) {
        m_out.candidates = find.to_json(most_candidates);
        m_out.more_candidates = found.size() - std::min(found.size(), most_candidates);
        return false;
    }
    m_out.key = chosen->first;
    m_out.name = chosen->second.name;
    return true;
}

explanation explainer::run()
{
    m_out.asked = m_word;
    std::optional<process_answer> before;
    if (!m_line.recordings.files.empty()) {
        m_files = distinct(m_line.recordings.files);
    } else {
        const std::string control = control_path(m_line.runtime_dir);
        std::string own;
        try {
            before = ask_for_all();
            own = before->result.value("capture", "");
            m_out.was_asked = true;
        } catch (const failure &why) {
            if (why.status != exit_unreachable) {
                throw;
            }
            m_out.note("process:not-running", why.text);
        }
        find_rings(control.substr(0, control.rfind('/')), own);
        if (!before && m_files.empty()) {
            throw failure{exit_unreachable, m_out.notes.front().text + ", and no ring is there to be read"};
        }
    }

    finder find(m_choice, m_handle, m_word);
    survey looked(find, m_out, m_files);
    read(looked);
    if (before) {
        for (const json &row : before->rows) {
            find.add(row);
        }
    }
    if (!choose(find, before)) {
        return std::move(m_out);
    }
    std::optional<chain> story;
    follow(story);
    if (before) {
        const process_answer now = ask(
            {{"handles", {m_out.key->handle}}, {"class", m_out.key->class_id}, {"node", m_out.key->node}});
        m_out.process = now.result;
        m_out.asked_at = now.at;
        m_out.own_ring =
            now.result.value("capture", ""); /* another one, when it was started again meanwhile */
        for (const json &row : now.rows) {
            m_out.row = row;
            m_out.name = row.at("name");
        }
        if (!m_out.row) {
            follow(story);
        }
    }
    m_out.judge(*story);
    return std::move(m_out);
}

} // namespace

void explain(const command_line &line)
{
    const explanation told = explainer(line).run();
    const std::string text = line.as_json
                                 ? told.to_json().dump(2, ' ', false, json::error_handler_t::replace) + "\n"
                                 : told.to_text();
    write_out(text);
    flush_out();
    if (!told.key) {
        throw failure{told.candidates.empty() ? exit_unknown : exit_ambiguous, told.in_one_line()};
    }
}

} // namespace l2vpnctl
