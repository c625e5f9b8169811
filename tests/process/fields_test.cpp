/*
 * Records as they are shown.
 */
#include "fields.h"
#include "support.h"

#include <gtest/gtest.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

json show(field_list fields, const octets &record, size_t longest = SIZE_MAX)
{
    json out = json::object();
    show_fields(fields, record, longest, out);
    return out;
}

std::string text(const std::string &bytes)
{
    return to_text({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
}

} // namespace

TEST(fields, names_are_escaped)
{
    EXPECT_EQ(text("port1/2.100"), "port1/2.100");
    EXPECT_EQ(text(std::string("ab\0cd", 5)), "ab");
    EXPECT_EQ(text("a\\b"), "a\\\\b");
    EXPECT_EQ(text("\x1b[31m\n\x7f\xff"), "\\x1b[31m\\x0a\\x7f\\xff");
    EXPECT_EQ(text(std::string(64, 'x')), std::string(64, 'x'));
    EXPECT_EQ(text(""), "");
}

TEST(fields, definition_of_class_2)
{
    octets record = definition("port2");
    const octets words =
        builder().u32(0x81828384).u32(0x85868788).u32(0x898a8b8c).u16(0x9192).u16(0x9394).bytes();
    std::copy(words.begin(), words.end(), record.begin() + 68);
    const octets tail = builder().u32(0xa1a2a3a4).u32(0xa5a6a7a8).bytes();
    std::copy(tail.begin(), tail.end(), record.begin() + 608);
    const json shown = show(definition_fields(2), record);
    EXPECT_EQ(shown["name"], "port2");
    EXPECT_EQ(shown["word"], 0x81828384U);
    EXPECT_EQ(shown["word2"], 0x85868788U);
    EXPECT_EQ(shown["word3"], 0x898a8b8cU);
    EXPECT_EQ(shown["class_halves"], json({0x9192, 0x9394}));
    EXPECT_EQ(shown["word4"], 0xa1a2a3a4U);
    EXPECT_EQ(shown["word5"], 0xa5a6a7a8U);
}

TEST(fields, information_of_class_6)
{
    octets record = pattern(200, 0x11);
    record[24] = 0x80 | 0x20 | 0x0c | 0x01;
    const json shown = show(info_fields(6), record, 16);
    EXPECT_EQ(shown["half"], 0x2122);
    EXPECT_EQ(shown["octets"], "2324");
    EXPECT_EQ(shown["word"], 0x25262728U);
    EXPECT_EQ(shown["bits"], json({{"a", 1}, {"b", 0}, {"c", 1}, {"d", 0}, {"e", 3}, {"f", 1}}));
    EXPECT_EQ(shown["octet"], "2a");
    EXPECT_EQ(shown["half2"], 0x2b2c);
    EXPECT_EQ(shown["quad"], 0x393a3b3c3d3e3f40U);
    EXPECT_EQ(shown["word4"], 0xd5d6d7d8U);
    EXPECT_FALSE(shown.contains("opaque")) << "longer than asked for";
}

TEST(fields, every_bit_field_byte_of_class_6)
{
    for (unsigned byte = 0; byte < 256; byte++) {
        octets record(200, 1);
        record[24] = static_cast<uint8_t>(byte);
        const json bits = show(info_fields(6), record)["bits"];
        const unsigned wire = bits["a"].get<unsigned>() * 128 + bits["b"].get<unsigned>() * 64 +
                              bits["c"].get<unsigned>() * 32 + bits["d"].get<unsigned>() * 16 +
                              bits["e"].get<unsigned>() * 4 + bits["f"].get<unsigned>();
        EXPECT_EQ(wire, byte);
    }
}

TEST(fields, classes_without_a_part_of_their_own)
{
    for (const uint32_t class_id : {3U, 4U, 5U, 9U, 10U, 12U, 13U, 14U, 15U, 17U, 18U, 99U}) {
        EXPECT_TRUE(info_fields(class_id).empty()) << class_id;
    }
    EXPECT_TRUE(definition_fields(18).empty());
}

TEST(fields, mstp_records)
{
    const json root = show(msti_root_fields(), builder().u32(0x01020304).u16(0x0506).u16(0x0708).bytes());
    EXPECT_EQ(root, json({{"handle", 0x01020304}, {"msti", 0x0506}, {"octets", "0708"}}));
    const json state = show(mstp_state_fields(), pattern(96, 1));
    EXPECT_EQ(state["handle"], 0x01020304);
    EXPECT_EQ(state["msti"], 0x0506);
    EXPECT_EQ(state["word2"], 0x090a0b0c);
    EXPECT_EQ(state["word3"], 0x0d0e0f10);
    EXPECT_EQ(state["half2"], 0x1112);
    EXPECT_EQ(state["word4"], 0x595a5b5c);
    EXPECT_EQ(state["tail"], "5d5e5f60");
}
