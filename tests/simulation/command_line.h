/*
 * What a simulation is told on its command line.
 */
#ifndef TESTS_SIMULATION_COMMAND_LINE_H
#define TESTS_SIMULATION_COMMAND_LINE_H

#include <cstdint>
#include <optional>

namespace simulation {

struct options {
    std::uint64_t first = 1;
    std::uint64_t seeds = 2000;
    std::uint32_t steps = 60;
    std::uint32_t minutes = 0;
    bool verbose = false;
    bool self_test = false;
};

/* Reads them; the exit code of a program that has nothing to run. */
[[nodiscard]] std::optional<int> read_command_line(int argc, char **argv, options &given);

} // namespace simulation

#endif
