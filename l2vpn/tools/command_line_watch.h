/*
 * Verbs that are more than a request: they watch the process, or read what it has recorded.
 */
#ifndef L2VPNCTL_COMMAND_LINE_WATCH_H
#define L2VPNCTL_COMMAND_LINE_WATCH_H

#include <CLI/CLI.hpp>

namespace l2vpnctl {

struct command_line;

void add_watching_verbs(CLI::App &app, command_line &line);

} // namespace l2vpnctl

#endif
