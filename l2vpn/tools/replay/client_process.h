/*
 * A process that connects to a socket for another one, so that it is its pid that the socket's owner sees.
 */
#ifndef L2VPNCTL_REPLAY_CLIENT_PROCESS_H
#define L2VPNCTL_REPLAY_CLIENT_PROCESS_H

#include "unique_fd.h"

#include <chrono>
#include <string>
#include <sys/types.h>

namespace l2vpnctl {

class client_process {
public:
    /* Throws failure, as all of these. */
    explicit client_process(const std::string &path);
    ~client_process();
    client_process(const client_process &) = delete;
    client_process &operator=(const client_process &) = delete;

    pid_t pid() const { return m_pid; }
    /* A connected socket of sequenced packets. */
    l2vpn::platform_posix::unique_fd connect(std::chrono::milliseconds patience);

private:
    l2vpn::platform_posix::unique_fd m_socket;
    pid_t m_pid = -1;
};

} // namespace l2vpnctl

#endif
