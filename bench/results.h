/*
 * What was measured, on its way into a file. report.py makes tables and pictures of it.
 */
#ifndef BENCH_RESULTS_H
#define BENCH_RESULTS_H

#include "measure.h"

#include <cstdint>
#include <nlohmann/json.hpp>

class results {
public:
    /* Thorough: more jobs, and longer. */
    explicit results(bool thorough);

    bool thorough() const { return thorough_; }

    /* Measures candidates for a job, says so on standard error, and keeps the times. */
    void take(const char *operation, uint32_t class_id, uint32_t mtu, uint32_t acs,
              const std::vector<candidate> &candidates, double seconds);

    /* Any other figure. */
    void add(const char *group, nlohmann::ordered_json figure) { all_[group].push_back(std::move(figure)); }

    nlohmann::ordered_json finished() const;

private:
    bool thorough_;
    double load_ = 0; /* of the last minute, when it began */
    nlohmann::ordered_json all_ = nlohmann::ordered_json::object();
};

/* The parts of the benchmark. */
class drain;
void measure_outbound(results &to, drain &socket);
void measure_inbound(results &to);
void measure_growth(results &to, drain &socket);
void measure_million(results &to);
void measure_owners(results &to);

#endif
