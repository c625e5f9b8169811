/*
 * How the answers look for people.
 */
#ifndef L2VPNCTL_VIEWS_H
#define L2VPNCTL_VIEWS_H

#include "control_link.h"
#include "table.h"

#include <memory>

namespace l2vpnctl {

/* Takes the rows of an answer and prints all of it in the end. */
class view {
public:
    virtual ~view() = default;
    virtual void take(const json & /*row*/) {}
    virtual std::string print(const json &result, const style &how) = 0;
};

using view_ptr = std::unique_ptr<view>;

view_ptr view_of_status();
view_ptr view_of_clients();
view_ptr view_of_acs();
view_ptr view_of_mstp();
view_ptr view_of_batches();
view_ptr view_of_counters();
view_ptr view_of_provision();
view_ptr view_of_notify();

} // namespace l2vpnctl

#endif
