#include "command_line.h"

#include <CLI/CLI.hpp>

namespace simulation {

namespace {

constexpr std::uint64_t most_seeds = 1'000'000'000'000;

} // namespace

std::optional<int> read_command_line(int argc, char **argv, options &given)
{
    std::uint64_t seed = 0;
    CLI::App app("Runs the AC library under random scenarios and compares it with a model");
    app.add_option("--seeds", given.seeds, "number of scenarios")
        ->capture_default_str()
        ->check(CLI::Range(std::uint64_t{1}, most_seeds));
    app.add_option("--minutes", given.minutes, "no new scenario after so many minutes")
        ->check(CLI::Range(1u, 100000u));
    app.add_option("--first", given.first, "seed of the first")->capture_default_str();
    const auto *const one = app.add_option("--seed", seed, "this scenario alone");
    app.add_option("--steps", given.steps, "length of a scenario, about")
        ->capture_default_str()
        ->check(CLI::Range(1u, 100000u));
    app.add_flag("--verbose", given.verbose, "print steps and events of one scenario, or seeds; and counts");
    app.add_flag("--self-test", given.self_test, "check that mistakes of the model are found");
    CLI11_PARSE(app, argc, argv);
    if (one->count() > 0) {
        given.first = seed;
        given.seeds = 1;
    }
    return std::nullopt;
}

} // namespace simulation
