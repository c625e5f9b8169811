/*
 * Provisioning: what is sent, in which form, and when.
 */
#include "encoder.h"
#include "support.h"

#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

const std::vector<octets> &sent(bench &b, const owner &to)
{
    return b.out.sent[to.info.peer_id];
}

/* PROV of one AC: header, handle, seven words, tail. */
octets provision_of(uint32_t xcid, uint32_t nodeid, uint32_t handle, const octets &info, const octets &tail)
{
    return header(7, 1, 0)
        .u32(handle)
        .u32(xcid)
        .u32(nodeid)
        .u32(handle)
        .raw(octets(info.begin(), info.begin() + 16))
        .raw(tail)
        .bytes();
}

octets tail_of(uint32_t class_id, const octets &info)
{
    const octets part(info.begin() + 16, info.end());
    octets tail;
    switch (class_id) {
    case 0:
    case 1:
    case 2:
    case 16:
        return part;
    case 8:
        tail.assign(36, 0);
        tail = builder().raw(tail).u32(2340).raw(part).bytes();
        tail.resize(2648);
        return tail;
    case 11:
        tail = part;
        tail.resize(39);
        return tail;
    default:
        return {};
    }
}

} // namespace

class provision_of_class : public testing::TestWithParam<uint32_t> {};

TEST_P(provision_of_class, has_the_layout_of_its_class)
{
    const uint32_t class_id = GetParam();
    bench b({.nodeid = 0x61626364, .auto_provision = true});
    owner *o = b.connect(class_id);
    const uint32_t handle = 0x11121314;
    b.process.received(*o, create(class_id, {handle}));
    ASSERT_EQ(sent(b, *o).size(), 1U);
    const octets info = pattern(info_size(class_id), 0x14);
    EXPECT_EQ(sent(b, *o)[0], provision_of(1, 0x61626364, handle, info, tail_of(class_id, info)));
    EXPECT_TRUE(b.ac(class_id, handle).provisioned);
    EXPECT_EQ(b.ac(class_id, handle).xcid, 1U);
    EXPECT_EQ(o->count.sent[7], 1U);
}

INSTANTIATE_TEST_SUITE_P(classes, provision_of_class,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 8, 10, 11, 12, 13, 14, 16));

TEST(provisioning, is_never_sent_to_a_class_without_layout)
{
    bench b({.auto_provision = true});
    for (const uint32_t class_id : {7U, 17U}) {
        owner *o = b.connect(class_id);
        b.process.received(*o, create(class_id, {1, 2}));
        EXPECT_EQ(b.process.acs().store(class_id).size(), 2U);
        EXPECT_TRUE(sent(b, *o).empty()) << class_id;
        EXPECT_FALSE(l2vpn_process::can_provision(*o));
        EXPECT_FALSE(b.anything_waits());
    }
    EXPECT_FALSE(l2vpn_process::can_provision(*b.connect(9)));
}

TEST(provisioning, needs_a_link_wide_enough_for_one_ac)
{
    bench b({.auto_provision = true});
    EXPECT_TRUE(l2vpn_process::can_provision(*b.connect(8, 7, 16 + 2680)));
    owner *narrow = b.connect(8, 7, 16 + 2679);
    EXPECT_FALSE(l2vpn_process::can_provision(*narrow));
    b.process.received(*narrow, create(8, {1}));
    EXPECT_TRUE(sent(b, *narrow).empty());
    EXPECT_FALSE(b.anything_waits());
}

/* Its owner was told of no AC, so there is none to take back; whoever wants to comes to an end. */
TEST(provisioning, says_nothing_on_a_link_too_narrow_for_a_handle)
{
    bench b;
    owner *wide = b.connect(3);
    b.process.received(*wide, create(3, {1, 2}));
    wide->info.mtu = 19;
    for (const bool provisioned : {false, true}) {
        b.process.want(*wide, b.process.acs().store(3).find(7, 1), provisioned);
        b.process.send_waiting(*wide);
        EXPECT_TRUE(sent(b, *wide).empty());
        EXPECT_FALSE(b.anything_waits());
        EXPECT_EQ(b.ac(3, 1).stage, ac_stage::settled);
    }
}

TEST(provisioning, waits_for_the_end_of_the_batch)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1, 2}, 0x1));
    b.process.received(*o, create(3, {3}, 0x0));
    EXPECT_TRUE(sent(b, *o).empty());
    b.process.received(*o, create(3, {4}, 0x2));
    ASSERT_EQ(sent(b, *o).size(), 1U);
    const octets &message = sent(b, *o)[0];
    EXPECT_EQ(message.size(), 16 + 4 * 32U);
    EXPECT_EQ(get32(message.data() + 8), 4U);
    for (uint32_t i = 0; i < 4; i++) {
        EXPECT_EQ(get32(message.data() + 16 + static_cast<size_t>(4) * i), i + 1)
            << "in the order of creation";
        EXPECT_EQ(get32(message.data() + 32 + static_cast<size_t>(28) * i), i + 1) << "ids count from 1";
    }
}

TEST(provisioning, is_off_unless_asked_for)
{
    bench b;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1}));
    EXPECT_TRUE(sent(b, *o).empty());
    EXPECT_EQ(b.ac(3, 1).stage, ac_stage::settled);
    EXPECT_FALSE(b.ac(3, 1).provisioned);
}

TEST(provisioning, is_cut_to_the_mtu)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3, 7, 16 + 32 * 10 + 31);
    b.process.received(*o, create(3, handles_from(1, 21)));
    ASSERT_EQ(sent(b, *o).size(), 3U);
    EXPECT_EQ(sent(b, *o)[0].size(), 16 + 32 * 10U);
    EXPECT_EQ(sent(b, *o)[2].size(), 16 + 32U);
    EXPECT_EQ(o->count.acs_provisioned, 21U);
}

TEST(provisioning, waits_for_an_owner_that_does_not_read)
{
    bench b({.auto_provision = true});
    b.out.status = ENOBUFS;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1, 2}));
    EXPECT_TRUE(b.anything_waits());
    EXPECT_EQ(b.ac(3, 1).stage, ac_stage::waiting);
    EXPECT_FALSE(b.ac(3, 1).provisioned);
    b.out.status = EOK;
    b.out.waiting = 1 << 30;
    b.process.send_all_waiting();
    EXPECT_TRUE(b.anything_waits()) << "its queue is long enough";
    b.out.waiting = 0;
    b.process.send_all_waiting();
    EXPECT_FALSE(b.anything_waits());
    EXPECT_TRUE(b.ac(3, 1).provisioned);
    EXPECT_EQ(o->count.send_failures, 0U);
}

TEST(provisioning, of_an_ac_that_vanished_while_it_waited_is_not_sent)
{
    bench b({.auto_provision = true});
    b.out.status = ENOBUFS;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1, 2, 3}));
    b.process.received(*o, remove({2}));
    b.out.status = EOK;
    b.process.send_all_waiting();
    ASSERT_EQ(sent(b, *o).size(), 1U);
    EXPECT_EQ(get32(sent(b, *o)[0].data() + 8), 2U);
    EXPECT_EQ(get32(sent(b, *o)[0].data() + 20), 3U);
}

TEST(provisioning, can_be_undone)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1, 2, 3}));
    b.process.want(*o, b.slot(3, 1), false);
    b.process.want(*o, b.slot(3, 3), false);
    b.process.send_all_waiting();
    ASSERT_EQ(sent(b, *o).size(), 2U);
    EXPECT_EQ(sent(b, *o)[1], header(8, 2, 0).u32(1).u32(3).bytes());
    EXPECT_FALSE(b.ac(3, 1).provisioned);
    EXPECT_TRUE(b.ac(3, 2).provisioned);
    EXPECT_EQ(o->count.acs_unprovisioned, 2U);
}

TEST(provisioning, keeps_the_order_of_what_is_wanted)
{
    bench b;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1, 2, 3}));
    b.process.want(*o, b.slot(3, 1), true);
    b.process.want(*o, b.slot(3, 2), false);
    b.process.want(*o, b.slot(3, 3), true);
    b.process.send_all_waiting();
    ASSERT_EQ(sent(b, *o).size(), 3U);
    EXPECT_EQ(sent(b, *o)[0][7], 7);
    EXPECT_EQ(sent(b, *o)[1][7], 8);
    EXPECT_EQ(sent(b, *o)[2][7], 7);
}

TEST(provisioning, what_is_wanted_last_counts)
{
    bench b;
    b.out.status = ENOBUFS;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1}));
    b.process.want(*o, b.slot(3, 1), true);
    b.process.want(*o, b.slot(3, 1), false);
    b.out.status = EOK;
    b.process.send_all_waiting();
    ASSERT_EQ(sent(b, *o).size(), 1U);
    EXPECT_EQ(sent(b, *o)[0], header(8, 1, 0).u32(1).bytes());
}

TEST(provisioning, of_an_ac_created_again_starts_anew_with_the_same_id)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1}));
    b.process.received(*o, create(3, {2}));
    b.process.received(*o, create(3, {1}, 0x1));
    EXPECT_FALSE(b.ac(3, 1).provisioned);
    b.process.received(*o, create(3, {}, 0x2));
    EXPECT_TRUE(b.ac(3, 1).provisioned);
    EXPECT_EQ(b.ac(3, 1).xcid, 1U);
    EXPECT_EQ(sent(b, *o).size(), 3U);
}

TEST(provisioning, a_link_that_fails_is_counted)
{
    bench b({.auto_provision = true});
    b.out.status = EPIPE;
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1}));
    EXPECT_EQ(o->count.send_failures, 1U);
    EXPECT_EQ(o->count.sent[7], 0U);
    EXPECT_FALSE(b.ac(3, 1).provisioned);
}

TEST(notices, are_encoded_byte_for_byte)
{
    bulk_notice record;
    record.word = 0x01020304;
    record.half = 0x0506;
    record.octets = {0x07, 0x08};
    record.words = {0x090a0b0c, 0x0d0e0f10, 0x11121314, 0x15161718};
    record.opaque = {0x19, 0x1a, 0x1b, 0x1c};
    record.word2 = 0x1d1e1f20;
    EXPECT_EQ(encode_bulk_notify({&record, 1}, 0xa1b2c3d4),
              header(13, 1, 0xa1b2c3d4).raw(pattern(32, 1)).bytes());
    EXPECT_EQ(encode_bulk_notify({}, 2), header(13, 0, 2).bytes());
    EXPECT_EQ(encode_header(15, 0x21222324, 0x25262728), header(15, 0x21222324, 0x25262728).bytes());
}
