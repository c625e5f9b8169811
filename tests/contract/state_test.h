/*
 * What tests of the connection state and the retry timer share: the rows of the state table, on the virtual clock.
 */
#ifndef TESTS_CONTRACT_STATE_TEST_H
#define TESTS_CONTRACT_STATE_TEST_H

#include "contract_test.h"

namespace state_test {

using state = contract;

inline constexpr std::uint32_t up = L2VPN_AC_STATUS_UP;
inline constexpr std::uint32_t down = L2VPN_AC_STATUS_DOWN;

/* Durations, in seconds, of the starts of the timer. */
inline std::vector<std::uint64_t> starts(const l2vpn::sim::world &world)
{
    std::vector<std::uint64_t> result;
    for (const auto &call : world.calls(fn::mgd_timer_leaf_start)) {
        EXPECT_EQ(call.args[1] % 1'000'000'000, 0u) << "whole seconds";
        result.push_back(call.args[1] / 1'000'000'000);
    }
    return result;
}

} // namespace state_test

#endif
