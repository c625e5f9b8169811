/*
 * The golden messages, which the library's encoder is checked with too: the process must find in them, field by
 * field, what their comments say.
 */
#include "decoder.h"
#include "encoder.h"
#include "fields.h"
#include "support.h"

#include "../support/golden.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

using namespace l2vpnd;
using process_test::octets;

namespace {

using steps = std::vector<std::string>; /* "u32:11121314", "byte:1f", "bits:96" */

std::string step(const char *kind, uint64_t value)
{
    std::ostringstream text;
    text << kind << ':' << std::hex << value;
    return text.str();
}

/* What a golden file holds, in order. */
steps steps_of_file(const std::string &name)
{
    std::ifstream file(golden::path_of(name));
    steps out;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::vector<std::string> tokens{std::istream_iterator<std::string>(words), {}};
        if (tokens.empty()) {
            continue;
        }
        const std::string kind = tokens.back();
        tokens.pop_back();
        if (kind == "bytes") {
            for (const std::string &token : tokens) {
                out.push_back(step("byte", std::stoul(token, nullptr, 16)));
            }
        } else if (kind.starts_with("bits=")) {
            out.push_back(step("bits", std::stoul(kind.substr(5), nullptr, 16)));
        } else {
            std::string digits;
            for (const std::string &token : tokens) {
                digits += token;
            }
            out.push_back(step(kind.c_str(), std::stoull(digits, nullptr, 16)));
        }
    }
    return out;
}

void add_number(const field &f, const json &value, steps &out)
{
    const std::string kind = "u" + std::to_string(8 * f.width);
    for (uint32_t i = 0; i < f.count; i++) {
        out.push_back(step(kind.c_str(), (f.count == 1 ? value : value[i]).get<uint64_t>()));
    }
}

/* What the process shows of a record, in order. A text is shown as text, so its bytes are taken as they are. */
void add_steps(field_list fields, bytes record, steps &out)
{
    json shown = json::object();
    show_fields(fields, record, SIZE_MAX, shown);
    for (const field &f : fields) {
        const json &value = shown.at(f.name);
        if (f.kind == field_kind::number) {
            add_number(f, value, out);
        } else if (f.kind == field_kind::bits6) {
            out.push_back(step("bits", value["a"].get<uint64_t>() | value["b"].get<uint64_t>() << 1 |
                                           value["c"].get<uint64_t>() << 2 | value["d"].get<uint64_t>() << 3 |
                                           value["e"].get<uint64_t>() << 4 |
                                           value["f"].get<uint64_t>() << 6));
        } else {
            const std::string digits = f.kind == field_kind::text ? to_hex(record.subspan(f.offset, f.count))
                                                                  : value.get<std::string>();
            for (size_t at = 0; at < digits.size(); at += 2) {
                out.push_back(step("byte", std::stoul(digits.substr(at, 2), nullptr, 16)));
            }
        }
    }
}

steps header_steps(const message &msg)
{
    return {step("u32", 3), step("u32", msg.row->type), step("u32", msg.bulk), step("u32", msg.flags)};
}

/* The message as the process understands it. */
steps steps_of_message(uint32_t class_id, const message &msg)
{
    steps out = header_steps(msg);
    if (msg.row->each.handle != 0) {
        for (uint32_t i = 0; i < msg.count; i++) {
            out.push_back(step("u32", msg.handle(i)));
        }
        for (uint32_t i = 0; msg.row->each.definition != 0 && i < msg.count; i++) {
            add_steps(definition_fields(class_id), msg.definition(i), out);
        }
        for (uint32_t i = 0; msg.row->each.info && i < msg.count; i++) {
            add_steps(info_head_fields(), msg.info(i), out);
            add_steps(info_fields(class_id), msg.info(i), out);
        }
        return out;
    }
    const field_list fields = msg.row->type == 14   ? msti_root_fields()
                              : msg.row->type == 11 ? mstp_state_fields()
                                                    : mstp_protection_fields();
    for (uint32_t i = 0; i < msg.count; i++) {
        add_steps(fields, msg.record(i), out);
    }
    return out;
}

void expect_golden(const std::string &name, uint32_t class_id)
{
    SCOPED_TRACE(name);
    const golden::message file = golden::load(name);
    message msg{};
    ASSERT_EQ(decode(class_id, file.wire, msg), drop::none);
    EXPECT_EQ(steps_of_message(class_id, msg), steps_of_file(name));
}

} // namespace

class golden_of_class : public testing::TestWithParam<uint32_t> {};

TEST_P(golden_of_class, create)
{
    expect_golden("create_class_" + std::to_string(GetParam()), GetParam());
}

TEST_P(golden_of_class, update)
{
    expect_golden("update_class_" + std::to_string(GetParam()), GetParam());
}

INSTANTIATE_TEST_SUITE_P(classes, golden_of_class,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 16));

TEST(golden, messages_that_are_the_same_for_every_class)
{
    for (const char *name : {"join", "delete", "create_empty", "update_empty", "mstp_root", "mstp_root_empty",
                             "mstp_state", "mstp_state_empty", "mstp_protect", "msti_vid_map_empty"}) {
        expect_golden(name, 3);
    }
}

TEST(golden, vlan_map_entries_are_msti_and_vlan)
{
    const golden::message file = golden::load("msti_vid_map");
    record_budget budget{10};
    mstp_table table(budget);
    message msg{};
    ASSERT_EQ(decode(3, file.wire, msg), drop::none);
    table.take_vlans(msg, {true, true, true, true});
    table.end_vlans();
    ASSERT_EQ(table.vlans().size(), 3U);
    EXPECT_EQ(table.vlans().msti(0x6c6d), 0x6a6b);
    EXPECT_EQ(table.vlans().msti(0x7071), 0x6e6f);
    EXPECT_EQ(table.vlans().msti(0x7475), 0x7273);
}

/* Class 17 carries whatever its slices hold: heads packed at the front, then nothing. */
TEST(golden, class_17_is_kept_as_bytes)
{
    for (const char *name : {"create_class_17", "update_class_17"}) {
        const golden::message file = golden::load(name);
        message msg{};
        ASSERT_EQ(decode(17, file.wire, msg), drop::none);
        octets infos;
        for (uint32_t i = 0; i < msg.count; i++) {
            infos.insert(infos.end(), msg.info(i).begin(), msg.info(i).end());
        }
        EXPECT_EQ(infos, octets(file.wire.end() - static_cast<ptrdiff_t>(200 * msg.count), file.wire.end()));
        EXPECT_TRUE(find_class(17)->info_opaque);
        EXPECT_TRUE(info_fields(17).empty());
    }
}

/* The messages of the other direction are as long as the process makes them. */
TEST(golden, provision_messages_have_the_size_of_their_class)
{
    for (const uint32_t class_id : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 8U, 10U, 11U, 12U, 13U, 14U, 16U}) {
        const golden::message file = golden::load("provision_class_" + std::to_string(class_id));
        const class_row &cls = *find_class(class_id);
        ac_store store(cls.info_size);
        std::vector<uint32_t> slots;
        for (uint32_t i = 0; i < get32(file.wire.data() + 8); i++) {
            store.reserve(1);
            slots.push_back(store.insert(1, i + 1, 0));
            store.set_info(slots.back(), process_test::pattern(cls.info_size, 1));
        }
        EXPECT_EQ(encode_provision(cls, store, slots, 1, 0).size(), file.wire.size()) << "class " << class_id;
    }
}

TEST(golden, bulk_notify)
{
    const golden::message file = golden::load("bulk_notify");
    const uint32_t count = get32(file.wire.data() + 8);
    std::vector<bulk_notice> records;
    for (const uint8_t *at = file.wire.data() + 16; records.size() < count; at += 32) {
        bulk_notice record;
        record.word = get32(at);
        record.half = get16(at + 4);
        record.octets = {at[6], at[7]};
        record.words = {get32(at + 8), get32(at + 12), get32(at + 16), get32(at + 20)};
        record.opaque = {at[24], at[25], at[26], at[27]};
        record.word2 = get32(at + 28);
        records.push_back(record);
    }
    EXPECT_EQ(encode_bulk_notify(records, get32(file.wire.data() + 12)), file.wire);
}

TEST(golden, unprovision_and_header_notice)
{
    const golden::message file = golden::load("unprovision");
    ac_store store(16);
    std::vector<uint32_t> slots;
    for (uint32_t i = 0; i < get32(file.wire.data() + 8); i++) {
        store.reserve(1);
        slots.push_back(store.insert(1, get32(file.wire.data() + 16 + static_cast<size_t>(4) * i), 0));
    }
    EXPECT_EQ(encode_unprovision(store, slots, get32(file.wire.data() + 12)), file.wire);

    const golden::message notice = golden::load("hdr_notify");
    EXPECT_EQ(encode_header(15, get32(notice.wire.data() + 8), get32(notice.wire.data() + 12)), notice.wire);
}
