/*
 * Batches, and what happens to the VLAN map and the other MSTP records in them.
 */
#include "batch.h"
#include "mstp_table.h"
#include "support.h"

#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

constexpr uint32_t create_type = 2;
constexpr uint32_t map_type = 9;

class batch_rules : public testing::Test {
protected:
    batch_step follow(uint32_t type, uint32_t flags, uint32_t records = 1)
    {
        return m_batches.follow(*find_message(type), flags, records, m_counters);
    }
    bool open(uint32_t type) const { return m_batches.of(type).open; }

    batches m_batches;
    batch_counters m_counters;
};

bool operator==(const batch_step &one, const batch_step &other)
{
    return one.inside == other.inside && one.opened == other.opened && one.closed == other.closed &&
           one.ends == other.ends;
}

} // namespace

TEST_F(batch_rules, first_middle_last)
{
    EXPECT_TRUE(follow(create_type, 0x1, 5) == (batch_step{true, true, false, false}));
    EXPECT_TRUE(open(create_type));
    EXPECT_TRUE(follow(create_type, 0x0, 5) == (batch_step{true, false, false, false}));
    EXPECT_EQ(m_batches.of(create_type).messages, 2U);
    EXPECT_EQ(m_batches.of(create_type).records, 10U);
    EXPECT_TRUE(follow(create_type, 0x2, 1) == (batch_step{true, false, true, true}));
    EXPECT_FALSE(open(create_type));
    EXPECT_EQ(m_counters.opened, 1U);
    EXPECT_EQ(m_counters.closed, 1U);
}

TEST_F(batch_rules, one_message_can_be_a_batch)
{
    EXPECT_TRUE(follow(create_type, 0x3) == (batch_step{true, true, true, true}));
    EXPECT_FALSE(open(create_type));
}

TEST_F(batch_rules, every_kind_has_its_own_bits)
{
    const struct {
        uint32_t type;
        uint32_t begin;
        uint32_t end;
    } rows[] = {{2, 0x1, 0x2}, {3, 0x4, 0x8}, {6, 0x10, 0x20}, {9, 0x1, 0x2}, {11, 0x1, 0x2}, {14, 0x1, 0x2}};
    for (const auto &row : rows) {
        EXPECT_FALSE(follow(row.type, ~row.begin & ~row.end).inside);
        EXPECT_TRUE(follow(row.type, row.begin).opened);
        EXPECT_FALSE(follow(row.type, ~row.begin & ~row.end).closed);
        EXPECT_TRUE(follow(row.type, row.end).closed);
    }
    EXPECT_EQ(m_counters.opened, 6U);
    EXPECT_EQ(m_counters.closed, 6U);
}

TEST_F(batch_rules, kinds_do_not_disturb_each_other)
{
    follow(create_type, 0x1);
    follow(map_type, 0x1);
    EXPECT_TRUE(follow(map_type, 0x2).closed);
    EXPECT_TRUE(open(create_type));
    EXPECT_FALSE(open(map_type));
}

TEST_F(batch_rules, an_empty_message_closes_whatever_its_flags)
{
    follow(create_type, 0x1, 5);
    EXPECT_TRUE(follow(create_type, 0x0, 0).closed);
    follow(map_type, 0x1, 5);
    EXPECT_TRUE(follow(map_type, 0x2, 0).closed);
}

TEST_F(batch_rules, an_empty_message_outside_a_batch_is_nothing)
{
    EXPECT_TRUE(follow(create_type, 0x0, 0) == (batch_step{false, false, false, true}));
    EXPECT_EQ(m_counters.closed, 0U);
}

TEST_F(batch_rules, an_end_without_a_beginning_is_counted)
{
    EXPECT_TRUE(follow(create_type, 0x2) == (batch_step{false, false, false, true}));
    EXPECT_EQ(m_counters.stray_ends, 1U);
}

TEST_F(batch_rules, a_second_beginning_goes_on)
{
    follow(create_type, 0x1);
    EXPECT_TRUE(follow(create_type, 0x1) == (batch_step{true, false, false, false}));
    EXPECT_EQ(m_counters.reopened, 1U);
    for (const uint32_t type : {9U, 11U, 14U}) {
        follow(type, 0x1);
        follow(type, 0x1);
        EXPECT_EQ(m_counters.reopened, 1U) << "type " << type << " has the bit on every message";
    }
}

TEST_F(batch_rules, joins_and_protections_are_no_batches)
{
    EXPECT_TRUE(follow(0, 0xFFFFFFFF, 0) == (batch_step{}));
    EXPECT_TRUE(follow(12, 0xFFFFFFFF) == (batch_step{}));
    EXPECT_EQ(m_counters.opened, 0U);
}

TEST_F(batch_rules, batches_of_a_link_that_ends_are_abandoned)
{
    follow(create_type, 0x1);
    follow(map_type, 0x1);
    m_batches.abandon(m_counters);
    EXPECT_EQ(m_counters.abandoned, 2U);
    EXPECT_FALSE(open(create_type));
}

namespace {

octets vlans(const std::vector<std::pair<uint16_t, uint16_t>> &msti_and_vlan, uint32_t flags)
{
    builder message = header(9, static_cast<uint32_t>(msti_and_vlan.size()), flags);
    for (const auto &[msti, vlan] : msti_and_vlan) {
        message.u16(msti).u16(vlan);
    }
    return message.bytes();
}

class mstp_records : public testing::Test {
protected:
    mstp_records() : m_owner(m_bench.connect(4)) {}
    void send(const octets &message) { m_bench.process.received(*m_owner, message); }
    const mstp_table &table() const { return m_owner->mstp; }

    bench m_bench{{.max_mstp = 5}};
    owner *m_owner;
};

octets root(uint32_t handle, uint16_t msti, uint16_t octets_ = 0x0102, uint32_t flags = 3)
{
    return header(14, 1, flags).u32(handle).u16(msti).u16(octets_).bytes();
}

} // namespace

TEST_F(mstp_records, a_map_replaces_the_one_before)
{
    send(vlans({{1, 10}, {2, 20}}, 3));
    ASSERT_EQ(table().vlans().size(), 2U);
    send(vlans({{3, 30}}, 3));
    EXPECT_EQ(table().vlans().size(), 1U);
    EXPECT_FALSE(table().vlans().has(10));
    EXPECT_EQ(table().vlans().msti(30), 3);
}

TEST_F(mstp_records, a_map_in_several_messages_replaces_at_its_end)
{
    send(vlans({{1, 10}}, 3));
    send(vlans({{2, 20}, {2, 21}}, 1));
    send(vlans({{2, 22}, {5, 20}}, 0));
    EXPECT_EQ(table().vlans().size(), 1U) << "the old map holds until the new one is complete";
    EXPECT_EQ(table().gathered().size(), 3U);
    send(vlans({{4, 4094}}, 2));
    EXPECT_EQ(table().vlans().size(), 4U);
    EXPECT_FALSE(table().vlans().has(10));
    EXPECT_EQ(table().vlans().msti(20), 5) << "the later entry of a VLAN counts";
    EXPECT_EQ(table().vlans().msti(4094), 4);
    EXPECT_EQ(table().gathered().size(), 0U);
}

TEST_F(mstp_records, an_empty_message_ends_a_map)
{
    send(vlans({{1, 10}}, 1));
    send(vlans({}, 2));
    EXPECT_EQ(table().vlans().size(), 1U);
    send(vlans({}, 2));
    EXPECT_EQ(table().vlans().size(), 1U) << "there is no batch to end";
    send(vlans({}, 3));
    EXPECT_EQ(table().vlans().size(), 0U) << "a batch of its own, of no entries";
}

TEST_F(mstp_records, entries_outside_a_batch_are_added)
{
    send(vlans({{1, 10}}, 3));
    send(vlans({{2, 20}}, 0));
    EXPECT_EQ(table().vlans().size(), 2U);
}

TEST_F(mstp_records, a_whole_map_of_4094_vlans_in_eleven_messages)
{
    uint16_t vlan = 1;
    for (int i = 0; i < 11; i++) {
        std::vector<std::pair<uint16_t, uint16_t>> part;
        for (int n = 0; n < 375 && vlan <= 4094; n++, vlan++) {
            part.emplace_back(static_cast<uint16_t>(vlan % 64), vlan);
        }
        send(vlans(part, i == 10 ? 3 : 1));
    }
    EXPECT_EQ(table().vlans().size(), 4094U);
    EXPECT_EQ(table().vlans().msti(4094), 4094 % 64);
    EXPECT_FALSE(table().vlans().has(0));
    EXPECT_FALSE(table().vlans().has(4095));
}

TEST_F(mstp_records, roots_are_kept_by_handle_and_msti)
{
    send(root(1, 1));
    send(root(1, 2));
    send(root(2, 1));
    send(root(1, 1, 0x0708));
    ASSERT_EQ(table().roots().size(), 3U);
    const auto &first = table().roots().begin()->second;
    EXPECT_EQ(octets(first.begin(), first.end()), (octets{0, 0, 0, 1, 0, 1, 7, 8}));
}

TEST_F(mstp_records, records_count_at_once_in_an_open_batch)
{
    send(root(1, 1, 1, 1));
    EXPECT_EQ(table().roots().size(), 1U);
    EXPECT_TRUE(m_owner->batch.of(14).open);
}

TEST_F(mstp_records, all_kinds_share_the_limit_and_a_message_is_taken_whole_or_not)
{
    send(root(1, 1));
    send(root(1, 2));
    send(header(11, 2, 3).raw(pattern(96, 1)).raw(pattern(96, 99)).bytes());
    send(header(12, 0, 0).raw(pattern(72, 1)).bytes());
    ASSERT_EQ(table().records(), 5U);
    send(root(1, 3));
    send(header(14, 2, 3).u32(1).u16(2).u16(9).u32(1).u16(4).u16(9).bytes());
    EXPECT_EQ(table().records(), 5U);
    EXPECT_EQ(m_owner->count.dropped[static_cast<size_t>(drop::limit)], 2U);
    EXPECT_EQ(table().roots().rbegin()->second[7], 2) << "not half of the message";
    send(root(1, 2, 0x0909));
    EXPECT_EQ(table().roots().rbegin()->second[7], 9) << "what is known can change at the limit";
    EXPECT_EQ(m_bench.process.mstp_budget().used, 5U);
    m_bench.process.closed(*m_owner, EOK);
    EXPECT_EQ(m_bench.process.mstp_budget().used, 0U);
}

TEST_F(mstp_records, protections_are_kept_by_name)
{
    const auto protection = [](const char *name, uint32_t word) {
        octets record = definition(name);
        record.resize(68);
        return header(12, 77, 0).raw(record).u32(word).bytes();
    };
    send(protection("ring-1", 1));
    send(protection("ring-2", 2));
    send(protection("ring-1", 3));
    ASSERT_EQ(table().protections().size(), 2U);
    EXPECT_EQ(table().protections().begin()->second[71], 3);
}
