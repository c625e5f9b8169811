/*
 * Standard output: text that must get there, and how it may look.
 */
#ifndef L2VPNCTL_OUTPUT_H
#define L2VPNCTL_OUTPUT_H

#include "table.h"

#include <string>

namespace l2vpnctl {

/* Both throw failure. */
void write_out(const std::string &text);
void flush_out();

/* `colour`: auto, always or never. */
style style_of(const std::string &colour);

} // namespace l2vpnctl

#endif
