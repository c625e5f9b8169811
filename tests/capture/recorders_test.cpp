/*
 * Whose a record is, told from its number, its file and who it says has recorded it.
 */
#include "recorders.h"

#include <gtest/gtest.h>

using namespace l2vpn::capture;
using l2vpnctl::recorders;

namespace {

record_head numbered(uint64_t number, observer by = observer::process, uint32_t pid = 4711)
{
    record_head head{};
    head.by = by;
    head.pid = pid;
    head.number = number;
    return head;
}

class places : public testing::Test {
protected:
    recorders::place take(size_t source, uint64_t number)
    {
        return m_recorders.take(source, numbered(number));
    }
    void expect_place(size_t source, uint64_t number, size_t recorder, uint64_t missing = 0)
    {
        const recorders::place at = take(source, number);
        EXPECT_EQ(at.recorder, recorder) << number;
        EXPECT_EQ(at.missing, missing) << number;
    }

    recorders m_recorders{recorders::join::without_gap};
};

} // namespace

TEST_F(places, numbers_that_follow_are_of_one_and_those_that_begin_again_of_another)
{
    expect_place(0, 0, 0);
    expect_place(0, 1, 0);
    expect_place(0, 5, 0, 3);
    EXPECT_TRUE(take(0, 0).is_new) << "it was started again";
    expect_place(0, 1, 1);
    expect_place(0, 1, 2, 1);
}

TEST_F(places, a_late_one_is_of_the_same_and_none_is_late_twice)
{
    expect_place(0, 10, 0, 10);
    expect_place(0, 13, 0, 2);
    expect_place(0, 11, 0);
    expect_place(0, 12, 0);
    expect_place(0, 14, 0);
    expect_place(0, 12, 1, 12);
}

TEST_F(places, what_was_before_the_first_is_not_late)
{
    expect_place(0, 10, 0, 10);
    expect_place(0, 9, 1, 9);
}

TEST_F(places, what_is_far_behind_is_not_late)
{
    expect_place(0, 0, 0);
    expect_place(0, 65, 0, 64);
    expect_place(0, 2, 0); /* 64 before the one that is due */
    expect_place(0, 66, 0);
    expect_place(0, 2, 1, 2);
    expect_place(0, 1000, 1, 997);
    expect_place(0, 937, 1);
    expect_place(0, 936, 2, 936);
}

TEST_F(places, another_file_goes_on_with_what_is_due_or_late_there)
{
    expect_place(0, 0, 0);
    expect_place(0, 2, 0, 1);
    expect_place(1, 1, 0);
    expect_place(2, 3, 0);
    expect_place(3, 0, 1);
    expect_place(4, 9, 2, 9);
}

TEST(recorders, a_gap_is_between_files_of_one_where_that_is_wanted)
{
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, numbered(0)).recorder, 0U);
    EXPECT_EQ(all.take(1, numbered(900)).recorder, 0U);
    EXPECT_EQ(all.take(2, numbered(0)).recorder, 1U);
    EXPECT_EQ(all.take(3, numbered(1200)).recorder, 0U) << "the nearest";
    EXPECT_EQ(all.take(4, numbered(500)).recorder, 1U);
}

TEST(recorders, owners_are_told_apart_by_their_pids)
{
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, numbered(0)).recorder, 0U);
    EXPECT_EQ(all.take(0, numbered(0, observer::owner, 1)).recorder, 1U);
    EXPECT_EQ(all.take(0, numbered(1, observer::process, 1)).recorder, 0U) << "whoever its client is";
    EXPECT_EQ(all.take(0, numbered(0, observer::owner, 2)).recorder, 2U);
    EXPECT_EQ(all.take(0, numbered(1, observer::owner, 1)).recorder, 1U);
    EXPECT_EQ(all.take(1, numbered(2, observer::owner, 1)).recorder, 1U);
}
