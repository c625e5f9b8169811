/*
 * One case of torture: a scenario, and what goes wrong in it.
 */
#ifndef TESTS_TORTURE_TRIAL_H
#define TESTS_TORTURE_TRIAL_H

#include "model.h"

#include <map>
#include <set>

namespace torture {

extern std::string program; /* as it was called */

inline constexpr const char *every_message = "all"; /* malformed ones, by name */

struct trial {
    scenario what;
    std::optional<plan> failure;
    std::string command; /* that repeats it */
};

trial clean(const scenario &s);
trial with_failure(const scenario &s, const plan &p);
/* All malformed messages, or the one of that name, before the step of that number, from 1; one more than
 * there are: after the last. */
trial with_malformed(const scenario &s, const std::string &name, std::size_t at);

/* Plays it on the library and by the model, and expects the same of both. */
void run(const trial &t);
/* The same; where the model says so, the process must abort instead. */
void run_as_it_must_end(const trial &t);

/* How often a target is called in a clean run. */
struct census {
    std::map<const target *, std::uint64_t> calls;
    std::uint64_t fallible;
    std::set<std::string> called;
};

census census_of(const scenario &s);

} // namespace torture

#endif
