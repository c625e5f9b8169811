/*
 * l2vpnctl top: what it counts, how it ends, and what it leaves of a terminal.
 */
#include "daemon.h"

#include <csignal>
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

using namespace process_test;
using testing::HasSubstr;
using testing::Not;

namespace {

/* A program on a terminal of its own. What it draws is kept; what it left is seen from the other side. */
class on_terminal {
public:
    on_terminal(const std::string &program, const std::vector<std::string> &arguments, unsigned short rows,
                unsigned short columns)
    {
        std::vector<char *> argv = {const_cast<char *>(program.c_str())};
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        const winsize size = {rows, columns, 0, 0};
        int slave = -1;
        if (openpty(&m_fd, &slave, nullptr, nullptr, &size) != 0) {
            throw std::runtime_error("no terminal can be made");
        }
        tcgetattr(slave, &m_before);
        m_slave = slave;
        m_pid = fork();
        if (m_pid == 0) {
            login_tty(slave);
            execv(program.c_str(), argv.data());
            _exit(127);
        }
    }
    ~on_terminal()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_slave);
        close(m_fd);
    }
    on_terminal(const on_terminal &) = delete;
    on_terminal &operator=(const on_terminal &) = delete;

    /* Waits until it has drawn this, behind what was found before. */
    bool draws(const std::string &text)
    {
        size_t at = m_drawn.find(text, m_found);
        while (at == std::string::npos && read_more()) {
            at = m_drawn.find(text, m_found);
        }
        m_found = at == std::string::npos ? m_found : at + text.size();
        return at != std::string::npos;
    }
    void type(const std::string &keys) const
    {
        ASSERT_EQ(write(m_fd, keys.data(), keys.size()), ssize_t(keys.size()));
    }
    void send_signal(int number) const { kill(m_pid, number); }
    void resize(unsigned short rows, unsigned short columns) const
    {
        const winsize size = {rows, columns, 0, 0};
        ASSERT_EQ(ioctl(m_fd, TIOCSWINSZ, &size), 0);
    }
    /* Its exit status, when the terminal was drawn on for the last time. */
    int wait()
    {
        EXPECT_TRUE(draws("\033[?1049l")) << "the terminal is not given back";
        int status = -1;
        EXPECT_EQ(waitpid(m_pid, &status, 0), m_pid);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool is_as_before() const
    {
        termios now{};
        return tcgetattr(m_slave, &now) == 0 && now.c_lflag == m_before.c_lflag &&
               now.c_iflag == m_before.c_iflag && now.c_oflag == m_before.c_oflag &&
               std::equal(std::begin(now.c_cc), std::end(now.c_cc), m_before.c_cc);
    }
    bool echoes() const
    {
        termios now{};
        return tcgetattr(m_slave, &now) == 0 && (now.c_lflag & ECHO) != 0;
    }
    const std::string &drawn() const { return m_drawn; }
    /* Up to what was found last; more may have come behind it. */
    std::string drawn_so_far() const { return m_drawn.substr(0, m_found); }

private:
    bool read_more()
    {
        pollfd ready{m_fd, POLLIN, 0};
        char part[4096];
        const ssize_t got = poll(&ready, 1, 30000) == 1 ? read(m_fd, part, sizeof part) : -1;
        m_drawn.append(part, got > 0 ? static_cast<size_t>(got) : 0);
        return got > 0;
    }

    int m_fd = -1;
    int m_slave = -1;
    pid_t m_pid = -1;
    termios m_before{};
    std::string m_drawn;
    size_t m_found = 0;
};

class topped : public daemon_test {
protected:
    std::unique_ptr<on_terminal> on_a_terminal(unsigned short rows = 24, unsigned short columns = 160) const
    {
        return std::make_unique<on_terminal>(system_test::binary("l2vpnctl"),
                                             std::vector<std::string>{"top", "--interval", "0.1", "--color",
                                                                      "never", "--runtime-dir", m_dir.path()},
                                             rows, columns);
    }

    json once() const { return ask({"top", "--once"}); }
};

} // namespace

TEST_F(topped, once_tells_what_waits_and_what_was_counted)
{
    start({"--auto-provision"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    ASSERT_TRUE(owner.send(create(3, {1, 2, 3})));
    ASSERT_TRUE(owner.send(create(3, {4}, 0x1)));
    ASSERT_TRUE(owner.send(header(99, 0, 0).bytes()));
    ASSERT_TRUE(has_dropped("type", 1));
    const json told = once();
    ASSERT_EQ(told["owners"].size(), 1U);
    const json &row = told["owners"][0];
    EXPECT_EQ(row["owner"], 1);
    EXPECT_EQ(row["class"], 3);
    EXPECT_EQ(row["pid"], getpid());
    EXPECT_EQ(row["acs"], 4);
    EXPECT_EQ(row["open_batches"], 1);
    EXPECT_TRUE(row["batch_seconds"].is_number());
    EXPECT_TRUE(row["waiting_seconds"].is_null());
    EXPECT_EQ(row["dropped"], 1);
    EXPECT_EQ(row["joins"], 1);
    EXPECT_GT(row["rates"]["messages"], 0.0);
    EXPECT_DOUBLE_EQ(row["rates"]["acs"].get<double>() / row["rates"]["provisioned"].get<double>(), 4.0 / 3);
    EXPECT_EQ(told["process"]["owners"], 1);
    EXPECT_EQ(told["process"]["refused"], 0);
}

TEST_F(topped, an_owner_that_does_not_read_is_seen_to_wait)
{
    start({"--auto-provision"});
    raw_peer owner = peer(8);
    const octets message = create(8, handles_from(1, 20));
    for (int i = 0; i < 200; i++) { /* what it is told is as much, and stays where it is */
        ASSERT_TRUE(owner.send(message));
    }
    ASSERT_TRUE(eventually([&] { return totals()["received"].value("CREATE", 0) == 200; }));
    ASSERT_TRUE(eventually([&] { return !once()["owners"][0]["waiting_seconds"].is_null(); }));
    const json row = once()["owners"][0];
    EXPECT_GT(row["queued"].get<uint64_t>() + row["waiting"].get<uint64_t>(), 0U);
}

TEST_F(topped, a_pipe_gets_plain_blocks_with_rates_of_the_time_between)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1})));
    ASSERT_TRUE(holds(1));
    const system_test::result done = ctl({"top", "--count", "2", "--interval", "0.1"});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_THAT(done.out, Not(HasSubstr("\033")));
    EXPECT_THAT(
        done.out,
        HasSubstr(": 1 owner, 1 seen, 0 reconnected, 0 refused; rates since the beginning\n\nOWNER  "));
    EXPECT_THAT(done.out, HasSubstr("\n\nl2vpnd ")) << "an empty line between two";
    EXPECT_THAT(done.out, HasSubstr("; rates over "));

    const system_test::result lines = ctl({"top", "--count", "3", "--interval", "0.1", "--json"});
    EXPECT_EQ(std::count(lines.out.begin(), lines.out.end(), '\n'), 3);
    const json last = json::parse(lines.out.substr(lines.out.rfind('\n', lines.out.size() - 2) + 1));
    EXPECT_GE(last["seconds"].get<double>(), 0.1);
    EXPECT_EQ(last["owners"][0]["rates"]["acs"], 0.0) << "nothing has changed meanwhile";
}

TEST_F(topped, it_ends_with_the_process_and_with_a_signal)
{
    start();
    {
        system_test::child shown(system_test::binary("l2vpnctl"),
                                 {"top", "--interval", "0.1", "--runtime-dir", m_dir.path()});
        ASSERT_TRUE(shown.says("; rates over "));
        shown.send_signal(SIGINT);
        EXPECT_EQ(shown.wait(), 0) << shown.err();
        EXPECT_EQ(shown.err(), "");
    }
    system_test::child shown(system_test::binary("l2vpnctl"),
                             {"top", "--interval", "0.1", "--runtime-dir", m_dir.path()});
    ASSERT_TRUE(shown.says("; rates over "));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(shown.wait(), 4);
    EXPECT_TRUE(is_one_line(shown.err()));
    const system_test::result gone = ctl({"top", "--once"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_TRUE(is_one_line(gone.err));
}

TEST_F(topped, bad_options_have_one_line)
{
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"top", "--interval", "0"},
                                                      {"top", "--interval", "x"},
                                                      {"top", "--interval", "nan"},
                                                      {"top", "--interval", "inf"},
                                                      {"top", "--interval", "0.0999"},
                                                      {"top", "--interval", "3600.1"},
                                                      {"top", "--count", "0"},
                                                      {"top", "--once", "--count", "2"}}) {
        const system_test::result done = ctl(arguments);
        EXPECT_EQ(done.status, 2) << done.out;
        EXPECT_TRUE(is_one_line(done.err));
    }
}

TEST_F(topped, a_terminal_is_drawn_on_anew_and_given_back_by_a_key)
{
    start();
    raw_peer owner = peer(3);
    const auto shown = on_a_terminal();
    ASSERT_TRUE(shown->draws("\033[?1049h\033[?25l\033[?7l\033[H"));
    ASSERT_TRUE(shown->draws("rates since the beginning"));
    ASSERT_TRUE(shown->draws("\033[H"));
    ASSERT_TRUE(shown->draws("rates over "));
    EXPECT_FALSE(shown->echoes());
    shown->type("x");
    ASSERT_TRUE(owner.send(create(3, {1, 2})));
    ASSERT_TRUE(shown->draws(std::to_string(getpid()) + "    2  "));
    shown->type("q");
    EXPECT_EQ(shown->wait(), 0);
    EXPECT_TRUE(shown->is_as_before());
    EXPECT_THAT(shown->drawn(), HasSubstr("\033[?7h\033[?25h\033[?1049l"));
}

TEST_F(topped, a_terminal_is_given_back_after_a_signal_and_when_the_process_is_gone)
{
    start();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        const auto shown = on_a_terminal();
        ASSERT_TRUE(shown->draws("rates over "));
        shown->send_signal(number);
        EXPECT_EQ(shown->wait(), 0);
        EXPECT_TRUE(shown->is_as_before());
    }
    const auto shown = on_a_terminal();
    ASSERT_TRUE(shown->draws("rates over "));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(shown->wait(), 4);
    EXPECT_TRUE(shown->is_as_before());
}

TEST_F(topped, a_terminal_shows_as_much_as_it_has_room_for_and_follows_its_size)
{
    start();
    std::vector<raw_peer> owners;
    for (int i = 0; i < 9; i++) {
        owners.push_back(peer(3));
    }
    ASSERT_TRUE(eventually([&] { return once()["owners"].size() == 9; }));
    const auto shown = on_a_terminal(5, 160);
    ASSERT_TRUE(shown->draws("rates since the beginning"));
    ASSERT_TRUE(shown->draws("\033[J"));
    const std::string first = shown->drawn_so_far();
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 4) << "five lines, and none is scrolled away";
    shown->resize(40, 160);
    ASSERT_TRUE(shown->draws("\r\n    9      3  "));
    shown->type("q");
    EXPECT_EQ(shown->wait(), 0);
}
