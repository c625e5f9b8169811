/*
 * What the parts of the player share.
 */
#ifndef L2VPNCTL_REPLAY_PLAYER_LINK_H
#define L2VPNCTL_REPLAY_PLAYER_LINK_H

#include "client_process.h"
#include "player.h"

namespace l2vpnctl {

struct player::link {
    link_id id;
    std::shared_ptr<client_process> process; /* ends with its last link */
    uint32_t class_id;
    uint32_t nodeid;
    std::string text; /* for people */
    l2vpn::platform_posix::unique_fd socket;
    uint64_t serial = 0; /* links are counted as they are opened */
    uint64_t number = 0; /* the process's own; 0: not asked yet */
    bool is_over = false;
};

/* What is waited for has so long. */
class deadline {
public:
    explicit deadline(std::chrono::milliseconds patience)
        : m_patience(patience), m_end(std::chrono::steady_clock::now() + patience)
    {
    }
    void check(const std::string &what) const
    {
        if (is_stopped()) {
            throw failure{exit_broken, "interrupted"};
        }
        if (std::chrono::steady_clock::now() > m_end) {
            throw failure{exit_broken,
                          "l2vpnd " + what + " within " + std::to_string(m_patience.count()) + " ms"};
        }
    }

private:
    std::chrono::milliseconds m_patience;
    std::chrono::steady_clock::time_point m_end;
};

} // namespace l2vpnctl

#endif
