/*
 * Many owners, each a process of its own, and one L2VPN process.
 */
#ifndef BENCH_CROWD_H
#define BENCH_CROWD_H

#include <cstdint>
#include <nlohmann/json.hpp>

/* All create, then all update, then all delete `acs` ACs each, at once. */
nlohmann::ordered_json measure_crowd(const char *program, uint32_t owners, uint32_t acs);

#endif
