/*
 * An l2vpnd whose calls fail to order, and what stands for all of its failures: which errors there are, and
 * whether a call fails once or goes on failing.
 */
#ifndef TESTS_KILL_FAULT_TEST_H
#define TESTS_KILL_FAULT_TEST_H

#include "daemon.h"
#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

namespace kill_test {

using system_test::child;
using system_test::eventually;

struct failure {
    int error;
    bool lasting;
};

/* What lasts is a peer that is gone and a machine out of descriptors or memory; who is interrupted or told to
 * try again does so, as often as it takes. */
inline constexpr failure failures[] = {
    {EINTR, false},  {EAGAIN, false}, {EPIPE, false}, {ENOBUFS, false}, {EMFILE, false},
    {ENOMEM, false}, {EPIPE, true},   {ENOMEM, true}, {EMFILE, true},
};

inline std::string name_of(const failure &of)
{
    return std::string(strerrorname_np(of.error)) + (of.lasting ? "_lasting" : "_once");
}

/* Has each call fail in turn. `calls_until(n)` is a run in which the n-th one fails, and returns how many there were.
 * That is chance in part: the end is where two runs in a row were over before, and two in which nothing fails tell
 * how far it must have come at the least. */
template <typename Calls_until>
void fail_in_turn(const Calls_until &calls_until)
{
    const int all = std::min(calls_until(fault_plan::never), calls_until(fault_plan::never));
    int last = 0;
    for (int at = 1; at <= last + 2 && !testing::Test::HasFailure(); ++at)
        if (calls_until(at) == at)
            last = at;
    EXPECT_TRUE(last > all / 2 || testing::Test::HasFailure()) << "of " << all << " calls only " << last;
}

/* The program with a plan of its own, in a runtime directory that is there already. */
struct faulty_daemon {
    faulty_daemon(const std::string &runtime_dir, const std::string &plan_file)
        : program(L2VPN_FAULTY_DAEMON, {"--runtime-dir", runtime_dir, "--nodeid", "7", "--auto-provision"},
                  {std::string(plan_variable) + "=" + plan_file})
    {
    }

    bool is_ready() const { return program.out().find("l2vpnd: ready on ") != std::string::npos; }

    child program;
};

} // namespace kill_test

#endif
