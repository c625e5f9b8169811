/*
 * Long work with recordings: how far it is, is shown on a terminal and nowhere else; and it ends when it is told to,
 * also where nobody reads what it writes.
 */
#include "recorded.h"

#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace process_test;

namespace {

constexpr uint64_t many = 66'000; /* the ring has room for all of them */

struct long_work {
    const char *name;
    uint64_t records;      /* that are enough */
    const char *arguments; /* of l2vpnctl; RING is the file */
    int status;
    const char *shown; /* once it was at the beginning of the line */
    bool prints_meanwhile = false;
};

class long_recorded : public recorded {
protected:
    /* The ring has many records. */
    void make_many(uint64_t count = many)
    {
        start({"--capture-size", "20480"});
        raw_peer owner = peer(3);
        for (uint64_t i = 0; i < count; i++) {
            ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
        }
        ASSERT_TRUE(eventually([&] { return ask({"status"})["messages"] == count; }));
    }
};

class progress : public long_recorded, public testing::WithParamInterface<long_work> {};

/* A small pipe with a name, and a reader that never reads. */
class stalled_pipe {
public:
    explicit stalled_pipe(const std::string &path)
    {
        if (mkfifo(path.c_str(), 0600) == 0) {
            m_fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            fcntl(m_fd, F_SETPIPE_SZ, 4 * 4096);
        }
    }
    ~stalled_pipe() { close(m_fd); }
    stalled_pipe(const stalled_pipe &) = delete;
    stalled_pipe &operator=(const stalled_pipe &) = delete;

    /* But for less than a page, which may not be joined to another. */
    bool becomes_full() const
    {
        return eventually([this] {
            const int page = static_cast<int>(sysconf(_SC_PAGESIZE));
            int there = 0;
            return ioctl(m_fd, FIONREAD, &there) == 0 && there > 0 &&
                   there >= fcntl(m_fd, F_GETPIPE_SZ) - 2 * page;
        });
    }

private:
    int m_fd = -1;
};

bool catches(const system_test::child &program, int number)
{
    std::istringstream status(system_test::read_file("/proc/" + std::to_string(program.pid()) + "/status"));
    for (std::string word; status >> word;) {
        if (word == "SigCgt:" && status >> word) {
            return (std::stoull(word, nullptr, 16) >> (number - 1) & 1) != 0;
        }
    }
    return false;
}

} // namespace

TEST_P(progress, is_shown_on_a_terminal_only)
{
    const long_work &work = GetParam();
    make_many(work.records);
    std::string command = system_test::binary("l2vpnctl") + " " + work.arguments;
    for (size_t at = command.find("RING"); at != std::string::npos; at = command.find("RING")) {
        command.replace(at, 4, ring());
    }
    const auto on_terminal = [&](const std::string &behind) {
        return system_test::run(
            "/usr/bin/script",
            {"-qec", "cd " + m_dir.path() + " && rm -f x && " + command + behind, "/dev/null"},
            {"SHELL=/bin/sh"});
    };
    const system_test::result terminal = on_terminal("");
    EXPECT_EQ(terminal.status, work.status) << terminal.out;
    EXPECT_THAT(terminal.out, HasSubstr(work.shown));
    const std::string before_pager = on_terminal(" | cat").out;
    EXPECT_EQ(before_pager.find(work.shown) != std::string::npos, !work.prints_meanwhile)
        << "the terminal is the pager's: " << before_pager;
    const system_test::result pipe =
        system_test::run("/bin/sh", {"-c", "cd " + m_dir.path() + " && rm -f x && " + command});
    EXPECT_EQ(pipe.status, work.status) << pipe.err;
    EXPECT_THAT(pipe.out + pipe.err, testing::Not(HasSubstr("\r")));
}

INSTANTIATE_TEST_SUITE_P(
    each, progress,
    testing::Values(long_work{"monitor", many, "monitor --read RING --handle 1", 0, "\r6", true},
                    long_work{"capture", many, "capture --from-ring RING -w x", 0, "\r6"},
                    long_work{"explain", many, "explain --read RING 0x1", 5, "\r6"},
                    long_work{"timeline", 7'000, "timeline RING -o x", 0, "\r6"},
                    long_work{"replay", 1'000, "replay RING --count 500", 0, "\rreplayed 50 %"}),
    [](const auto &work) { return std::string(work.param.name); });

TEST_F(long_recorded, a_reader_that_has_stalled_keeps_nothing_running)
{
    make_many();
    const std::string program = "exec " + system_test::binary("l2vpnctl");
    for (const std::string &command : {program + " monitor --read " + ring() + " >pipe",
                                       program + " capture --force -w pipe --from-ring " + ring()}) {
        const stalled_pipe unread(m_dir.file("pipe"));
        system_test::child writer("/bin/sh", {"-c", "cd " + m_dir.path() + " && " + command});
        ASSERT_TRUE(unread.becomes_full()) << writer.err();
        writer.send_signal(SIGINT);
        EXPECT_EQ(writer.wait(), 0) << command;
        EXPECT_EQ(writer.err(), "");
        ASSERT_EQ(unlink(m_dir.file("pipe").c_str()), 0);
    }
}

/* The second is told before it writes, and hears of it just then. */
TEST_F(recorded, a_reader_that_has_stalled_keeps_no_top_running)
{
    start();
    std::vector<raw_peer> owners; /* what is said of them at a time is more than the pipe takes */
    for (int i = 0; i < 100; i++) {
        owners.push_back(peer(3));
    }
    const std::string top = "exec " + system_test::binary("l2vpnctl") + " top --json --runtime-dir .";
    for (const bool is_told_before : {false, true}) {
        const stalled_pipe unread(m_dir.file("pipe"));
        const std::vector<std::string> arguments = {
            "--block-signal=INT", "/bin/sh", "-c",
            "cd " + m_dir.path() + (is_told_before ? " && kill -INT $$" : "") + " && " + top + " >pipe"};
        system_test::child writer("/usr/bin/env", arguments);
        ASSERT_TRUE(unread.becomes_full()) << writer.err();
        if (!is_told_before) {
            writer.send_signal(SIGINT);
        }
        EXPECT_EQ(writer.wait(), 0);
        EXPECT_EQ(writer.err(), "");
        ASSERT_EQ(unlink(m_dir.file("pipe").c_str()), 0);
    }
}

TEST_F(recorded, a_reader_that_does_not_come_keeps_nothing_running)
{
    const std::string path = make_history();
    const std::string pipe = m_dir.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    system_test::child writer(system_test::binary("l2vpnctl"),
                              {"capture", "--force", "-w", pipe, "--from-ring", path});
    ASSERT_TRUE(eventually([&] { return catches(writer, SIGTERM); }));
    writer.send_signal(SIGTERM);
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(writer.err(), "");
}
