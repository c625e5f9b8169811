#include "screen.h"

#include "output.h"
#include "recordings.h"

#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

namespace l2vpnctl {

namespace {

constexpr const char *enter = "\033[?1049h\033[?25l\033[?7l"; /* the other screen, no cursor, lines are cut */
constexpr const char *leave = "\033[?7h\033[?25h\033[?1049l";
constexpr std::initializer_list<int> ending = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile sig_atomic_t s_resized = 0;

void on_resize(int)
{
    s_resized = 1;
}

} // namespace

/* Signals come in in wait(), those that ask to end also where something may stall. */
screen::screen(bool plain) : m_is_terminal(!plain && isatty(STDOUT_FILENO) == 1)
{
    struct sigaction action {};
    action.sa_handler = on_resize;
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGWINCH);
    sigaction(SIGWINCH, &action, nullptr);
    stop_on_signals(ending);
    for (const int number : ending) {
        sigaddset(&held, number);
    }
    sigprocmask(SIG_BLOCK, &held, &m_mask);
    for (const int number : ending) {
        sigdelset(&m_mask, number);
    }
    sigdelset(&m_mask, SIGWINCH);
    if (!m_is_terminal) {
        return;
    }
    write_out(enter);
    m_has_keys = tcgetattr(STDIN_FILENO, &m_before) == 0;
    if (m_has_keys) {
        termios keys = m_before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VSUSP] = _POSIX_VDISABLE; /* a program that sleeps cannot give the screen back */
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
    }
}

/* What could not be written in time is not waited for. */
screen::~screen()
{
    const interruptible meanwhile(*this);
    __fpurge(stdout);
    if (m_is_terminal) {
        fputs(leave, stdout);
        if (fflush(stdout) != 0) {
            __fpurge(stdout);
        }
    }
    if (m_has_keys && tcsetattr(STDIN_FILENO, TCSADRAIN, &m_before) != 0) {
        tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
    }
}

screen::interruptible::interruptible(const screen &of)
{
    sigset_t let_in = of.m_mask;
    sigaddset(&let_in, SIGWINCH);
    sigprocmask(SIG_SETMASK, &let_in, &m_before);
}

screen::interruptible::~interruptible()
{
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
}

void screen::show(const std::string &text)
{
    const interruptible meanwhile(*this);
    if (!m_is_terminal) {
        write_out(text);
        flush_out();
        return;
    }
    const size_t height = std::max<size_t>(style_of("never").height, 1);
    std::string drawn = "\033[H";
    size_t lines = 0;
    for (size_t at = 0; at < text.size() && lines < height; lines++) {
        const size_t end = std::min(text.find('\n', at), text.size());
        drawn += (lines == 0 ? "" : "\r\n") + text.substr(at, end - at) + "\033[K";
        at = end + 1;
    }
    write_out(drawn + "\033[J");
    flush_out();
}

screen::event screen::wait(clock::time_point until)
{
    for (;;) {
        if (is_stopped()) {
            return event::quit;
        }
        if (s_resized != 0) {
            s_resized = 0;
            return event::resized;
        }
        /* Also when it is late: what waits, keys and signals, is to be noticed. */
        const auto left = std::max(until - clock::now(), clock::duration::zero());
        const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec most{whole.count(), (left - whole).count()};
        pollfd keys{m_has_keys ? STDIN_FILENO : -1, POLLIN, 0};
        const int ready = ppoll(&keys, 1, &most, &m_mask);
        if (ready == 0) {
            return event::time;
        }
        if (ready == 1) {
            char key = 'q';
            if (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q') {
                return event::quit; /* also when the terminal is gone */
            }
        }
    }
}

} // namespace l2vpnctl
