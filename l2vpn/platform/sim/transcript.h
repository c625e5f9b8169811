/*
 * A recorded call as a line of text.
 */
#ifndef L2VPN_SIM_TRANSCRIPT_H
#define L2VPN_SIM_TRANSCRIPT_H

#include "functions.h"

namespace l2vpn::sim {

[[nodiscard]] std::string line_of(const call &entry);

} // namespace l2vpn::sim

#endif
