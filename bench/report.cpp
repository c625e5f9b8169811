#include "report.h"

#include <algorithm>
#include <cstdio>

namespace {

double quantile(std::vector<double> times, double which)
{
    std::sort(times.begin(), times.end());
    return times[static_cast<size_t>(which * static_cast<double>(times.size() - 1))];
}

} // namespace

bool ratio_reporter::ReportContext(const Context &context)
{
    std::printf("%d processors at %.0f MHz\n", context.cpu_info.num_cpus,
                context.cpu_info.cycles_per_second / 1e6);
    return true;
}

void ratio_reporter::ReportRuns(const std::vector<Run> &runs)
{
    for (const Run &run : runs) {
        if (run.error_occurred) {
            std::fprintf(stderr, "l2vpn_bench: %s: %s\n", run.benchmark_name().c_str(),
                         run.error_message.c_str());
            failed_ = true;
        } else if (run.run_type == Run::RT_Iteration) {
            times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        }
    }
}

bool ratio_reporter::print() const
{
    std::printf("\n%-16s %14s %14s %8s   %s\n", "request/ACs", "library ns", "memcpy ns", "ratio",
                "spread of the library (10 %, 90 %)");
    bool any = false;
    for (const auto &[name, times] : times_) {
        const std::string prefix = "library/";
        if (name.rfind(prefix, 0) != 0)
            continue;
        const auto other = times_.find("memcpy/" + name.substr(prefix.size()));
        if (other == times_.end())
            continue;
        const double library = quantile(times, 0.5);
        const double memcpy_time = quantile(other->second, 0.5);
        std::printf("%-16s %14.0f %14.0f %8.2f   %.0f to %.0f\n", name.substr(prefix.size()).c_str(), library,
                    memcpy_time, library / memcpy_time, quantile(times, 0.1), quantile(times, 0.9));
        any = true;
    }
    return any && !failed_;
}
