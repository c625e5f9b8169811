/*
 * Runs scenarios: subject and model side by side, step by step, and cuts a failing one down to what it
 * takes.
 */
#ifndef TESTS_SIMULATION_RUNNER_H
#define TESTS_SIMULATION_RUNNER_H

#include "model.h"

#include <functional>
#include <ostream>

namespace simulation {

/* Where model and subject part. */
struct parting {
    std::size_t step; /* the number of steps when only the end is wrong */
    std::vector<event> before{};
    std::optional<event> expected{};
    std::optional<event> actual{};
};

struct scenario {
    std::uint64_t seed;
    fault mistake = fault::none;
};

/* A scenario takes milliseconds. One that takes longer than this is raised SIGALRM. */
inline constexpr unsigned scenario_limit_s = 120;

/* Takes the steps, writes each and its events to `trace` when there is one. */
[[nodiscard]] std::optional<parting> run(const scenario &what, const std::vector<step> &steps, coverage &seen,
                                         std::ostream *trace = nullptr);

/* Whether the process survives these steps; taken in a child. */
[[nodiscard]] bool survives(const scenario &what, const std::vector<step> &steps);

/* Fewer steps that fail still. None of those left can be left out. */
[[nodiscard]] std::vector<step> shortened(std::vector<step> steps,
                                          const std::function<bool(const std::vector<step> &)> &fails);

/* What is being run at the moment, and its steps so far, for whoever has to report a crash: nothing is allocated. */
[[nodiscard]] const char *being_run();
[[nodiscard]] const char *steps_so_far();

} // namespace simulation

#endif
