/*
 * l2vpnctl as tests run it.
 */
#ifndef TESTS_PROCESS_CTL_TEST_H
#define TESTS_PROCESS_CTL_TEST_H

#include "daemon.h"

namespace process_test {

using words = std::vector<std::string>;

inline system_test::result run_ctl(const words &arguments)
{
    return system_test::run(system_test::binary("l2vpnctl"), arguments);
}

} // namespace process_test

#endif
