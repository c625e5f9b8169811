/*
 * What was measured, on its way into a file. report.py makes tables and pictures of it.
 */
#ifndef BENCH_RESULTS_H
#define BENCH_RESULTS_H

#include "measure.h"

#include <cstdint>
#include <nlohmann/json.hpp>

/* Small: to see that all works; thorough: more jobs than usual, and longer. */
enum class effort { small, usual, thorough };

class results {
public:
    explicit results(effort by);

    bool thorough() const { return effort_ == effort::thorough; }
    bool small() const { return effort_ == effort::small; }

    /* Whether a job of so many ACs is measured, usually or when thoroughly, and for how many seconds. */
    bool wants(uint32_t acs, bool usually) const
    {
        return thorough() || (usually && (acs <= 300 || !small()));
    }
    double seconds(uint32_t acs) const;

    /* Measures candidates for a job, says so on standard error, and keeps the times. */
    void take(const char *operation, uint32_t class_id, uint32_t mtu, uint32_t acs,
              const std::vector<candidate> &candidates, double seconds);

    /* Any other figure. */
    void add(const char *group, nlohmann::ordered_json figure) { all_[group].push_back(std::move(figure)); }

    nlohmann::ordered_json finished() const;

private:
    effort effort_;
    double load_ = 0; /* of the last minute, when it began */
    nlohmann::ordered_json all_ = nlohmann::ordered_json::object();
};

/* The parts of the benchmark. */
class drain;
void measure_outbound(results &to, drain &socket);
void measure_inbound(results &to);
void measure_told(results &to);
void measure_growth(results &to, drain &socket);
void measure_million(results &to);
void measure_owners(results &to);

#endif
