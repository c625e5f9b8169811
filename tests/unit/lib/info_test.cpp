/*
 * Information records on their way out.
 */
#include "l2vpn_ac_info.h"

#include <platform/sim.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using l2vpn::sim::fn;

struct freed {
    void operator()(l2vpn_ac_info_msg_t *msgs) const { free(msgs); }
};
using msgs_ptr = std::unique_ptr<l2vpn_ac_info_msg_t, freed>;

class info : public testing::Test {
protected:
    l2vpn::sim::world world;

    static std::vector<l2vpn_ac_info_t> records(std::size_t count)
    {
        std::vector<l2vpn_ac_info_t> result(count);
        auto *const bytes = reinterpret_cast<std::uint8_t *>(result.data());
        for (std::size_t i = 0; i < count * sizeof(l2vpn_ac_info_t); ++i)
            bytes[i] = static_cast<std::uint8_t>(i * 3 + i / 251 + 1);
        return result;
    }

    /* Converts and returns the whole array, as large as it was allocated. */
    std::vector<std::uint8_t> convert(std::uint32_t class_id, std::vector<l2vpn_ac_info_t> &infos)
    {
        l2vpn_ac_info_msg_t *msgs = nullptr;
        EXPECT_EQ(
            l2vpn_ac_info_to_msg(class_id, static_cast<std::uint32_t>(infos.size()), infos.data(), &msgs),
            0u);
        const msgs_ptr owner(msgs);
        const auto allocation = world.calls(fn::calloc_named).back();
        EXPECT_EQ(static_cast<std::uint64_t>(allocation.result), reinterpret_cast<std::uint64_t>(msgs));
        const auto *const bytes = reinterpret_cast<const std::uint8_t *>(msgs);
        return {bytes, bytes + allocation.args[0] * allocation.args[1]};
    }
};

TEST_F(info, an_invalid_class_is_refused_and_nothing_allocated)
{
    auto infos = records(1);
    for (const std::uint32_t class_id : {15u, 18u, 19u, 0xffffffffu}) {
        world.clear_calls();
        auto *const untouched = reinterpret_cast<l2vpn_ac_info_msg_t *>(this);
        l2vpn_ac_info_msg_t *msgs = untouched;
        EXPECT_EQ(l2vpn_ac_info_to_msg(class_id, 1, infos.data(), &msgs), 22u);
        EXPECT_EQ(msgs, untouched);
        EXPECT_EQ(world.calls(fn::calloc_named).size(), 0u);

        const auto reports = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].text,
                  "Unable to get info message size for class id " + std::to_string(class_id));
        EXPECT_EQ(reports[0].args[2], 163u);
        EXPECT_EQ(reports[0].where, "l2vpn_ac_info_to_msg");
        EXPECT_EQ(world.calls(fn::l2vpn_check_ltrace_buffer).at(0).args[0], 0x2'2002051bu);
        const auto record = world.calls(fn::l2vpn_ltrace).at(0);
        EXPECT_EQ(record.args[0], 0x2'2002051bu);
        EXPECT_EQ(record.format, "%u%u");
        EXPECT_EQ(record.text, std::to_string(reports[0].line) + std::to_string(class_id));
    }
}

TEST_F(info, class_14_is_valid_and_yields_16_byte_elements)
{
    auto infos = records(3);
    EXPECT_EQ(convert(14, infos).size(), 48u);
}

TEST_F(info, of_no_records_allocates_and_returns_an_array)
{
    l2vpn_ac_info_msg_t *msgs = nullptr;
    EXPECT_EQ(l2vpn_ac_info_to_msg(4, 0, nullptr, &msgs), 0u);
    EXPECT_EQ(world.calls(fn::calloc_named).at(0).args[0], 0u);
    free(msgs);
}

TEST_F(info, of_no_records_without_memory_is_out_of_memory)
{
    world.fail(fn::calloc_named, 1, 12);
    auto *msgs = reinterpret_cast<l2vpn_ac_info_msg_t *>(this);
    EXPECT_EQ(l2vpn_ac_info_to_msg(4, 0, nullptr, &msgs), 12u);
    EXPECT_EQ(msgs, nullptr) << "stored also when it is null";
}

TEST_F(info, class_9_of_no_records_does_not_abort)
{
    l2vpn_ac_info_msg_t *msgs = nullptr;
    EXPECT_EQ(l2vpn_ac_info_to_msg(9, 0, nullptr, &msgs), 0u);
    free(msgs);
}

TEST_F(info, class_9_aborts_on_its_first_record)
{
    auto infos = records(1);
    l2vpn_ac_info_msg_t *msgs = nullptr;
    EXPECT_DEATH(l2vpn_ac_info_to_msg(9, 1, infos.data(), &msgs),
                 "l2vpn_ac_info_to_msg: Assertion `size == 0' failed");
}

TEST_F(info, class_17_converts_heads_sixteen_bytes_apart)
{
    auto infos = records(3);
    const auto wire = convert(17, infos);
    ASSERT_EQ(wire.size(), 600u);
    for (std::size_t i = 0; i < 3; ++i) {
        for (std::size_t w = 0; w < 4; ++w) {
            std::uint32_t word = 0;
            std::memcpy(&word, &wire[16 * i + 4 * w], 4);
            EXPECT_EQ(std::endian::native == std::endian::little ? __builtin_bswap32(word) : word,
                      infos[i].words[w]);
        }
    }
    EXPECT_EQ(std::vector<std::uint8_t>(wire.begin() + 48, wire.end()), std::vector<std::uint8_t>(552, 0));
    EXPECT_EQ(world.count(fn::l2vpn_gen_assert_errmsg), 3u);
}

TEST_F(info, class_17_of_one_record_is_a_head_and_zeroes)
{
    auto infos = records(1);
    const auto wire = convert(17, infos);
    ASSERT_EQ(wire.size(), 200u);
    EXPECT_EQ(std::vector<std::uint8_t>(wire.begin() + 16, wire.end()), std::vector<std::uint8_t>(184, 0));
    EXPECT_EQ(world.count(fn::l2vpn_gen_assert_errmsg), 1u);
}

TEST_F(info, class_8_is_a_converted_head_and_the_bytes_as_they_are)
{
    auto infos = records(2);
    const auto wire = convert(8, infos);
    ASSERT_EQ(wire.size(), 2 * 2356u);
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_EQ(std::memcmp(&wire[i * 2356 + 16], &infos[i].by_class, 2340), 0);
}

TEST_F(info, class_0_converts_the_second_half_and_class_2_both)
{
    l2vpn_ac_info_t record = {};
    const std::uint8_t memory[4] = {1, 2, 3, 4};
    std::memcpy(&record.by_class, memory, 4);
    std::vector<l2vpn_ac_info_t> infos = {record};
    const bool swapped = std::endian::native == std::endian::little;
    const std::vector<std::uint8_t> as_is = {1, 2, 3, 4}, second = {1, 2, 4, 3}, both = {2, 1, 4, 3};
    const auto tail = [&](std::uint32_t class_id) {
        const auto wire = convert(class_id, infos);
        return std::vector<std::uint8_t>(wire.begin() + 16, wire.end());
    };
    for (const std::uint32_t class_id : {0u, 1u, 16u})
        EXPECT_EQ(tail(class_id), swapped ? second : as_is) << class_id;
    EXPECT_EQ(tail(2), swapped ? both : as_is);
}

TEST_F(info, class_7_elements_are_packed_and_records_are_read_at_their_stride)
{
    auto infos = records(2);
    const auto wire = convert(7, infos);
    ASSERT_EQ(wire.size(), 112u);
    EXPECT_EQ(std::memcmp(&wire[56 + 16], &infos[1].by_class.class7.opaque, 8), 0);
    EXPECT_EQ(std::memcmp(&wire[56 + 28], &infos[1].by_class.class7.opaque2, 12), 0);
}

TEST_F(info, leaves_the_records_as_they_were)
{
    for (const std::uint32_t class_id : {0u, 2u, 6u, 7u, 8u, 11u, 17u}) {
        auto infos = records(3);
        const auto before = infos;
        convert(class_id, infos);
        EXPECT_EQ(std::memcmp(infos.data(), before.data(), 3 * sizeof(l2vpn_ac_info_t)), 0) << class_id;
    }
}

TEST_F(info, allocates_once_whatever_the_number)
{
    auto infos = records(300);
    convert(6, infos);
    const auto allocations = world.calls(fn::calloc_named);
    ASSERT_EQ(allocations.size(), 1u);
    EXPECT_EQ(allocations[0].args[0], 300u);
    EXPECT_EQ(allocations[0].args[1], 200u);
    EXPECT_EQ(allocations[0].text, "AC info msg array");
}

TEST_F(info, without_memory_is_reported)
{
    auto infos = records(1);
    world.fail(fn::calloc_named, 1, 12);
    l2vpn_ac_info_msg_t *msgs = nullptr;
    EXPECT_EQ(l2vpn_ac_info_to_msg(4, 1, infos.data(), &msgs), 12u);
    const auto reports = world.calls(fn::l2vpn_generic_gen_dbg_ltrace_ctx);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "Cannot allocate memory for info msg array");
    const auto record = world.calls(fn::l2vpn_ltrace).at(0);
    EXPECT_EQ(record.args[0], 0x1'2002051au);
    EXPECT_EQ(record.format, "%u ");
    EXPECT_EQ(record.text, std::to_string(reports[0].line) + " ");
}

} // namespace
