/*
 * The process without memory: every allocation of a message fails in turn, and all that come after it.
 */
#include "support.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <platform/debug.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

constexpr uint64_t never = std::numeric_limits<uint64_t>::max();
uint64_t allocations_left = never;

void *allocate(size_t size)
{
    if (allocations_left == 0) {
        throw std::bad_alloc();
    }
    allocations_left -= allocations_left != never ? 1 : 0;
    void *memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

/* The trace sets itself up at its first use, and needs memory for it; l2vpnd does that when it starts. */
void set_trace_up()
{
    gen_ltrace(0, "%u", 0U);
}

/* True: the message needed no more than `allocations`. */
bool receives_with(bench &b, owner &o, const octets &message, uint64_t allocations)
{
    set_trace_up();
    allocations_left = allocations;
    b.process.received(o, message);
    const bool enough = allocations_left > 0;
    allocations_left = never;
    return enough;
}

uint64_t dropped(const owner &o)
{
    return o.count.dropped[static_cast<size_t>(drop::memory)];
}

} // namespace

void *operator new(size_t size)
{
    return allocate(size);
}
void *operator new[](size_t size)
{
    return allocate(size);
}
void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory, size_t /*size*/) noexcept
{
    std::free(memory);
}

TEST(without_memory, spanning_tree_records_are_taken_whole_or_not_at_all)
{
    const octets states =
        header(11, 3, 3).raw(pattern(96, 0x11)).raw(pattern(96, 0x51)).raw(pattern(96, 0x91)).bytes();
    uint64_t allocations = 0;
    for (bool enough = false; !enough; allocations++) {
        bench b;
        owner &o = *b.connect(4);
        enough = receives_with(b, o, states, allocations);
        const bool taken = dropped(o) == 0;
        EXPECT_EQ(o.mstp.records(), taken ? 3U : 0U) << allocations;
        EXPECT_EQ(b.process.mstp_budget().used, o.mstp.records()) << allocations;
        EXPECT_TRUE(taken || !enough) << allocations;
        ASSERT_LT(allocations, 1000U);
    }
    EXPECT_GT(allocations, 3U) << "the failures were there";
}

TEST(without_memory, a_batch_ends_though_its_last_message_is_dropped)
{
    uint64_t drops = 0;
    uint64_t allocations = 0;
    for (bool enough = false; !enough; allocations++) {
        process_options options;
        options.auto_provision = true;
        bench b(options);
        owner &first = *b.connect(3, 7, 65536, 4711);
        owner &second = *b.connect(4, 7, 65536, 4711);
        b.process.received(first, create(3, {1, 2}, 0x1));
        b.process.received(second, create(4, {1}, 0x1));
        const octets last = create(3, handles_from(3, 600), 0x2);
        enough = receives_with(b, first, last, allocations);

        EXPECT_FALSE(first.batch.of(2).open) << allocations;
        EXPECT_FALSE(second.batch.of(2).open) << allocations;
        EXPECT_EQ(first.list(ac_stage::batched).count, 0U) << allocations;
        EXPECT_EQ(second.list(ac_stage::batched).count, 0U) << allocations;
        EXPECT_EQ(first.ac_count(), dropped(first) == 0 ? 602U : 2U) << allocations;
        drops += dropped(first);
        /* What could not be told is told when there is memory. */
        b.process.send_all_waiting();
        EXPECT_EQ(first.list(ac_stage::waiting).count, 0U) << allocations;
        EXPECT_EQ(first.count.acs_provisioned, first.ac_count()) << allocations;
        EXPECT_EQ(second.count.acs_provisioned, 1U) << allocations;
        ASSERT_LT(allocations, 1000U);
    }
    EXPECT_GT(drops, 0U) << "the failures were there";
}

TEST(without_memory, room_for_slots_is_made_whole_or_nothing_is_lost)
{
    constexpr uint32_t slots = 20'000; /* arenas of all kinds */
    uint64_t allocations = 0;
    for (bool enough = false; !enough; allocations++) {
        slot_array array(636);
        array.reserve(1);
        array.at(0)[0] = 0xac;
        const uint8_t *place = array.at(0);
        allocations_left = allocations;
        try {
            array.reserve(slots);
            enough = true;
        } catch (const std::bad_alloc &) {
            EXPECT_EQ(array.memory(), 636U) << allocations;
        }
        allocations_left = never;
        array.reserve(slots);
        EXPECT_EQ(array.memory(), uint64_t{slots} * 636) << allocations;
        EXPECT_EQ(array.at(0), place) << allocations;
        EXPECT_EQ(array.at(0)[0], 0xac) << allocations;
        array.at(slots - 1)[635] = 1;
        ASSERT_LT(allocations, 1000U);
    }
    EXPECT_GT(allocations, 5U) << "the failures were there";
}
