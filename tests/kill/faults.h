/*
 * Socket calls that fail to order. faults.cpp defines them in front of the C library's, for the program that it
 * is linked into: the test, or an l2vpnd. A plan says which of the calls fails, counted from the moment it is
 * armed, and how; the test shares that of its l2vpnd with it through a file.
 */
#ifndef TESTS_KILL_FAULTS_H
#define TESTS_KILL_FAULTS_H

#include <atomic>

namespace kill_test {

struct fault_plan {
    std::atomic<int> error;  /* what the call fails with */
    std::atomic<int> left;   /* calls up to the one that fails, itself included; 0: none fails */
    std::atomic<bool> fired; /* it has failed */

    void arm(int with, int call)
    {
        error = with;
        fired = false;
        left = call;
    }
    void disarm() { left = 0; }
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

/* The file of a plan that is not the program's own. */
inline constexpr const char *plan_variable = "L2VPN_TEST_FAULTS";

/* Maps a plan's file, made where missing. */
fault_plan *map_plan(const char *path);

/* The plan of this program. */
fault_plan &own_plan();

} // namespace kill_test

#endif
