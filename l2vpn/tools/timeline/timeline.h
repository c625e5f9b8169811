/*
 * l2vpnctl timeline: records as a page that shows them, and needs nothing but a browser.
 */
#ifndef L2VPNCTL_TIMELINE_TIMELINE_H
#define L2VPNCTL_TIMELINE_TIMELINE_H

#include <string_view>

namespace l2vpnctl {

struct command_line;

/* The page around its data: made of page/ when this program is built. */
extern const std::string_view page_head;
extern const std::string_view page_tail;

void timeline(const command_line &line);

} // namespace l2vpnctl

#endif
