/*
 * Provisioned AC data on its way in. Wire, values and records by class are the golden messages' business.
 */
#include "l2vpn_ac_data.h"

#include <platform/sim.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using l2vpn::sim::fn;

l2vpn_ac_xcid_data_base_t *base_of(std::vector<std::uint8_t> &wire)
{
    return reinterpret_cast<l2vpn_ac_xcid_data_base_t *>(wire.data());
}

TEST(ac_data, out_of_memory_leaves_the_records_and_gives_null)
{
    l2vpn::sim::world world;
    world.fail(fn::calloc_named, 1, 12);
    std::vector<std::uint8_t> wire(28, 5);
    auto *data = reinterpret_cast<l2vpn_ac_xcid_data_t *>(&wire);
    EXPECT_EQ(l2vpn_ac_data_base_to_ac_data(4, 1, base_of(wire), &data), 12u);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(wire, std::vector<std::uint8_t>(28, 5));
    EXPECT_TRUE(world.logged("Cannot allocate memory for AC data array"));
}

/* Records of class 11 are 67 bytes: every second one and more is unaligned. */
TEST(ac_data, records_need_no_alignment)
{
    l2vpn::sim::world world;
    for (std::size_t shift = 0; shift < 4; ++shift) {
        std::vector<std::uint8_t> wire(shift + 3 * 67);
        for (std::size_t i = 0; i < wire.size(); ++i)
            wire[i] = static_cast<std::uint8_t>(i + 1);
        const auto before = wire;
        l2vpn_ac_xcid_data_t *data = nullptr;
        auto *const base = reinterpret_cast<l2vpn_ac_xcid_data_base_t *>(wire.data() + shift);
        ASSERT_EQ(l2vpn_ac_data_base_to_ac_data(11, 3, base, &data), 0u);
        for (std::size_t r = 0; r < 3; ++r) {
            const std::uint8_t *const at = &before[shift + r * 67];
            EXPECT_EQ(data[r].words[6], std::uint32_t{at[24]} << 24 | std::uint32_t{at[25]} << 16 |
                                            std::uint32_t{at[26]} << 8 | at[27]);
            EXPECT_EQ(std::memcmp(data[r].by_class.class11, at + 28, 39), 0);
        }
        free(data);
    }
}

TEST(ac_data, of_no_records_is_an_array)
{
    l2vpn::sim::world world;
    l2vpn_ac_xcid_data_t *data = nullptr;
    EXPECT_EQ(l2vpn_ac_data_base_to_ac_data(7, 0, nullptr, &data), 0u);
    free(data);
}

TEST(ac_data, a_class_without_a_layout_is_fatal)
{
    l2vpn::sim::world world;
    std::vector<std::uint8_t> wire(200);
    l2vpn_ac_xcid_data_t *data = nullptr;
    for (const std::uint32_t class_id : {7u, 9u, 17u})
        EXPECT_DEATH(l2vpn_ac_data_base_to_ac_data(class_id, 1, base_of(wire), &data),
                     "l2vpn_ac_data_base_to_ac_data: Assertion `size == 0' failed");
}

TEST(ac_data, an_invalid_class_is_fatal)
{
    l2vpn::sim::world world;
    std::vector<std::uint8_t> wire(200);
    l2vpn_ac_xcid_data_t *data = nullptr;
    for (const std::uint32_t class_id : {15u, 18u, 0xffffffffu})
        EXPECT_DEATH(l2vpn_ac_data_base_to_ac_data(class_id, 1, base_of(wire), &data),
                     "Assertion `l2vpn_get_var_ac_data_base_size\\(class_id, &size\\)' failed");
}

} // namespace
