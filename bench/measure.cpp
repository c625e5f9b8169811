#include "measure.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numeric>
#include <random>

namespace {

constexpr double batch = 200e3; /* nanoseconds that a batch of runs takes, so that the clock does not count */
constexpr size_t rounds_min = 11;
constexpr size_t rounds_max = 101;
constexpr size_t runs_max = 10000;

double time_of(const candidate &candidate, size_t runs)
{
    const double begin = thread_time();
    for (size_t i = 0; i < runs; ++i)
        candidate.run();
    return (thread_time() - begin) / static_cast<double>(runs);
}

double quantile(const std::vector<double> &sorted, double which)
{
    return sorted[static_cast<size_t>(which * static_cast<double>(sorted.size() - 1))];
}

} // namespace

double thread_time()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

std::vector<timing> measure(const std::vector<candidate> &candidates, double seconds)
{
    std::vector<size_t> runs(candidates.size());
    double round_time = 0;
    for (size_t i = 0; i < candidates.size(); ++i) {
        candidates[i].run(); /* pages and buffers are there from now on */
        const double one = std::max(time_of(candidates[i], 1), 1.0);
        runs[i] = std::clamp<size_t>(static_cast<size_t>(batch / one), 1, runs_max);
        round_time += one * static_cast<double>(runs[i] + 1);
    }
    const auto wanted = static_cast<size_t>(seconds * 1e9 / round_time);
    const size_t rounds = std::clamp(wanted, rounds_min, rounds_max);

    std::vector<std::vector<double>> times(candidates.size());
    std::vector<size_t> order(candidates.size());
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 random(1);
    for (size_t round = 0; round < rounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const size_t i : order) {
            candidates[i].run(); /* its own data back into the caches, as far as they fit */
            times[i].push_back(time_of(candidates[i], runs[i]));
        }
    }

    std::vector<timing> result;
    for (std::vector<double> &of : times) {
        std::sort(of.begin(), of.end());
        result.push_back(
            {quantile(of, 0.25), quantile(of, 0.1), quantile(of, 0.5), quantile(of, 0.9), rounds});
    }
    return result;
}
