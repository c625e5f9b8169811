/*
 * How single values of an answer look.
 */
#ifndef L2VPNCTL_CELLS_H
#define L2VPNCTL_CELLS_H

#include "control_link.h"
#include "table.h"

namespace l2vpnctl {

std::string text_of(const json &value);

/* The value of `key` as it is; "-" when there is none. */
cell plain(const json &row, const char *key);

/* Handles and node ids are bit patterns more than numbers. */
cell hex(const json &row, const char *key);

/* Worth a look when it is not 0. */
cell fault(const json &row, const char *key);

/* A number of seconds, short. */
std::string span_of(int64_t seconds);

/* How long ago the time in `key` was. */
cell age(const json &row, const char *key);

/* "1 AC", "2 ACs". */
std::string count_of(uint64_t n, const std::string &one, const std::string &more);

} // namespace l2vpnctl

#endif
