/*
 * The process without sockets: batches that span links, messages that are wrong.
 */
#include "support.h"

#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

/* One client process, three classes; its library knows one batch for all of them. */
TEST(batches_of_a_client, end_together_on_all_its_links)
{
    bench b;
    owner *one = b.connect(0, 7, 65536, 100);
    owner *two = b.connect(3, 7, 65536, 100);
    owner *stranger = b.connect(0, 8, 65536, 200);
    b.process.received(*one, create(0, {1}, 0x1));
    b.process.received(*one, header(9, 1, 0x1).u16(5).u16(50).bytes());
    b.process.received(*two, create(3, {1}, 0x0));
    b.process.received(*stranger, create(0, {2}, 0x1));
    EXPECT_EQ(b.ac(3, 1).stage, ac_stage::settled) << "it is no part of a batch of its own link";
    b.process.received(*two, create(3, {2}, 0x2));
    EXPECT_FALSE(one->batch.of(2).open);
    EXPECT_EQ(b.ac(0, 1).stage, ac_stage::settled);
    EXPECT_TRUE(one->batch.of(9).open) << "another type";
    EXPECT_TRUE(stranger->batch.of(2).open) << "another client";
    EXPECT_EQ(one->mstp.vlans().size(), 0U);
    b.process.received(*two, header(9, 0, 0x2).bytes());
    EXPECT_FALSE(one->batch.of(9).open);
    EXPECT_EQ(one->mstp.vlans().msti(50), 5);
    EXPECT_EQ(one->count.batch.closed, 2U);
}

TEST(batches_of_a_client, of_a_link_that_ended_are_forgotten)
{
    bench b;
    owner *one = b.connect(0, 7, 65536, 100);
    b.process.received(*one, create(0, {1}, 0x1));
    b.process.closed(*one, EOK);
    owner *two = b.connect(3, 7, 65536, 100);
    owner *three = b.connect(4, 7, 65536, 100);
    b.process.received(*two, create(3, {1}, 0x1));
    b.process.received(*three, create(4, {2}, 0x3));
    EXPECT_FALSE(two->batch.of(2).open);
    EXPECT_EQ(b.process.totals().batch.closed, 2U);
    EXPECT_EQ(b.process.totals().batch.abandoned, 1U);
}

TEST(batches_of_a_client, are_those_of_its_latest_link_of_each_class)
{
    bench b;
    owner *stale = b.connect(0, 7, 65536, 100);
    b.process.received(*stale, create(0, {1}, 0x1));
    owner *latest = b.connect(0, 7, 65536, 100);
    owner *other = b.connect(3, 7, 65536, 100);
    b.process.received(*latest, create(0, {2}, 0x1));
    b.process.received(*other, create(3, {1}, 0x3));
    EXPECT_FALSE(latest->batch.of(2).open);
    EXPECT_TRUE(stale->batch.of(2).open);
    b.process.closed(*stale, EOK);
    b.process.received(*latest, create(0, {3}, 0x1));
    b.process.received(*other, create(3, {2}, 0x3));
    EXPECT_FALSE(latest->batch.of(2).open) << "the end of the stale link takes nothing from the latest";
}

TEST(batches_of_a_client, without_a_pid_are_those_of_one_link)
{
    bench b;
    owner *one = b.connect(0, 7, 65536, -1);
    owner *two = b.connect(0, 7, 65536, -1);
    b.process.received(*one, create(0, {1}, 0x1));
    b.process.received(*two, create(0, {2}, 0x3));
    EXPECT_TRUE(one->batch.of(2).open);
}

TEST(messages, that_are_wrong_change_nothing_but_a_counter)
{
    bench b;
    owner *o = b.connect(9);
    owner *other = b.connect(0);
    b.process.received(*other, create(0, {1}));
    const struct {
        octets message;
        drop reason;
    } rows[] = {
        {{1, 2, 3}, drop::header},
        {builder().u32(4).u32(2).u32(0).u32(1).bytes(), drop::mark},
        {header(4, 0, 1).bytes(), drop::type},
        {header(7, 0, 1).bytes(), drop::direction},
        {create(9, {1}, 1), drop::layout},
        {header(6, 0xFFFFFFFF, 0x10).bytes(), drop::length},
        {remove({0}, 0x10), drop::handle},
    };
    for (const auto &row : rows) {
        b.process.received(*o, row.message);
        EXPECT_EQ(dropped(*o, row.reason), 1U) << drop_name(row.reason);
        EXPECT_TRUE(b.logged(drop_text(row.reason))) << drop_name(row.reason);
    }
    EXPECT_EQ(o->count.all_dropped(), std::size(rows));
    EXPECT_EQ(o->count.batch.opened, 0U);
    EXPECT_EQ(b.process.acs().size(), 1U);
    EXPECT_EQ(other->count.all_dropped(), 0U);
}

TEST(messages, that_are_wrong_are_logged_with_their_first_bytes)
{
    bench b;
    owner *o = b.connect(5);
    b.process.received(*o, header(0x01020304, 5, 6).raw(pattern(100, 0xa0)).bytes());
    EXPECT_TRUE(
        b.logged("owner 1 (class 5, node 7, pid 4711): message of 116 bytes dropped: unknown message type: "
                 "00000003010203040000000500000006a0a1a2a3a4a5a6a7a8a9aaabacadaeaf..."));
}

TEST(messages, of_all_owners_are_counted_together_also_of_those_that_went)
{
    bench b;
    owner *first = b.connect(0);
    owner *second = b.connect(1);
    b.process.received(*first, header(0, 0, 0).bytes());
    b.process.received(*first, create(0, {1, 2}));
    b.process.received(*second, header(0, 0, 0).bytes());
    b.process.received(*second, octets{1});
    b.process.closed(*first, EOK);
    const counters all = b.process.totals();
    EXPECT_EQ(all.received[0], 2U);
    EXPECT_EQ(all.records[2], 2U);
    EXPECT_EQ(all.acs_created, 2U);
    EXPECT_EQ(all.acs_withdrawn, 2U);
    EXPECT_EQ(all.all_dropped(), 1U);
    EXPECT_EQ(b.process.owners_seen(), 2U);
}

TEST(messages, of_random_bytes_do_no_harm)
{
    bench b({.max_acs = 1000, .max_mstp = 1000});
    std::vector<owner *> owners;
    for (uint32_t class_id = 0; class_id < 18; class_id++) {
        if (class_id != 15) {
            owners.push_back(b.connect(class_id));
        }
    }
    uint64_t state = 88172645463325252U;
    const auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<uint32_t>(state >> 11);
    };
    for (int i = 0; i < 20000; i++) {
        owner &o = *owners[next() % owners.size()];
        octets message = header(next() % 18, next() % 6, next()).bytes();
        const octets body = pattern(next() % 3000, static_cast<uint8_t>(next()));
        switch (next() % 3) {
        case 0:
            message = create(o.info.class_id, handles_from(next(), next() % 4), next());
            break;
        case 1:
            message.insert(message.end(), body.begin(), body.end());
            break;
        default:
            message = update(o.info.class_id, handles_from(1 + next() % 2000, next() % 4), 1, next());
        }
        message[next() % message.size()] ^= static_cast<uint8_t>(1U << next() % 8);
        b.process.received(o, message);
    }
    uint64_t held = 0;
    for (const owner *o : owners) {
        held += o->ac_count();
    }
    EXPECT_EQ(held, b.process.acs().size());
    EXPECT_GT(held, 0U);
    EXPECT_GT(b.process.totals().all_dropped(), 1000U);
    for (owner *o : owners) {
        b.process.closed(*o, EOK);
    }
    EXPECT_EQ(b.process.acs().size(), 0U);
    EXPECT_EQ(b.process.mstp_budget().used, 0U);
}
