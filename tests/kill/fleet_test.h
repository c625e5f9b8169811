/*
 * The real process with the owners of owners.h beside it, and what every test here ends with.
 */
#ifndef TESTS_KILL_FLEET_TEST_H
#define TESTS_KILL_FLEET_TEST_H

#include "owners.h"

#include <csignal>
#include <random>

namespace kill_test {

using system_test::binary;
using system_test::child;
using system_test::eventually;

/* How many times a process is killed, and what makes the instants: L2VPN_KILLS, L2VPN_KILL_SEED. */
unsigned long kills();
unsigned long seed();

class fleet_test : public testing::Test {
protected:
    fleet_test();

    std::vector<std::string> daemon_arguments() const
    {
        return {"--runtime-dir", m_dir.path(), "--capture-size", "64"};
    }
    void start();
    void kill_it();
    /* The process comes to hold exactly what the owners intend, who change nothing while it is looked at. */
    void expect_what_is_intended(const std::set<uint32_t> &others = {});

    /* An instant up to `most`, in microseconds. */
    void let_pass(std::chrono::microseconds most);

    /* The platform reads its configuration once, so there is one for all tests of a program. */
    const system_test::temp_dir &m_dir;
    std::mt19937 m_random;
    std::unique_ptr<child> m_daemon;
    std::unique_ptr<process_test::raw_control> m_control;
    fleet m_fleet;
};

} // namespace kill_test

#endif
