#ifndef L2VPN_TOOLS_TRACE_PRINT_H
#define L2VPN_TOOLS_TRACE_PRINT_H

#include "trace_file.h"

#include <ostream>

namespace l2vpn::trace_reader {

/* The records, or the lock monitor's table, for people. Bytes that are no plain text are escaped. */
void print_records(std::ostream &out, const contents &read);
void print_locks(std::ostream &out, const contents &read);

/* The same as one JSON object. */
void print_records_json(std::ostream &out, const contents &read);
void print_locks_json(std::ostream &out, const contents &read);

} // namespace l2vpn::trace_reader

#endif
