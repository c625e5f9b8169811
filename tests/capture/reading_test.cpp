/*
 * What readers of recordings call malformed is what the process drops, and nothing else.
 */
#include "describe.h"

#include <gtest/gtest.h>

using namespace l2vpn::capture;

namespace {

void add(std::vector<uint8_t> &to, uint32_t word)
{
    to.resize(to.size() + sizeof word);
    l2vpnd::put32(&to[to.size() - sizeof word], word);
}

captured said(uint32_t class_id, std::vector<uint8_t> message)
{
    captured made{};
    made.head.kind = record_kind::message;
    made.head.direction = flow::to_process;
    made.head.by = observer::process;
    made.head.class_id = class_id;
    made.head.length = static_cast<uint32_t>(message.size());
    made.message = std::move(message);
    return made;
}

/* Of `count` ACs or records as their header says, with this in front of them, and this long. */
std::vector<uint8_t> message(uint32_t mark, uint32_t type, uint32_t count, uint32_t first, size_t length)
{
    std::vector<uint8_t> made;
    for (const uint32_t word : {mark, type, count, 3U, first, 0x11U}) {
        add(made, word);
    }
    made.resize(length, 1);
    return made;
}

struct counters {
    uint32_t sound = 0;
    uint32_t dropped = 0;
    uint32_t for_handle = 0;
};

void compare(uint32_t class_id, const std::vector<uint8_t> &bytes, counters &count)
{
    l2vpnd::message decoded{};
    const l2vpnd::drop reason = l2vpnd::decode(class_id, bytes, decoded);
    const reading seen = read(said(class_id, bytes));
    ASSERT_EQ(seen.fault != nullptr, reason != l2vpnd::drop::none)
        << "class " << class_id << ", type " << seen.type << ", " << bytes.size()
        << " bytes: " << l2vpnd::drop_name(reason);
    if (reason == l2vpnd::drop::direction) {
        return; /* which of the two is meant is said in other words */
    }
    if (reason == l2vpnd::drop::none) {
        count.sound++;
        EXPECT_EQ(seen.count, decoded.count);
    } else {
        count.dropped++;
        EXPECT_STREQ(seen.fault, l2vpnd::drop_text(reason));
        count.for_handle += reason == l2vpnd::drop::handle ? 1 : 0;
    }
}

} // namespace

TEST(reading, takes_and_refuses_what_the_process_does)
{
    counters count;
    for (uint32_t class_id = 0; class_id <= l2vpnd::class_count; class_id++) {
        for (uint32_t type = 0; type <= l2vpnd::message_types; type++) {
            const l2vpnd::class_row *cls = l2vpnd::find_class(class_id);
            const l2vpnd::message_row *row = l2vpnd::find_message(type);
            const l2vpnd::payload each = row != nullptr ? row->each : l2vpnd::payload{};
            const size_t size = each.handle + each.definition + each.record +
                                (each.info && cls != nullptr ? cls->info_size : 0);
            for (const uint32_t mark : {3U, 4U}) {
                for (const uint32_t first : {0U, 1U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
                    for (const uint32_t records : {0U, 1U, 2U, 0x40000001U}) {
                        for (const size_t length :
                             {size_t{15}, size_t{16}, 16 + size, 15 + 2 * size, 16 + 2 * size}) {
                            compare(class_id, message(mark, type, records, first, length), count);
                        }
                    }
                }
            }
        }
    }
    EXPECT_GT(count.sound, 0U);
    EXPECT_GT(count.dropped, 0U);
    EXPECT_GT(count.for_handle, 0U);
}

TEST(reading, a_handle_that_was_not_kept_is_not_in_doubt)
{
    captured cut = said(3, message(3, 6, 2, 0x11, 24));
    l2vpnd::put32(&cut.message[20], 0);
    EXPECT_NE(read(cut).fault, nullptr);
    cut.message.resize(20);
    EXPECT_EQ(read(cut).fault, nullptr);
    l2vpnd::put32(&cut.message[16], l2vpnd::no_handle);
    EXPECT_NE(read(cut).fault, nullptr);
}
