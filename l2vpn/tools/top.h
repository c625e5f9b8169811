/*
 * l2vpnctl top: owners and what they do, again and again.
 */
#ifndef L2VPNCTL_TOP_H
#define L2VPNCTL_TOP_H

#include <cstdint>

namespace l2vpnctl {

struct command_line;

struct top_options {
    double interval = 1; /* seconds */
    uint64_t count = 0;  /* refreshes; 0: until it is ended */
    bool once = false;
};

void top(const command_line &line);

} // namespace l2vpnctl

#endif
