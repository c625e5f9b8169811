/*
 * Whose a record is, told from its number, its file and who it says has recorded it.
 */
#include "recorders.h"

#include <gtest/gtest.h>

using namespace l2vpn::capture;
using l2vpnctl::recorders;

namespace {

captured numbered(uint64_t number, observer by = observer::process, uint32_t pid = 4711)
{
    captured made{};
    made.head.kind = record_kind::message;
    made.head.by = by;
    made.head.pid = pid;
    made.head.number = number;
    return made;
}

/* A new one each time, also of the same name. */
std::shared_ptr<const std::string> interface(const std::string &name)
{
    return std::make_shared<const std::string>(name);
}

captured from(const std::shared_ptr<const std::string> &which, uint64_t number)
{
    captured made = numbered(number);
    made.interface = which;
    return made;
}

captured of_link(captured made, uint64_t link, record_kind kind = record_kind::link_up)
{
    made.head.kind = kind;
    made.head.link = link;
    return made;
}

captured over_link(captured made, uint64_t link, flow direction)
{
    made.head.direction = direction;
    return of_link(std::move(made), link, record_kind::message);
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
    const auto part = [](uint64_t number) { return from(interface("l2vpnd-1"), number); };
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, part(0)).recorder, 0U);
    EXPECT_EQ(all.take(1, part(900)).recorder, 0U);
    EXPECT_EQ(all.take(2, part(0)).recorder, 1U);
    EXPECT_EQ(all.take(3, part(1200)).recorder, 0U) << "the nearest";
    EXPECT_EQ(all.take(4, part(500)).recorder, 1U);
    recorders others(recorders::join::without_gap);
    EXPECT_EQ(others.take(0, part(0)).recorder, 0U);
    EXPECT_EQ(others.take(1, part(900)).recorder, 1U);
}

/* The beginning of a ring is overwritten: its numbers may begin anywhere. */
TEST(recorders, no_gap_is_between_a_ring_and_another_file)
{
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, from(interface("l2vpnd-1"), 0)).recorder, 0U);
    EXPECT_EQ(all.take(1, numbered(900)).recorder, 1U);
    EXPECT_EQ(all.take(2, numbered(2000)).recorder, 2U) << "nor between two rings";
    EXPECT_EQ(all.take(3, from(interface("l2vpnd-1"), 1500)).recorder, 0U);
    EXPECT_EQ(all.take(4, numbered(1501)).recorder, 0U) << "it goes on with what is due";
}

TEST(recorders, no_gap_is_between_interfaces_of_other_names)
{
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, from(interface("l2vpnd-1"), 0)).recorder, 0U);
    EXPECT_EQ(all.take(1, from(interface("l2vpnd-2"), 900)).recorder, 1U);
    EXPECT_EQ(all.take(2, from(interface(""), 1000)).recorder, 2U);
    EXPECT_EQ(all.take(3, from(interface(""), 2000)).recorder, 3U) << "without a name, nothing is known";
    EXPECT_EQ(all.take(4, from(interface("l2vpnd-2"), 1)).recorder, 4U) << "not even with what is due";
    EXPECT_EQ(all.take(5, from(interface(""), 1)).recorder, 0U) << "it goes on with what is due";
}

TEST(recorders, interfaces_of_one_file_take_turns)
{
    for (const recorders::join how : {recorders::join::without_gap, recorders::join::with_gap}) {
        recorders all(how);
        const auto one = interface("l2vpnd-1");
        const auto other = interface("l2vpnd-2");
        for (uint64_t i = 0; i < 100; i++) {
            EXPECT_EQ(all.take(0, from(one, 500 + 2 * i)).recorder, 0U) << i;
            EXPECT_EQ(all.take(0, from(other, i)).recorder, 1U) << i;
        }
    }
}

/* As in a file that was made of one with two. */
TEST_F(places, of_one_interface_those_take_turns_whose_numbers_are_due)
{
    expect_place(0, 100, 0, 100);
    expect_place(0, 5, 1, 5);
    for (uint64_t i = 1; i < 50; i++) {
        expect_place(0, 100 + i, 0);
        expect_place(0, 5 + i, 1);
    }
    expect_place(0, 60, 1, 5);
}

TEST(recorders, a_link_that_comes_up_again_is_of_a_process_that_was_started_again)
{
    recorders all(recorders::join::with_gap);
    const auto ring = interface("l2vpnd-1");
    EXPECT_EQ(all.take(0, of_link(from(ring, 0), 1)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(from(ring, 1), 2, record_kind::link_down)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(from(ring, 2), 3, record_kind::link_refused)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(from(ring, 3), 3)).recorder, 0U) << "it was not up before";
    EXPECT_EQ(all.take(0, over_link(from(ring, 4), 4, flow::to_process)).recorder, 0U);
    for (const auto &[number, link] : {std::pair(9U, 1U), std::pair(5000U, 2U), std::pair(9000U, 4U)}) {
        recorders same = all;
        const recorders::place again = same.take(0, of_link(from(ring, number), link));
        EXPECT_EQ(again.recorder, 1U) << link;
        EXPECT_TRUE(again.is_new) << link;
        EXPECT_EQ(again.missing, number) << link;
        EXPECT_EQ(same.take(1, of_link(from(interface("l2vpnd-1"), number + 9), link)).recorder, 2U)
            << "in a file, too";
    }
}

/* What waited for the link is recorded as it goes out, and the link is up then. */
TEST(recorders, what_an_owner_sends_before_its_link_is_up_is_of_the_same_run)
{
    recorders all(recorders::join::with_gap);
    const auto owner = [](uint64_t number) { return numbered(number, observer::owner); };
    EXPECT_EQ(all.take(0, over_link(owner(0), 1, flow::to_process)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(owner(1), 1)).recorder, 0U);
    EXPECT_EQ(all.take(0, over_link(owner(2), 1, flow::to_owner)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(owner(3), 1, record_kind::link_down)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(owner(4), 2, record_kind::link_refused)).recorder, 0U);
    EXPECT_EQ(all.take(0, over_link(owner(5), 3, flow::to_process)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(owner(6), 3)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(owner(7), 1)).recorder, 1U) << "another process of this pid";
}

TEST(recorders, a_link_that_comes_up_late_is_the_same)
{
    recorders all(recorders::join::with_gap);
    EXPECT_EQ(all.take(0, numbered(0)).recorder, 0U);
    EXPECT_EQ(all.take(0, over_link(numbered(2), 1, flow::to_process)).recorder, 0U);
    EXPECT_EQ(all.take(0, of_link(numbered(1), 1)).recorder, 0U);
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
