/*
 * An l2vpnd of its own in a folder of its own, of which nothing is left.
 */
#ifndef L2VPNCTL_REPLAY_THROW_AWAY_H
#define L2VPNCTL_REPLAY_THROW_AWAY_H

#include "options.h"
#include "unique_fd.h"

#include <chrono>
#include <filesystem>
#include <sys/types.h>

namespace l2vpnctl {

class throw_away {
public:
    /* Serves when this returns. Throws failure. */
    throw_away(const replay_options &how, std::chrono::milliseconds patience);
    ~throw_away();
    throw_away(const throw_away &) = delete;
    throw_away &operator=(const throw_away &) = delete;

    /* Its control socket. */
    std::string control() const { return m_folder / "L2VPN.ctl"; }
    /* How it has ended; empty: it runs. */
    std::string ended();
    /* The same of one that may be about to end: its sockets go before it. */
    std::string ended_by_now();

private:
    void start(const replay_options &how);
    void wait_until_ready(std::chrono::milliseconds patience);
    /* The last line that it wrote to its log. */
    std::string last_words() const;
    void stop();

    std::filesystem::path m_folder;
    l2vpn::platform_posix::unique_fd m_out;
    pid_t m_pid = -1;
    std::string m_end;
    bool m_refused = false; /* it has ended because of its options */
};

} // namespace l2vpnctl

#endif
