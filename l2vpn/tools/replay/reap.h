/*
 * The end of a child.
 */
#ifndef L2VPNCTL_REPLAY_REAP_H
#define L2VPNCTL_REPLAY_REAP_H

#include <cerrno>
#include <sys/types.h>
#include <sys/wait.h>

namespace l2vpnctl {

/* Waits for it, whatever signals come meanwhile. */
inline void reap(pid_t child)
{
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace l2vpnctl

#endif
