/*
 * What replay is told.
 */
#ifndef L2VPNCTL_REPLAY_OPTIONS_H
#define L2VPNCTL_REPLAY_OPTIONS_H

#include <string>
#include <vector>

namespace l2vpnctl {

struct replay_options {
    std::vector<std::string> against; /* files of tables; none: what the capture's own messages say */
    bool running = false;             /* into the running process, not one of its own */
    std::string program; /* the l2vpnd to be started; empty: the one that came with this program */
    std::vector<std::string> options; /* for it: NAME=VALUE, or NAME */
    bool bisect = false;
    double speed = 0; /* times as fast as it was; 0: as fast as it goes */
};

} // namespace l2vpnctl

#endif
