/*
 * The process where the kernel gives no more mappings: ACs that would have stood in a large arena of their own.
 */
#include "failing/calls.h"
#include "support.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

constexpr uint32_t class_id = 3;
constexpr uint32_t at_once = 512;
constexpr uint32_t small_ones = 4096; /* with the next ones, an arena is so large that it is mapped */

class arena : public testing::Test {
protected:
    arena() { create_some(); }

    void create_some()
    {
        for (uint32_t first = 1; first <= small_ones; first += at_once) {
            b.process.received(*o, create(class_id, handles_from(first, at_once)));
        }
    }
    /* The next ones, while calls fail. */
    void create_more(failing::order &order)
    {
        const octets message = create(class_id, handles_from(small_ones + 1, at_once));
        order.begin();
        b.process.received(*o, message);
        order.end();
    }
    uint64_t dropped() const { return o->count.dropped[static_cast<size_t>(drop::memory)]; }

    /* Each has what its message said. */
    void expect_sound(uint32_t count) const
    {
        const ac_store &store = b.process.acs().store(class_id);
        EXPECT_EQ(b.process.acs().size(), count);
        const size_t definition = hdr_len + sizeof(uint32_t);
        for (uint32_t handle = 1; handle <= count; handle++) {
            const uint32_t slot = store.find(7, handle);
            ASSERT_NE(slot, no_slot) << handle;
            const octets its = create(class_id, {handle});
            const bytes said = std::span(its).subspan(definition);
            ASSERT_TRUE(std::ranges::equal(store.definition(slot), said.first(defn_len))) << handle;
            ASSERT_TRUE(std::ranges::equal(store.info(slot), said.subspan(defn_len))) << handle;
        }
    }

    bench b;
    owner *o = b.connect(class_id, 7);
};

} // namespace

/* Then they stand in small ones. */
TEST_F(arena, that_cannot_be_mapped_is_done_without)
{
    failing::order no_mapping("mmap", ENOMEM);
    create_more(no_mapping);
    EXPECT_EQ(no_mapping.failed().call, "mmap");
    EXPECT_EQ(dropped(), 0U);
    expect_sound(small_ones + at_once);
}

TEST_F(arena, without_which_there_is_no_room_leaves_what_is_there_and_is_told)
{
    failing::order no_memory("mmap", ENOMEM, 1, 1);
    create_more(no_memory);
    EXPECT_EQ(no_memory.failed().call, "mmap");
    EXPECT_TRUE(no_memory.is_done()) << "nor a small one";
    EXPECT_EQ(dropped(), 1U);
    EXPECT_TRUE(b.logged("bytes dropped: out of memory: "));
    expect_sound(small_ones);

    b.process.received(*o, create(class_id, handles_from(small_ones + 1, at_once)));
    EXPECT_EQ(dropped(), 1U) << "now that there is memory";
    expect_sound(small_ones + at_once);
}
