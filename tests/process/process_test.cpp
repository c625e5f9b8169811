/*
 * The process without sockets: owners, their ACs, limits, counters.
 */
#include "support.h"

#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

octets info_of(const bench &b, uint32_t class_id, uint32_t handle)
{
    const bytes info = b.process.acs().store(class_id).info(b.slot(class_id, handle));
    return {info.begin(), info.end()};
}

} // namespace

TEST(owners, of_every_class_but_15_are_accepted)
{
    bench b;
    for (uint32_t class_id = 0; class_id < 18; class_id++) {
        const owner *o = b.connect(class_id);
        EXPECT_EQ(o != nullptr, class_id != 15) << class_id;
        EXPECT_EQ(b.status, class_id != 15 ? EOK : EINVAL);
    }
    EXPECT_EQ(b.connect(18), nullptr);
    EXPECT_EQ(b.connect(0xFFFFFFFF), nullptr);
    EXPECT_EQ(b.process.owners().size(), 17U);
    EXPECT_EQ(b.process.owners_refused(), 3U);
    EXPECT_TRUE(b.logged("owner refused (class 15, node 7, pid 4726, uid 1000): no such class"));
}

TEST(owners, are_limited)
{
    bench b({.max_owners = 2});
    owner *first = b.connect(0);
    EXPECT_NE(b.connect(0), nullptr);
    EXPECT_EQ(b.connect(0), nullptr);
    EXPECT_EQ(b.status, static_cast<qerrno>(EUSERS));
    b.process.closed(*first, EOK);
    EXPECT_NE(b.connect(0), nullptr);
}

TEST(acs, are_kept_as_they_came)
{
    bench b;
    owner *o = b.connect(6);
    const octets message = create(6, {0x01020304, 0x05060708}, 3, "port");
    b.process.received(*o, message);
    ASSERT_EQ(b.process.acs().size(), 2U);
    const ac_store &store = b.process.acs().store(6);
    const uint32_t slot = b.slot(6, 0x05060708);
    ASSERT_NE(slot, no_slot);
    const bytes kept = store.definition(slot);
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), message.begin() + 16 + 8 + 616));
    EXPECT_EQ(info_of(b, 6, 0x05060708), octets(message.end() - 200, message.end()));
    EXPECT_EQ(b.ac(6, 0x05060708).node, 7U);
    EXPECT_EQ(o->count.acs_created, 2U);
    EXPECT_EQ(o->count.received[2], 1U);
    EXPECT_EQ(o->count.records[2], 2U);
    EXPECT_EQ(o->count.bytes_received, message.size());
}

TEST(acs, are_told_apart_by_node_class_and_handle)
{
    bench b;
    b.process.received(*b.connect(0, 1), create(0, {1}));
    b.process.received(*b.connect(0, 2), create(0, {1}));
    b.process.received(*b.connect(3, 1), create(3, {1}));
    EXPECT_EQ(b.process.acs().size(), 3U);
}

TEST(acs, created_again_are_replaced)
{
    bench b;
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {1, 2}, 3, "old"));
    octets again = create(0, {1}, 3, "new");
    b.process.received(*o, again);
    EXPECT_EQ(b.process.acs().size(), 2U);
    EXPECT_EQ(o->count.acs_replaced, 1U);
    EXPECT_EQ(b.process.acs().store(0).definition(b.slot(0, 1))[0], 'n');
    EXPECT_EQ(o->ac_count(), 2U);
}

TEST(acs, twice_in_one_message_are_one)
{
    bench b;
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {5, 5, 5}));
    EXPECT_EQ(b.process.acs().size(), 1U);
    EXPECT_EQ(o->ac_count(), 1U);
}

TEST(acs, go_with_their_owner)
{
    bench b;
    owner *gone = b.connect(0, 1);
    owner *stays = b.connect(0, 2);
    b.process.received(*gone, create(0, handles_from(1, 300)));
    b.process.received(*gone, create(0, {1000}, 0x1));
    b.process.received(*stays, create(0, {1}));
    b.process.closed(*gone, ECONNRESET);
    EXPECT_EQ(b.process.acs().size(), 1U);
    EXPECT_EQ(b.process.totals().acs_withdrawn, 301U) << "those of the open batch too";
    EXPECT_EQ(b.process.totals().batch.abandoned, 1U);
    EXPECT_EQ(b.process.owners().size(), 1U);
    EXPECT_TRUE(b.logged("301 ACs withdrawn"));
}

/* What a client process has sent over a link that has ended may be read after what it says over the next one. */
TEST(acs, of_a_newer_link_of_the_same_client_are_not_taken_by_the_older_one)
{
    bench b;
    owner *before = b.connect(0, 7, 65536, 99);
    owner *after = b.connect(0, 7, 65536, 99);
    b.process.received(*after, create(0, {1, 2}));
    b.process.received(*before, create(0, {1, 2, 3}));
    EXPECT_EQ(before->count.acs_outdated, 2U);
    EXPECT_EQ(before->count.acs_taken_over, 0U);
    EXPECT_EQ(before->ac_count(), 1U);
    EXPECT_TRUE(b.logged("which it has said since over a newer link"));
    b.process.closed(*before, EPIPE);
    EXPECT_EQ(after->ac_count(), 2U) << "what it says last is what counts";
    EXPECT_EQ(b.process.acs().size(), 2U);
}

TEST(acs, belong_to_the_owner_that_created_them_last)
{
    bench b;
    owner *before = b.connect(0);
    owner *after = b.connect(0);
    b.process.received(*before, create(0, {1, 2}));
    b.process.received(*after, create(0, {1}));
    EXPECT_EQ(after->count.acs_taken_over, 1U);
    EXPECT_EQ(before->ac_count(), 1U);
    b.process.received(*before, update(0, {1}, 0x77));
    EXPECT_EQ(before->count.unknown_updates, 1U);
    b.process.received(*before, remove({1}));
    EXPECT_EQ(before->count.unknown_deletes, 1U);
    b.process.closed(*before, EOK);
    EXPECT_NE(b.slot(0, 1), no_slot) << "the old link's end takes nothing from the new owner";
    EXPECT_EQ(b.slot(0, 2), no_slot);
}

TEST(acs, are_updated)
{
    bench b;
    owner *o = b.connect(2);
    b.process.received(*o, create(2, {1, 2}));
    b.process.received(*o, update(2, {2, 3}, 0x55));
    EXPECT_EQ(info_of(b, 2, 2), pattern(20, 0x55));
    EXPECT_EQ(info_of(b, 2, 1), pattern(20, 1));
    EXPECT_EQ(b.slot(2, 3), no_slot) << "an update creates nothing";
    EXPECT_EQ(o->count.acs_updated, 1U);
    EXPECT_EQ(o->count.unknown_updates, 1U);
    EXPECT_TRUE(b.logged("update of AC 0x00000003"));
}

TEST(acs, are_deleted)
{
    bench b;
    owner *o = b.connect(2);
    b.process.received(*o, create(2, {1, 2, 3}));
    b.process.received(*o, remove({1, 3, 9}));
    EXPECT_EQ(b.process.acs().size(), 1U);
    EXPECT_EQ(o->count.acs_deleted, 2U);
    EXPECT_EQ(o->count.unknown_deletes, 1U);
    b.process.received(*o, remove({2}));
    EXPECT_EQ(b.process.acs().size(), 0U);
    b.process.received(*o, create(2, {2}));
    EXPECT_EQ(b.process.acs().size(), 1U);
}

TEST(acs, are_limited_and_a_message_is_taken_whole_or_not)
{
    bench b({.max_acs = 4});
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {1, 2, 3}));
    b.process.received(*o, create(0, {4, 5}));
    EXPECT_EQ(b.process.acs().size(), 3U);
    EXPECT_EQ(dropped(*o, drop::limit), 1U);
    EXPECT_TRUE(b.logged("the table is full"));
    b.process.received(*o, create(0, {1, 2, 3, 4}));
    EXPECT_EQ(b.process.acs().size(), 4U) << "known ACs need no room";
    b.process.received(*b.connect(3), create(3, {1}));
    EXPECT_EQ(b.process.acs().size(), 4U) << "the limit is that of all classes";
}

TEST(acs, of_a_batch_are_settled_at_its_end)
{
    bench b;
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {1}, 0x1));
    b.process.received(*o, create(0, {2}, 0x0));
    EXPECT_EQ(b.ac(0, 1).stage, ac_stage::batched);
    EXPECT_EQ(o->list(ac_stage::batched).count, 2U);
    b.process.received(*o, create(0, {3}, 0x2));
    EXPECT_EQ(o->list(ac_stage::batched).count, 0U);
    EXPECT_EQ(o->list(ac_stage::settled).count, 3U);
}

TEST(acs, of_a_batch_are_settled_by_an_empty_create)
{
    bench b;
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {1}, 0x1));
    b.process.received(*o, header(2, 0, 0x2).bytes());
    EXPECT_EQ(b.ac(0, 1).stage, ac_stage::settled);
}

TEST(acs, of_a_batch_whose_last_message_does_not_fit_are_settled_too)
{
    bench b({.max_acs = 1});
    owner *o = b.connect(0);
    b.process.received(*o, create(0, {1}, 0x1));
    b.process.received(*o, create(0, {2}, 0x2));
    EXPECT_EQ(b.ac(0, 1).stage, ac_stage::settled);
    EXPECT_FALSE(o->batch.of(2).open);
}
