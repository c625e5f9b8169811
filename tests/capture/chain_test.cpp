/*
 * What l2vpnctl explain follows of one AC, where records are missing.
 */
#include "chain.h"
#include "daemon.h"

#include <gtest/gtest.h>

using namespace process_test;
using namespace l2vpn::capture;
using l2vpnctl::chain;
using l2vpnctl::standing;

namespace {

constexpr uint32_t the_handle = 0x11;

captured received(uint64_t number, const octets &message)
{
    captured made{.time = 1000 + number, .head = {}, .message = message};
    made.head.kind = record_kind::message;
    made.head.direction = flow::to_process;
    made.head.by = observer::process;
    made.head.class_id = 3;
    made.head.nodeid = 7;
    made.head.pid = 4711;
    made.head.link = 1;
    made.head.number = number;
    made.head.length = static_cast<uint32_t>(message.size());
    return made;
}

/* The same over another link. */
captured over(uint64_t link, captured record, uint32_t pid = 4711)
{
    record.head.link = link;
    record.head.pid = pid;
    return record;
}

captured ended(uint64_t number, uint64_t link)
{
    captured made = over(link, received(number, {}));
    made.head.kind = record_kind::link_down;
    made.head.direction = flow::none;
    return made;
}

std::string codes(const chain &of)
{
    std::string all;
    for (const l2vpnctl::chain_step &step : of.steps()) {
        all += (all.empty() ? "" : " ") + step.code;
    }
    return all;
}

} // namespace

TEST(chain, knows_who_has_it_where_nothing_is_missing)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle})));
    story.take(0, received(1, remove({the_handle})));
    story.take(0, received(2, update(3, {the_handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted update-ignored");
    EXPECT_FALSE(story.latest({})->in_doubt);
}

TEST(chain, takes_what_is_missing_for_its_create)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle})));
    story.take(0, received(1, remove({the_handle})));
    story.take(0, received(3, update(3, {the_handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated");
    story.take(0, received(4, remove({the_handle})));
    story.take(0, received(5, update(3, {the_handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated deleted update-ignored");
}

TEST(chain, takes_what_was_cut_for_its_create)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle})));
    story.take(0, received(1, remove({the_handle})));
    captured cut = received(2, create(3, {0x12, the_handle}));
    cut.message.resize(22); /* the first handle, and half of the second */
    story.take(0, cut);
    EXPECT_TRUE(story.latest({})->in_doubt);
    story.take(0, received(3, update(3, {the_handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated");
}

TEST(chain, goes_on_where_another_part_of_the_capture_has_stopped)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle}, 0x1)));
    story.take(1, received(1, create(3, {0x12}, 0x2)));
    EXPECT_EQ(codes(story), "created batch-closed");
    EXPECT_FALSE(story.latest({})->batched);
    story.take(1, received(2, remove({the_handle})));
    EXPECT_EQ(codes(story), "created batch-closed deleted");
    EXPECT_EQ(story.latest({})->where, standing::place::deleted);
    EXPECT_FALSE(story.latest({})->in_doubt);
}

/* Two that were recorded at the same moment: the earlier one has come first into the next part. */
TEST(chain, goes_on_where_a_record_of_the_part_before_was_overtaken)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle}, 0x1)));
    story.take(0, received(2, header(0, 0, 0).bytes()));
    story.take(1, received(1, create(3, {0x12})));
    story.take(1, received(3, remove({the_handle})));
    EXPECT_EQ(codes(story), "created batch-closed deleted");
    EXPECT_EQ(story.latest(0)->where, standing::place::deleted) << "of one process";
    EXPECT_EQ(story.latest(1), nullptr);
}

TEST(chain, leaves_an_ac_with_a_newer_link_of_its_client)
{
    chain story({7, 3, the_handle});
    story.take(0, over(2, received(0, create(3, {the_handle}))));
    story.take(0, over(1, received(1, create(3, {the_handle}))));
    story.take(0, over(1, received(2, update(3, {the_handle}, 1))));
    EXPECT_EQ(codes(story), "created create-ignored update-ignored");
    EXPECT_EQ(story.latest({})->link, 2U);
    EXPECT_FALSE(story.steps()[1].is_fault) << "nothing is to be done";
    EXPECT_EQ(story.latest({})->since, 1000U) << "nor has anything changed";
    story.take(0, ended(3, 2));
    story.take(0, over(1, received(4, create(3, {the_handle}))));
    EXPECT_EQ(codes(story), "created create-ignored update-ignored withdrawn created")
        << "which is not held by then";
    story.take(0, over(3, received(5, create(3, {the_handle}))));
    EXPECT_EQ(codes(story), "created create-ignored update-ignored withdrawn created taken-over")
        << "a newer one takes it";
}

TEST(chain, does_not_take_what_is_dropped_or_ignored_for_a_change)
{
    octets malformed = update(3, {the_handle}, 1);
    malformed.pop_back();
    chain story({7, 3, the_handle});
    story.take(0, received(0, malformed));
    EXPECT_EQ(story.latest({})->since, 1000U);
    story.take(0, received(1, malformed));
    EXPECT_EQ(story.latest({})->since, 1000U);
    story.take(0, received(2, create(3, {the_handle})));
    EXPECT_EQ(story.latest({})->since, 1002U);
    story.take(0, received(3, malformed));
    EXPECT_EQ(story.latest({})->since, 1002U);
    story.take(0, received(4, update(3, {the_handle}, 1)));
    EXPECT_EQ(story.latest({})->since, 1004U);
    story.take(0, received(5, remove({the_handle})));
    story.take(0, received(6, remove({the_handle})));
    EXPECT_EQ(story.latest({})->since, 1005U);
    EXPECT_EQ(codes(story),
              "dropped:length dropped:length created dropped:length updated deleted delete-ignored");
}

TEST(chain, takes_over_from_a_newer_link_of_another_client)
{
    for (const auto &[older, newer] : {std::pair(4711U, 4712U), std::pair(0U, 0U)}) {
        chain story({7, 3, the_handle});
        story.take(0, over(2, received(0, create(3, {the_handle})), newer));
        story.take(0, over(1, received(1, create(3, {the_handle})), older));
        EXPECT_EQ(codes(story), "created taken-over") << older;
        EXPECT_EQ(story.latest({})->link, 1U) << older;
    }
}

TEST(chain, keeps_processes_apart_whose_records_do_not_go_on)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {the_handle}, 0x1)));
    story.take(1, received(0, create(3, {0x12}, 0x2)));
    EXPECT_EQ(codes(story), "created");
    EXPECT_TRUE(story.latest({})->batched);
}

/* Each has an interface of its own, and counts for itself. */
TEST(chain, keeps_processes_apart_that_take_turns_in_one_file)
{
    const auto interface = std::make_shared<const std::string>("l2vpnd-1");
    const auto other = std::make_shared<const std::string>("l2vpnd-2");
    const auto in = [](const auto &which, captured record) {
        record.interface = which;
        return record;
    };
    chain story({7, 3, the_handle});
    story.take(0, in(interface, received(0, create(3, {the_handle}, 0x1))));
    story.take(0, in(other, received(0, create(3, {0x12}))));
    story.take(0, in(interface, received(1, update(3, {the_handle}, 1))));
    story.take(0, in(other, received(1, create(3, {0x13}, 0x2))));
    story.take(0, in(other, received(2, remove({the_handle}))));
    EXPECT_EQ(codes(story), "created updated delete-ignored");
    EXPECT_EQ(story.latest({})->where, standing::place::held);
    EXPECT_TRUE(story.latest({})->batched) << "the other's batch is another";
}

TEST(chain, forgets_open_batches_where_their_end_may_be_missing)
{
    chain story({7, 3, the_handle});
    story.take(0, received(0, create(3, {0x12}, 0x1)));
    story.take(0, received(2, create(3, {the_handle}, 0)));
    EXPECT_STREQ(story.steps()[0].batch, "not-known");
}
