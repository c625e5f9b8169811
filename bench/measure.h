/*
 * Times of things that do the same job, taken in turns: many short rounds, in each of them every candidate
 * once, in another order. So what else the machine does falls on all alike, and their ratios hold.
 *
 * Time is the thread's own time on its processor: waiting for who drains a socket is not counted, nor is
 * what others do meanwhile.
 */
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <functional>
#include <string>
#include <vector>

struct candidate {
    std::string name;
    std::function<void()> run;
};

/* Nanoseconds of one run. */
struct timing {
    double low; /* the lower quartile: what counts */
    double p10;
    double median;
    double p90;
    size_t rounds;
};

/* Of each candidate, in their order. Takes about `seconds`; at least eleven rounds. */
std::vector<timing> measure(const std::vector<candidate> &candidates, double seconds);

/* The thread's time so far, in nanoseconds. */
double thread_time();

#endif
