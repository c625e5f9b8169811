/*
 * A terminal that is drawn on anew again and again, and is as it was afterwards. Where standard output is no
 * terminal, what is shown is printed as it is, one after the other.
 */
#ifndef L2VPNCTL_SCREEN_H
#define L2VPNCTL_SCREEN_H

#include <chrono>
#include <csignal>
#include <string>
#include <termios.h>

namespace l2vpnctl {

class screen {
public:
    using clock = std::chrono::steady_clock;
    enum class event { time, resized, quit };

    /* `plain`: as if it were no terminal. */
    explicit screen(bool plain);
    ~screen();
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;

    bool is_terminal() const { return m_is_terminal; }
    /* Throws failure. On a terminal, no more lines than it has. */
    void show(const std::string &text);
    /* Sleeps until then, or a key or a signal ends it: q, SIGINT, SIGTERM, SIGHUP, SIGQUIT. */
    event wait(clock::time_point until);

    /* While it lives, a signal that asks to end wakes whatever waits. */
    class interruptible {
    public:
        explicit interruptible(const screen &of);
        ~interruptible();
        interruptible(const interruptible &) = delete;
        interruptible &operator=(const interruptible &) = delete;

    private:
        sigset_t m_before{};
    };

private:
    bool m_is_terminal;
    bool m_has_keys = false;
    termios m_before{};
    sigset_t m_mask{}; /* without those that are looked for */
};

} // namespace l2vpnctl

#endif
