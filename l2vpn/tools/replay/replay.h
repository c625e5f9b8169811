/*
 * l2vpnctl replay: the owners of a capture speak again, and the process's tables are compared with what they said.
 */
#ifndef L2VPNCTL_REPLAY_REPLAY_H
#define L2VPNCTL_REPLAY_REPLAY_H

namespace l2vpnctl {

struct command_line;

void replay(const command_line &line);

} // namespace l2vpnctl

#endif
