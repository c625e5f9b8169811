/*
 * What the Linux platform's send adds to a sendmsg().
 */
#ifndef BENCH_SENDS_H
#define BENCH_SENDS_H

#include <nlohmann/json.hpp>

/* The same pieces through a link of the platform's and through a bare socket of the same kind: a row for each of some
 * sizes, which takes so many seconds. In a folder where owners meet the process; early, because it forks. */
nlohmann::ordered_json measure_sends(double seconds);

#endif
