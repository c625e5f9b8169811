/*
 * Byte order: what a program of steps does to a record, wherever it lies.
 */
#include "l2vpn_ac_class.h"
#include "l2vpn_ac_wire.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

constexpr bool little = std::endian::native == std::endian::little;

std::vector<std::byte> random_bytes(std::size_t size, std::mt19937 &random)
{
    std::vector<std::byte> result(size);
    for (auto &byte : result)
        byte = static_cast<std::byte>(random());
    return result;
}

/* The plain version: one field after the other, byte by byte. */
void reverse_field(std::vector<std::byte> &record, std::size_t offset, std::size_t width)
{
    if (little)
        std::reverse(record.begin() + static_cast<std::ptrdiff_t>(offset),
                     record.begin() + static_cast<std::ptrdiff_t>(offset + width));
}

TEST(convert, a_program_reverses_its_fields_and_nothing_else)
{
    using program = l2vpn_ac_program<u16(1), u32(4), u64(9), u16(17)>;
    static_assert(program::reach == 19);
    std::mt19937 random(1);
    for (std::size_t shift = 0; shift < 8; ++shift) {
        const auto before = random_bytes(32, random);
        std::vector<std::byte> buffer(shift);
        buffer.insert(buffer.end(), before.begin(), before.end());
        program::convert(buffer.data() + shift);
        auto expected = before;
        reverse_field(expected, 1, 2);
        reverse_field(expected, 4, 4);
        reverse_field(expected, 9, 8);
        reverse_field(expected, 17, 2);
        EXPECT_EQ(std::vector<std::byte>(buffer.begin() + static_cast<std::ptrdiff_t>(shift), buffer.end()),
                  expected);
        program::convert(buffer.data() + shift);
        EXPECT_EQ(std::vector<std::byte>(buffer.begin() + static_cast<std::ptrdiff_t>(shift), buffer.end()),
                  before);
    }
}

TEST(convert, a_program_whose_steps_overlap_or_go_back_reaches_beyond_any_record)
{
    EXPECT_EQ((l2vpn_ac_program<u32(0), u32(3)>::reach), SIZE_MAX);
    EXPECT_EQ((l2vpn_ac_program<u32(4), u32(0)>::reach), SIZE_MAX);
    EXPECT_EQ((l2vpn_ac_program<u32(4), u32(0), u32(8)>::reach), SIZE_MAX);
    EXPECT_EQ((l2vpn_ac_program<>::reach), 0u);
}

TEST(convert, words_of_every_number)
{
    std::mt19937 random(2);
    for (std::size_t count = 0; count < 70; ++count) {
        std::vector<uint32_t> words(count + 1);
        for (auto &word : words)
            word = static_cast<uint32_t>(random());
        const auto before = words;
        l2vpn_ac_convert_words(words.data(), count);
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_EQ(words[i], little ? __builtin_bswap32(before[i]) : before[i]);
        EXPECT_EQ(words[count], before[count]) << "nothing beyond the count";
        l2vpn_ac_convert_words(words.data(), count);
        EXPECT_EQ(words, before);
    }
}

/* Dense arrays are converted by blocks; the plain loop says what that must come to. */
template <typename program, std::size_t stride>
void expect_blocks_as_plain()
{
    std::mt19937 random(4);
    for (std::size_t shift = 0; shift < 16; ++shift) {
        for (std::size_t count = 0; count * stride <= 160; ++count) {
            const auto before = random_bytes(shift + count * stride + 16, random);
            auto plain = before;
            l2vpn_ac_convert_plain<program, stride>(plain.data() + shift, count);
            auto converted = before;
            l2vpn_ac_convert_records<program, stride>(converted.data() + shift, count);
            ASSERT_EQ(converted, plain) << "stride " << stride << ", shift " << shift << ", count " << count;
        }
    }
}

TEST(convert, blocks_do_what_the_plain_loop_does)
{
    expect_blocks_as_plain<l2vpn_ac_program<u16(0)>, 2>();
    expect_blocks_as_plain<l2vpn_ac_program<u32(0)>, 4>();
    expect_blocks_as_plain<l2vpn_ac_program<u16(0), u16(2)>, 4>();
    expect_blocks_as_plain<l2vpn_ac_program<u16(2)>, 4>();
    expect_blocks_as_plain<l2vpn_ac_program<u32(0), u16(4)>, 8>();
    expect_blocks_as_plain<l2vpn_ac_program<u16(0), u32(4)>, 8>();
    expect_blocks_as_plain<l2vpn_ac_program<u64(0)>, 8>();
    expect_blocks_as_plain<l2vpn_ac_program<u16(0), u16(4), u64(8)>, 16>();
    expect_blocks_as_plain<l2vpn_ac_program<u32(0), u32(4), u32(8), u32(12)>, 16>();
    expect_blocks_as_plain<l2vpn_ac_program<u32(12)>, 16>();
    expect_blocks_as_plain<l2vpn_ac_program<>, 16>();
    expect_blocks_as_plain<l2vpn_ac_program<u32(0), u16(4), u32(8)>, 12>();
}

/* Both ways, at every alignment and number; nothing is written beyond the last. */
TEST(convert, words_are_spread_with_a_zero_behind_each)
{
    std::mt19937 random(5);
    for (std::size_t shift = 0; shift < 16; ++shift) {
        for (std::size_t count = 0; count < 41; ++count) {
            std::vector<uint32_t> words(count + 4);
            for (uint32_t &word : words)
                word = static_cast<uint32_t>(random());
            const uint32_t *const given = words.data() + shift % 4;
            const auto before = random_bytes(shift + count * 8 + 16, random);
            auto expected = before;
            for (std::size_t i = 0; i < count; ++i) {
                memcpy(expected.data() + shift + i * 8, &given[i], 4);
                memset(expected.data() + shift + i * 8 + 4, 0, 4);
            }
            auto plain = before;
            l2vpn_ac_spread_plain(given, 0, count, plain.data() + shift);
            EXPECT_EQ(plain, expected) << "shift " << shift << ", count " << count;
            auto spread = before;
            l2vpn_ac_spread_words(given, count, spread.data() + shift);
            EXPECT_EQ(spread, expected) << "shift " << shift << ", count " << count;
        }
    }
}

/* Which fields of a definition a class converts. */
struct field {
    std::size_t offset, width;
};

std::vector<field> defn_fields(uint32_t class_id)
{
    std::vector<field> result = {{68, 4}, {72, 4}, {76, 4}, {608, 4}, {612, 4}};
    switch (class_id) {
    case 0:
        result.push_back({84, 2});
        break;
    case 2:
        result.push_back({80, 2});
        result.push_back({82, 2});
        break;
    case 4:
    case 6:
    case 11:
    case 17:
        result.push_back({80, 4});
        break;
    default:
        break;
    }
    return result;
}

/* To the wire, and back; of each number, because memory is asked for ahead of the record in turn. */
TEST(convert, definitions_by_class_and_number)
{
    std::mt19937 random(3);
    for (uint32_t id = 0; id < 18; ++id) {
        const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(id);
        if (row == nullptr || row->encode_acs == nullptr)
            continue;
        for (std::size_t count = 0; count < 40; ++count) {
            SCOPED_TRACE(testing::Message() << "class " << id << ", " << count << " definitions");
            const auto before = random_bytes((count + 2) * 616, random);
            auto expected = before;
            for (std::size_t i = 0; i < count; ++i) {
                for (const field &f : defn_fields(id))
                    reverse_field(expected, (i + 1) * 616 + f.offset, f.width);
            }

            std::vector<l2vpn_ac_defn_t> defns(count + 2); /* the first and the last stay as they are */
            std::memcpy(static_cast<void *>(defns.data()), before.data(), before.size());
            const std::vector<l2vpn_ac_info_t> infos(count);
            std::vector<std::byte> alone(count * row->info_size), beside(alone);
            row->encode_infos(infos.data(), alone.data(), count);
            row->encode_acs(defns.data() + 1, infos.data(), beside.data(), count);
            ASSERT_EQ(std::memcmp(defns.data(), expected.data(), expected.size()), 0);
            ASSERT_EQ(beside, alone);
            row->restore_defns(defns.data() + 1, count);
            ASSERT_EQ(std::memcmp(defns.data(), before.data(), before.size()), 0);
        }
    }
}

} // namespace
