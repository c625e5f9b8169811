/*
 * Static probes, for bpftrace and other tracers: a place in the code with values, known to them by a note in the
 * file. Where nobody looks it costs an instruction that does nothing, and no memory. docs/probes.md has the table.
 *
 * Values are whole numbers and addresses that are there anyway: what would have to be computed for a probe's sake
 * is not given to one. A build without <sys/sdt.h> has no probes.
 */
#ifndef L2VPN_PROBE_H
#define L2VPN_PROBE_H

#ifdef L2VPN_PROBES
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
/* L2VPN_PROBE(PROVIDER, NAME, VALUES...): one to twelve values. */
#define L2VPN_PROBE(...) STAP_PROBEV(__VA_ARGS__)
#else
#define L2VPN_PROBE(...) static_cast<void>(0)
#endif

#endif
