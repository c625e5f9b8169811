#include "common/leaf_table.h"

#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <vector>

namespace {

using namespace l2vpn::platform_core;

void nothing(mgd_timer_leaf_t *) {}

class leaves : public ::testing::Test {
protected:
    leaf &make() { return *table.live(table.create(tree, nullptr, nothing)); }

    leaf_order tree;
    leaf_table table;
};

TEST_F(leaves, equal_times_come_in_the_order_of_their_starts)
{
    leaf &first = make();
    leaf &second = make();
    leaf &third = make();
    for (leaf *each : {&second, &third, &first}) {
        table.start(*each, 100);
    }
    table.start(second, 100); // anew: it is the last now
    std::vector<mgd_timer_leaf_t *> order;
    while (mgd_timer_leaf_t *handle = table.first_expired(tree, 100)) {
        leaf_table::stop(*table.live(handle));
        order.push_back(handle);
    }
    EXPECT_EQ(order, (std::vector{third.handle, first.handle, second.handle}));
}

TEST_F(leaves, a_leaf_expires_at_its_time_and_not_before)
{
    leaf &only = make();
    table.start(only, 100);
    EXPECT_EQ(table.first_expired(tree, 99), nullptr);
    EXPECT_EQ(table.first_expired(tree, 100), only.handle);
}

TEST_F(leaves, no_handle_comes_twice)
{
    std::set<mgd_timer_leaf_t *> seen;
    for (int round = 0; round < 5000; ++round) {
        leaf &one = make();
        leaf &other = make();
        ASSERT_TRUE(seen.insert(one.handle).second);
        ASSERT_TRUE(seen.insert(other.handle).second);
        ASSERT_NE(one.handle, nullptr);
        table.free(one);
        table.free(other);
    }
    EXPECT_EQ(table.live_count(), 0U);
}

TEST_F(leaves, freed_slots_are_taken_again)
{
    std::set<std::uintptr_t> places;
    for (int round = 0; round < 1000; ++round) {
        leaf &one = make();
        places.insert(reinterpret_cast<std::uintptr_t>(&one));
        table.free(one);
    }
    EXPECT_EQ(places.size(), 1U);
}

TEST_F(leaves, a_leaf_kept_readable_gives_its_slot_back_when_the_next_is_asked_for)
{
    leaf &one = make();
    mgd_timer_leaf_t *handle = one.handle;
    table.start(one, 0);
    ASSERT_EQ(table.first_expired(tree, 0), handle);
    table.free(one);
    EXPECT_EQ(table.live(handle), nullptr);
    EXPECT_NE(table.readable(handle), nullptr);
    EXPECT_EQ(table.live_count(), 0U);
    EXPECT_NE(&make(), &one) << "the slot is still being read";
    EXPECT_EQ(table.first_expired(tree, 0), nullptr);
    EXPECT_EQ(table.readable(handle), nullptr);
    EXPECT_EQ(&make(), &one);
}

TEST(leaf_times, durations_are_clamped)
{
    constexpr auto latest = std::numeric_limits<nanoseconds_t>::max();
    EXPECT_EQ(length_of({.tv_sec = 4, .tv_nsec = 5}), 4'000'000'005);
    EXPECT_EQ(length_of({.tv_sec = -1, .tv_nsec = 999'999'999}), 0);
    EXPECT_EQ(length_of({.tv_sec = 1, .tv_nsec = -1}), 0);
    EXPECT_EQ(length_of({.tv_sec = std::numeric_limits<time_t>::max(), .tv_nsec = 0}), latest);
    EXPECT_EQ(length_of({.tv_sec = latest / 1'000'000'000 - 1, .tv_nsec = std::numeric_limits<long>::max()}),
              latest);
    EXPECT_EQ(later_by(latest - 1, 1), latest);
    EXPECT_EQ(later_by(latest, 1), latest);
    EXPECT_EQ(later_by(1, 2), 3);
}

} // namespace
