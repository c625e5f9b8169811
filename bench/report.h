/*
 * A table of ratios: the library's median against that of a memcpy of the same bytes, in one run.
 */
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class ratio_reporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;

    /* Prints the table. False when nothing was measured or something failed. */
    bool print() const;

private:
    std::map<std::string, std::vector<double>> times_; /* nanoseconds of each repetition, by name */
    bool failed_ = false;
};

#endif
