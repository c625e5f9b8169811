#include "owner.h"

#include <cstdint>

namespace sim_test {
namespace {

using testing::Each;

TEST(sim_objects, node_id_is_the_setting)
{
    world world;
    std::uint32_t nodeid = 0;
    EXPECT_EQ(platform_get_my_nodeid(&nodeid), static_cast<qerrno>(EOK));
    EXPECT_EQ(nodeid, 0x0a000001U);
    world.set.nodeid = 5;
    EXPECT_EQ(platform_get_my_nodeid(&nodeid), static_cast<qerrno>(EOK));
    EXPECT_EQ(nodeid, 5U);
    EXPECT_EQ(platform_get_my_nodeid(nullptr), static_cast<qerrno>(EINVAL));
}

TEST(sim_objects, memory_is_zeroed_and_released_with_free)
{
    world world;
    auto *memory = static_cast<std::uint8_t *>(calloc_named(100, 3, "thing"));
    ASSERT_NE(memory, nullptr);
    EXPECT_THAT(std::span(memory, 300), Each(0));
    free(memory);
    void *empty = calloc_named(0, 8, "nothing");
    EXPECT_NE(empty, nullptr);
    free(empty);
    EXPECT_EQ(calloc_named(SIZE_MAX / 2, 3, "too much"), nullptr);
}

TEST(sim_objects, status_texts)
{
    world world;
    EXPECT_STREQ(qerr_strerror(EOK), "Success");
    EXPECT_STREQ(qerr_strerror(ENOBUFS), "No buffer space available");
    EXPECT_STREQ(qerr_strerror(4000000000U), "Unknown error 4000000000");
}

TEST(sim_objects, sanitizer_looks_at_the_handles)
{
    world world;
    std::array<l2vpn_ac_data_entry_t, 2> entries{{{1, 0}, {2, 0}}};
    const auto check = [&](std::uint32_t count) {
        return l2vpn_ac_data_sanitize(class_id, entries.data(), nullptr, nullptr, count);
    };
    EXPECT_EQ(check(2), static_cast<qerrno>(EOK));
    entries[1].ifh = 0xFFFFFFFF;
    EXPECT_EQ(check(2), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(check(1), static_cast<qerrno>(EOK));
    EXPECT_EQ(l2vpn_ac_data_sanitize(class_id, nullptr, nullptr, nullptr, 1), static_cast<qerrno>(EINVAL));
}

struct record {
    int value;
    wavl_node_t node;
};

const void *record_key(const wavl_node_t *node)
{
    return reinterpret_cast<const char *>(node) - offsetof(record, node);
}

int compare_values(const void *first, const void *second)
{
    const int a = static_cast<const record *>(first)->value;
    const int b = static_cast<const record *>(second)->value;
    return a < b ? WAVL_SMALLER : a == b ? WAVL_EQUAL : WAVL_LARGER;
}

TEST(sim_objects, trees_hold_what_is_inserted)
{
    world world;
    wavl_tree_t tree{};
    ASSERT_EQ(wavl_init(&tree, 1, record_key, compare_values), static_cast<qerrno>(EOK));
    std::vector<record> records(200);
    for (std::size_t i = 0; i < records.size(); ++i) {
        records[i].value = static_cast<int>(i * 7 % 200);
        EXPECT_EQ(wavl_insert(&tree, &records[i].node), &records[i].node);
    }
    EXPECT_EQ(world.clients(), 200U);
    record same{records[3].value, {}};
    EXPECT_EQ(wavl_insert(&tree, &same.node), nullptr);
    EXPECT_EQ(wavl_search(&tree, &same.node, 0), &records[3].node);
    wavl_delete(&tree, &same.node); // not in the tree
    EXPECT_EQ(world.clients(), 200U);
    wavl_delete(&tree, &records[3].node);
    EXPECT_EQ(wavl_search(&tree, &same.node, 0), nullptr);
    EXPECT_EQ(world.clients(), 199U);

    wavl_tree_t newer{};
    ASSERT_EQ(wavl_init(&newer, 1, record_key, compare_values), static_cast<qerrno>(EOK));
    EXPECT_EQ(world.clients(), 0U);
    wavl_delete(&tree, &records[4].node); // the older tree is not counted
    EXPECT_EQ(world.clients(), 0U);
}

TEST(sim_objects, trees_that_are_none_refuse)
{
    world world;
    wavl_tree_t never{};
    record one{1, {}};
    for (wavl_tree_t *tree : {static_cast<wavl_tree_t *>(nullptr), &never}) {
        EXPECT_EQ(wavl_insert(tree, &one.node), nullptr);
        EXPECT_EQ(wavl_search(tree, &one.node, 0), nullptr);
        wavl_delete(tree, &one.node);
    }
    EXPECT_EQ(wavl_init(nullptr, 1, record_key, compare_values), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_init(&never, 2, record_key, compare_values), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(world.clients(), 0U);
}

TEST(sim_objects, debug_bitsets_follow_the_setting_and_the_chosen_bits)
{
    world world;
    const auto bit = [](const gen_dbg_bitset_t *bits, std::uint32_t id) {
        return (bits->words[id / 64] >> (id % 64) & 1) != 0;
    };
    EXPECT_TRUE(bit(gen_dbg_get_enabled_bitset(), 1094));
    EXPECT_TRUE(bit(gen_dbg_ltrace_get_dbg_bitset(), 2047));
    world.set_debug_bit(1094, true, false);
    EXPECT_TRUE(bit(gen_dbg_get_enabled_bitset(), 1094));
    EXPECT_FALSE(bit(gen_dbg_ltrace_get_dbg_bitset(), 1094));
    EXPECT_TRUE(bit(gen_dbg_ltrace_get_dbg_bitset(), 1095));
    world.set.debug_enabled = false;
    EXPECT_TRUE(bit(gen_dbg_get_enabled_bitset(), 1094));
    EXPECT_FALSE(bit(gen_dbg_get_enabled_bitset(), 1093));
    EXPECT_FALSE(bit(gen_dbg_ltrace_get_dbg_bitset(), 1094));
    EXPECT_THROW(world.set_debug_bit(2048, true, true), std::invalid_argument);

    world.set_debug_bitsets_null(true, false);
    EXPECT_EQ(gen_dbg_get_enabled_bitset(), nullptr);
    EXPECT_NE(gen_dbg_ltrace_get_dbg_bitset(), nullptr);
    world.set_debug_bitsets_null(false, true);
    EXPECT_NE(gen_dbg_get_enabled_bitset(), nullptr);
    EXPECT_EQ(gen_dbg_ltrace_get_dbg_bitset(), nullptr);
}

TEST(sim_objects, the_error_trace_is_set_up_by_its_init)
{
    world world;
    EXPECT_EQ(l2vpn_debug_get_ctx(), nullptr);
    EXPECT_EQ(l2vpn_debug_get_enabled_bitset(), nullptr);
    EXPECT_EQ(l2vpn_debug_init(nullptr), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(l2vpn_debug_get_ctx(), nullptr);
    EXPECT_EQ(l2vpn_debug_init(world.evm()), static_cast<qerrno>(EOK));
    EXPECT_EQ(l2vpn_debug_init(world.evm()), static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_debug_get_ctx(), nullptr);
    EXPECT_NE(l2vpn_debug_get_enabled_bitset(), nullptr);
}

TEST(sim_objects, the_trace_is_wanted_or_not)
{
    world world;
    EXPECT_NE(l2vpn_check_ltrace_buffer(1), 0);
    world.set.ltrace_wanted = false;
    EXPECT_EQ(l2vpn_check_ltrace_buffer(1), 0);
}

} // namespace
} // namespace sim_test
