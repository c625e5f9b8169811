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

constexpr uint32_t handle = 0x11;

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
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {handle})));
    story.take(0, received(1, remove({handle})));
    story.take(0, received(2, update(3, {handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted update-ignored");
    EXPECT_FALSE(story.latest({})->in_doubt);
}

TEST(chain, takes_what_is_missing_for_its_create)
{
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {handle})));
    story.take(0, received(1, remove({handle})));
    story.take(0, received(3, update(3, {handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated");
    story.take(0, received(4, remove({handle})));
    story.take(0, received(5, update(3, {handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated deleted update-ignored");
}

TEST(chain, takes_what_was_cut_for_its_create)
{
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {handle})));
    story.take(0, received(1, remove({handle})));
    captured cut = received(2, create(3, {0x12, handle}));
    cut.message.resize(22); /* the first handle, and half of the second */
    story.take(0, cut);
    EXPECT_TRUE(story.latest({})->in_doubt);
    story.take(0, received(3, update(3, {handle}, 1)));
    EXPECT_EQ(codes(story), "created deleted updated");
}

TEST(chain, goes_on_where_another_part_of_the_capture_has_stopped)
{
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {handle}, 0x1)));
    story.take(1, received(1, create(3, {0x12}, 0x2)));
    EXPECT_EQ(codes(story), "created batch-closed");
    EXPECT_FALSE(story.latest({})->batched);
    story.take(1, received(2, remove({handle})));
    EXPECT_EQ(codes(story), "created batch-closed deleted");
    EXPECT_EQ(story.latest({})->where, standing::place::deleted);
    EXPECT_FALSE(story.latest({})->in_doubt);
}

TEST(chain, keeps_processes_apart_whose_records_do_not_go_on)
{
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {handle}, 0x1)));
    story.take(1, received(0, create(3, {0x12}, 0x2)));
    EXPECT_EQ(codes(story), "created");
    EXPECT_TRUE(story.latest({})->batched);
}

TEST(chain, forgets_open_batches_where_their_end_may_be_missing)
{
    chain story({7, 3, handle});
    story.take(0, received(0, create(3, {0x12}, 0x1)));
    story.take(0, received(2, create(3, {handle}, 0)));
    EXPECT_STREQ(story.steps()[0].batch, "not-known");
}
