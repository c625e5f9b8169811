#include "runner.h"

#include "subject.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace simulation {

namespace {

char place[96] = "nothing is being run\n";
std::string taken;

/* The alarm is on for as long as this lives. */
struct time_limit {
    time_limit() { alarm(scenario_limit_s); }
    ~time_limit() { alarm(0); }
    time_limit(const time_limit &) = delete;
    time_limit &operator=(const time_limit &) = delete;
};

std::optional<parting> compared(std::size_t number, const std::vector<event> &expected,
                                const std::vector<event> &actual)
{
    const auto [wanted, got] = std::ranges::mismatch(expected, actual);
    if (wanted == expected.end() && got == actual.end())
        return std::nullopt;
    parting result{number, {expected.begin(), wanted}};
    if (wanted != expected.end())
        result.expected = *wanted;
    if (got != actual.end())
        result.actual = *got;
    return result;
}

} // namespace

const char *being_run()
{
    return place;
}

const char *steps_so_far()
{
    return taken.c_str();
}

std::optional<parting> run(const scenario &what, const std::vector<step> &steps, coverage &seen,
                           std::ostream *trace)
{
    const time_limit limit;
    taken.clear();
    subject tested(what.seed);
    model expected(what.seed, what.mistake, seen);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        std::snprintf(place, sizeof place, "at seed %llu, step %zu\n",
                      static_cast<unsigned long long>(what.seed), i);
        if (trace != nullptr)
            *trace << i << "  " << to_string(steps[i]) << std::endl;
        taken += "  " + std::to_string(i) + "  " + to_string(steps[i]) + "\n";
        tested.take(steps[i]);
        const std::vector<event> happened = tested.events();
        expected.take(steps[i], tested.handed_over());
        const std::vector<event> predicted = expected.events();
        if (trace != nullptr) {
            for (const event &each : happened)
                *trace << "      " << to_string(each) << "\n";
        }
        if (auto found = compared(i, predicted, happened)) {
            (void)tested.end();
            return found;
        }
    }
    if (const std::size_t left = tested.end(); left != 0)
        return parting{steps.size(), {}, event{"left behind", {0}}, event{"left behind", {left}}};
    return std::nullopt;
}

bool survives(const scenario &what, const std::vector<step> &steps)
{
    return fate_of([&] {
               coverage unseen;
               (void)run(what, steps, unseen);
           })
        .empty();
}

std::vector<step> shortened(std::vector<step> steps,
                            const std::function<bool(const std::vector<step> &)> &fails)
{
    std::size_t chunk = std::max<std::size_t>(steps.size() / 2, 1);
    for (;;) {
        bool cut = false;
        for (std::size_t end = steps.size(); end > 0;) {
            const std::size_t begin = end - std::min(end, chunk);
            std::vector<step> fewer(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(begin));
            fewer.insert(fewer.end(), steps.begin() + static_cast<std::ptrdiff_t>(end), steps.end());
            if (fails(fewer)) {
                steps = std::move(fewer);
                cut = true;
            }
            end = std::min(begin, steps.size());
        }
        if (chunk == 1 && !cut)
            return steps;
        chunk = std::max<std::size_t>(chunk / 2, 1);
    }
}

} // namespace simulation
