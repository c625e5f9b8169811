/*
 * What timeline is told.
 */
#ifndef L2VPNCTL_TIMELINE_OPTIONS_H
#define L2VPNCTL_TIMELINE_OPTIONS_H

#include <string>

namespace l2vpnctl {

struct timeline_options {
    std::string write; /* the page */
    bool force = false;
};

} // namespace l2vpnctl

#endif
