/*
 * The decoder: every message of every class, and everything that can be wrong with one.
 */
#include "decoder.h"
#include "fields.h"
#include "support.h"

#include "../support/golden.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

octets copy(bytes part)
{
    return {part.begin(), part.end()};
}

drop reason(uint32_t class_id, const octets &raw)
{
    message msg{};
    return decode(class_id, raw, msg);
}

constexpr uint32_t classes_with_info[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 16, 17};

} // namespace

class decoder_of_class : public testing::TestWithParam<uint32_t> {};

TEST_P(decoder_of_class, takes_a_create_apart)
{
    const uint32_t class_id = GetParam();
    const size_t size = info_size(class_id);
    const octets definitions[] = {pattern(616, 21), pattern(616, 87)};
    const octets infos[] = {pattern(size, 140), pattern(size, 201)};
    const octets raw = header(2, 2, 0xa1b2c301)
                           .u32(0x11121314)
                           .u32(0x15161718)
                           .raw(definitions[0])
                           .raw(definitions[1])
                           .raw(infos[0])
                           .raw(infos[1])
                           .bytes();
    message msg{};
    ASSERT_EQ(decode(class_id, raw, msg), drop::none);
    EXPECT_STREQ(msg.row->name, "CREATE");
    EXPECT_EQ(msg.flags, 0xa1b2c301);
    ASSERT_EQ(msg.count, 2U);
    EXPECT_EQ(msg.handle(0), 0x11121314U);
    EXPECT_EQ(msg.handle(1), 0x15161718U);
    for (uint32_t i = 0; i < 2; i++) {
        EXPECT_EQ(copy(msg.definition(i)), definitions[i]);
        EXPECT_EQ(copy(msg.info(i)), infos[i]);
    }
}

TEST_P(decoder_of_class, takes_an_update_apart)
{
    const uint32_t class_id = GetParam();
    const octets infos[] = {pattern(info_size(class_id), 9), pattern(info_size(class_id), 133)};
    const octets raw =
        header(3, 2, 0x0000010c).u32(0x21222324).u32(0x25262728).raw(infos[0]).raw(infos[1]).bytes();
    message msg{};
    ASSERT_EQ(decode(class_id, raw, msg), drop::none);
    EXPECT_STREQ(msg.row->name, "UPDATE");
    EXPECT_EQ(msg.flags, 0x10cU);
    EXPECT_EQ(msg.handle(1), 0x25262728U);
    EXPECT_EQ(copy(msg.info(0)), infos[0]);
    EXPECT_EQ(copy(msg.info(1)), infos[1]);
}

TEST_P(decoder_of_class, refuses_any_other_length)
{
    const uint32_t class_id = GetParam();
    const octets good = create(class_id, {1, 2});
    ASSERT_EQ(reason(class_id, good), drop::none);
    for (const size_t cut : {size_t{1}, size_t{4}, info_size(class_id), good.size() - 16}) {
        octets bad(good.begin(), good.end() - static_cast<ptrdiff_t>(cut));
        EXPECT_EQ(reason(class_id, bad), drop::length) << "without its last " << cut << " bytes";
    }
    octets longer = good;
    longer.push_back(1);
    EXPECT_EQ(reason(class_id, longer), drop::length);
}

TEST_P(decoder_of_class, refuses_the_size_of_a_neighbour_class)
{
    const uint32_t class_id = GetParam();
    for (const uint32_t other : classes_with_info) {
        if (info_size(other) != info_size(class_id)) {
            EXPECT_EQ(reason(class_id, create(other, {1})), drop::length) << "as for class " << other;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(classes, decoder_of_class, testing::ValuesIn(classes_with_info));

TEST(decoder, takes_a_join)
{
    message msg{};
    ASSERT_EQ(decode(9, header(0, 0, 0).bytes(), msg), drop::none);
    EXPECT_STREQ(msg.row->name, "JOIN");
    EXPECT_EQ(msg.count, 0U);
    EXPECT_EQ(reason(0, header(0, 1, 0).bytes()), drop::length);
    EXPECT_EQ(reason(0, header(0, 0, 0).u32(1).bytes()), drop::length);
}

TEST(decoder, takes_a_delete)
{
    const octets raw = header(6, 3, 0x31).u32(0x31323334).u32(0x35363738).u32(0x393a3b3c).bytes();
    for (uint32_t class_id = 0; class_id < 18; class_id++) {
        message msg{};
        if (class_id == 15) {
            EXPECT_EQ(decode(class_id, raw, msg), drop::layout);
            continue;
        }
        ASSERT_EQ(decode(class_id, raw, msg), drop::none);
        EXPECT_EQ(msg.count, 3U);
        EXPECT_EQ(msg.handle(2), 0x393a3b3cU);
    }
}

TEST(decoder, takes_mstp_records)
{
    const struct {
        uint32_t type;
        size_t size;
    } rows[] = {{9, 4}, {11, 96}, {14, 8}};
    for (const auto &row : rows) {
        const octets first = pattern(row.size, 41);
        const octets second = pattern(row.size, 99);
        message msg{};
        const octets raw = header(row.type, 2, 0x80000003).raw(first).raw(second).bytes();
        ASSERT_EQ(decode(5, raw, msg), drop::none);
        EXPECT_EQ(msg.row->type, row.type);
        EXPECT_EQ(msg.flags, 0x80000003U);
        EXPECT_EQ(copy(msg.record(0)), first);
        EXPECT_EQ(copy(msg.record(1)), second);
        EXPECT_EQ(reason(5, header(row.type, 1, 0).raw(first).raw(second).bytes()), drop::length);
        EXPECT_EQ(reason(5, header(row.type, 3, 0).raw(first).raw(second).bytes()), drop::length);
        EXPECT_EQ(reason(5, header(row.type, 0, 2).bytes()), drop::none);
    }
}

TEST(decoder, looks_not_at_the_bulk_word_of_a_protection)
{
    const octets record = pattern(72, 3);
    for (const uint32_t bulk : {0U, 1U, 7U, 0xFFFFFFFFU}) {
        message msg{};
        const octets raw = header(12, bulk, 0xa1b2c3d4).raw(record).bytes();
        ASSERT_EQ(decode(3, raw, msg), drop::none);
        EXPECT_EQ(msg.count, 1U);
        EXPECT_EQ(copy(msg.record(0)), record);
    }
    EXPECT_EQ(reason(3, header(12, 1, 0).raw(pattern(71, 1)).bytes()), drop::length);
    EXPECT_EQ(reason(3, header(12, 2, 0).raw(pattern(144, 1)).bytes()), drop::length);
    EXPECT_EQ(reason(3, header(12, 0, 0).bytes()), drop::length);
}

TEST(decoder, takes_empty_requests_of_every_class)
{
    for (const uint32_t type : {2U, 3U, 6U}) {
        EXPECT_EQ(reason(9, header(type, 0, 2).bytes()), drop::none);
        EXPECT_EQ(reason(15, header(type, 0, 2).bytes()), drop::layout);
        EXPECT_EQ(reason(18, header(type, 0, 2).bytes()), drop::layout);
        EXPECT_EQ(reason(0xFFFFFFFF, header(type, 0, 2).bytes()), drop::layout);
    }
}

TEST(decoder, refuses_acs_of_a_class_without_layout)
{
    EXPECT_EQ(reason(9, create(9, {1})), drop::layout);
    EXPECT_EQ(reason(9, update(9, {1}, 1)), drop::layout);
    EXPECT_EQ(reason(15, create(15, {1})), drop::layout);
}

TEST(decoder, refuses_what_is_shorter_than_a_header)
{
    const octets whole = header(0, 0, 0).bytes();
    for (size_t size = 0; size < 16; size++) {
        EXPECT_EQ(reason(0, octets(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))),
                  drop::header);
    }
}

TEST(decoder, refuses_another_mark)
{
    for (const uint32_t mark : {0U, 1U, 4U, 0x03000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(reason(0, builder().u32(mark).u32(0).u32(0).u32(0).bytes()), drop::mark);
    }
}

TEST(decoder, refuses_unknown_types_and_its_own)
{
    for (const uint32_t type : {1U, 4U, 5U, 10U, 16U, 17U, 18U, 0x02000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(reason(0, header(type, 0, 0).bytes()), drop::type) << type;
    }
    for (const uint32_t type : {7U, 8U, 13U, 15U}) {
        EXPECT_EQ(reason(0, header(type, 0, 0).bytes()), drop::direction) << type;
    }
}

TEST(decoder, computes_lengths_in_64_bits)
{
    /* 0x40000000 handles of 4 bytes are 2^32 bytes: nothing, in 32 bits. */
    EXPECT_EQ(reason(0, header(6, 0x40000000, 0).bytes()), drop::length);
    for (const uint32_t type : {2U, 3U, 6U, 9U, 11U, 14U}) {
        EXPECT_EQ(reason(0, header(type, 0xFFFFFFFF, 0).bytes()), drop::length);
        EXPECT_EQ(reason(8, header(type, 0x80000000, 0).u32(1).bytes()), drop::length);
    }
}

TEST(decoder, refuses_handles_that_name_nothing)
{
    for (const uint32_t handle : {0U, 0xFFFFFFFFU}) {
        EXPECT_EQ(reason(3, create(3, {1, handle})), drop::handle);
        EXPECT_EQ(reason(3, update(3, {handle, 1}, 1)), drop::handle);
        EXPECT_EQ(reason(3, remove({1, 2, handle})), drop::handle);
    }
    EXPECT_EQ(reason(3, remove({1, 0xFFFFFFFE})), drop::none);
}

/* The message ends where readable memory ends, so that a byte too many would be the last of the test. */
TEST(decoder, reads_nothing_behind_the_message)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *pages = static_cast<uint8_t *>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    const octets whole = create(6, {1, 2, 3});
    ASSERT_LE(whole.size(), page);
    for (size_t size = 0; size <= whole.size(); size++) {
        uint8_t *place = pages + page - size;
        std::copy_n(whole.begin(), size, place);
        message msg{};
        const drop got = decode(6, {place, size}, msg);
        EXPECT_EQ(got, size < 16 ? drop::header : size < whole.size() ? drop::length : drop::none) << size;
    }
    munmap(pages, 2 * page);
}

TEST(decoder, names_every_reason)
{
    std::set<std::string> names;
    for (uint32_t i = 0; i < drop_count; i++) {
        names.insert(drop_name(static_cast<drop>(i)));
        EXPECT_NE(std::string(drop_text(static_cast<drop>(i))), "");
    }
    EXPECT_EQ(names.size(), drop_count);
}
