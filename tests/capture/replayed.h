/*
 * l2vpnctl replay beside an l2vpnd with its ring.
 */
#ifndef TESTS_CAPTURE_REPLAYED_H
#define TESTS_CAPTURE_REPLAYED_H

#include "recorded.h"

#include <filesystem>

namespace process_test {

namespace fs = std::filesystem;

inline constexpr const char *same = "the tables are the same\n";

/* What a record's head begins with, in files: its version, kind, direction, observer, a zero, its length. */
inline const std::string message_to_process("\0\1\1\1\1\0\0\100", 8);
constexpr size_t pid_in_head = 16;
constexpr size_t link_in_head = 24;
constexpr size_t time_before_head = 16; /* the upper half, of nanoseconds, in this machine's byte order */

class replay : public recorded {
protected:
    void SetUp() override { fs::create_directory(m_folder); }
    void TearDown() override { EXPECT_TRUE(fs::is_empty(m_folder)) << "something of a replay is left"; }

    std::vector<std::string> words(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "replay");
        arguments.insert(arguments.end(), {"--runtime-dir", m_dir.path()});
        return arguments;
    }
    /* --bisect starts a process for each step. */
    system_test::result play(const std::vector<std::string> &arguments) const
    {
        system_test::child played(system_test::binary("l2vpnctl"), words(arguments), {"TMPDIR=" + m_folder});
        const int status = played.wait(8 * system_test::patience);
        return {status, played.out(), played.err()};
    }
    json told(std::vector<std::string> arguments, int status = 0) const
    {
        arguments.emplace_back("--json");
        const system_test::result done = play(arguments);
        EXPECT_EQ(done.status, status) << done.err;
        json document = json::parse(done.out, nullptr, false);
        EXPECT_TRUE(document.is_object()) << done.out;
        return document;
    }
    void expect_same(const std::string &file, const std::string &what) const
    {
        const system_test::result done = play({file});
        EXPECT_EQ(done.status, 0) << done.err << done.out;
        EXPECT_EQ(done.err, "") << "no progress is shown where there is no terminal";
        EXPECT_THAT(done.out, HasSubstr(what));
        EXPECT_THAT(done.out, HasSubstr(same));
    }
    void expect_refused(const std::vector<std::string> &arguments, int status, const std::string &text)
    {
        expect_one_line(play(arguments), status, text);
    }

    /* The process's ring as a file, while its owners are still there. */
    std::string keep(const std::string &name = "x.pcapng") const
    {
        const std::string file = m_dir.file(name);
        const system_test::result done = ctl({"capture", "-w", file, "--from-ring", ring()});
        EXPECT_EQ(done.status, 0) << done.err;
        return file;
    }
    /* A copy in which something stands elsewhere than in the first record that begins with `head`. */
    std::string edited(const std::string &file, const std::string &head, size_t offset,
                       const std::string &bytes) const
    {
        std::string content = system_test::read_file(file);
        const size_t found = content.find(head);
        EXPECT_NE(found, std::string::npos);
        content.replace(found + offset, bytes.size(), bytes);
        return m_dir.write("edited.pcapng", content);
    }
    bool is_handled(uint64_t messages) const
    {
        return eventually([&] {
            const json status = ask({"status"});
            return status["messages"].get<uint64_t>() + status["dropped"].get<uint64_t>() == messages;
        });
    }

    const std::string m_folder = m_dir.file("tmp");
};

} // namespace process_test

#endif
