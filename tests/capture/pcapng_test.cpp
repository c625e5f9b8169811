/*
 * pcapng files: what is written is read, in either byte order; a file that breaks off gives what it holds.
 */
#include "child.h"
#include "pcapng_reader.h"
#include "pcapng_writer.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>

using namespace l2vpn::capture;

namespace {

captured record(uint64_t number, size_t length)
{
    captured made{};
    made.time = 1'700'000'000'123'456'789 + number;
    made.head.kind = record_kind::message;
    made.head.direction = flow::to_owner;
    made.head.by = observer::process;
    made.head.number = number;
    made.head.length = static_cast<uint32_t>(length);
    made.message.assign(length, static_cast<uint8_t>(number));
    return made;
}

struct outcome {
    std::vector<captured> records;
    std::vector<uint64_t> lost; /* before each */
    pcapng_summary summary;
    std::string refusal;
};

outcome read(const std::string &content)
{
    outcome out;
    std::istringstream file(content);
    try {
        pcapng_reader reader(file);
        captured one{};
        for (uint64_t lost = 0; reader.next(one, lost);) {
            out.records.push_back(one);
            out.lost.push_back(lost);
        }
        out.summary = reader.summary();
    } catch (const bad_file &bad) {
        out.refusal = bad.what();
    }
    return out;
}

class pcapng : public testing::Test {
protected:
    /* Three records, two of them behind five that were lost. */
    std::string make()
    {
        pcapng_writer writer(m_path, false, "test");
        EXPECT_EQ(writer.add_interface("l2vpnd-1"), 0U);
        writer.add(0, record(0, 16), 0);
        writer.add(0, record(6, 33), 5);
        writer.add(0, record(7, 40), 0);
        writer.add_statistics(0, 9, 6);
        writer.place();
        EXPECT_EQ(writer.size(), system_test::read_file(m_path).size());
        return system_test::read_file(m_path);
    }

    auto files() const
    {
        return std::distance(std::filesystem::directory_iterator(m_dir.path()),
                             std::filesystem::directory_iterator());
    }

    system_test::temp_dir m_dir;
    std::string m_path = m_dir.file("x.pcapng");
};

/* A block as a machine of the other byte order writes it. */
std::string big_block(uint32_t type, const std::string &body)
{
    const auto word = [](uint32_t value) {
        std::string bytes(4, '\0');
        put_number(reinterpret_cast<uint8_t *>(bytes.data()), value);
        return bytes;
    };
    const auto length = static_cast<uint32_t>(body.size() + 12);
    return word(type) + word(length) + body + word(length);
}

} // namespace

TEST_F(pcapng, what_is_written_is_read)
{
    const outcome got = read(make());
    EXPECT_EQ(got.refusal, "");
    ASSERT_EQ(got.records.size(), 3U);
    EXPECT_EQ(got.records[1].time, 1'700'000'000'123'456'795U);
    EXPECT_EQ(got.records[1].head.number, 6U);
    EXPECT_EQ(got.records[1].message, std::vector<uint8_t>(33, 6));
    EXPECT_EQ(got.lost, (std::vector<uint64_t>{0, 5, 0}));
    EXPECT_EQ(got.summary.lost, 6U);
    EXPECT_EQ(got.summary.records, 3U);
    EXPECT_EQ(got.summary.ends_early, "");
}

/* Also where two have the same name, or the same place in one section and the next. */
TEST_F(pcapng, each_record_has_the_interface_that_it_came_from)
{
    {
        pcapng_writer writer(m_path, false, "test");
        EXPECT_EQ(writer.add_interface("l2vpnd-1"), 0U);
        EXPECT_EQ(writer.add_interface("l2vpnd-1"), 1U);
        EXPECT_EQ(writer.add_interface(""), 2U);
        for (uint32_t i = 0; i < 6; i++) {
            writer.add(i % 3, record(i, 16), 0);
        }
        writer.place();
    }
    const std::string section = system_test::read_file(m_path);
    const outcome got = read(section + section);
    ASSERT_EQ(got.records.size(), 12U);
    std::set<std::shared_ptr<const std::string>> all;
    for (size_t i = 0; i < 12; i++) {
        ASSERT_NE(got.records[i].interface, nullptr);
        EXPECT_EQ(*got.records[i].interface, i % 3 == 2 ? "" : "l2vpnd-1") << i;
        EXPECT_EQ(got.records[i].interface, got.records[i / 6 * 6 + i % 3].interface) << i;
        all.insert(got.records[i].interface);
    }
    EXPECT_EQ(all.size(), 6U);
}

TEST_F(pcapng, a_file_cut_anywhere_gives_what_it_holds_and_says_where_it_ends)
{
    const std::string whole = make();
    size_t most = 0;
    for (size_t length = 0; length < whole.size(); length++) {
        const outcome got = read(whole.substr(0, length));
        EXPECT_GE(got.records.size(), most);
        most = std::max(most, got.records.size());
        if (length < 12) {
            EXPECT_EQ(got.refusal, length == 0 ? "empty, not a pcapng file" : "not a pcapng file");
        } else {
            EXPECT_EQ(got.refusal, "") << length;
            EXPECT_TRUE(got.summary.ends_early.empty() ||
                        got.summary.ends_early.starts_with("breaks off at byte " + std::to_string(length) +
                                                           ", in the block at byte "))
                << got.summary.ends_early;
        }
    }
    EXPECT_EQ(most, 3U);
    EXPECT_EQ(read(whole.substr(0, whole.size() - 1)).summary.lost, 5U) << "as the packets say";
    EXPECT_NE(read(whole.substr(0, whole.size() - 1)).summary.ends_early, "");
}

/* Which is read piece by piece. */
TEST_F(pcapng, a_long_record_is_whole_or_the_file_breaks_off_in_it)
{
    captured one = record(1, 200'000);
    for (size_t i = 0; i < one.message.size(); i++) {
        one.message[i] = static_cast<uint8_t>(i * 31 / 7);
    }
    pcapng_writer writer(m_path, false, "test");
    writer.add_interface("l2vpnd-1");
    writer.add(0, one, 0);
    writer.place();
    const std::string whole = system_test::read_file(m_path);
    const outcome got = read(whole);
    ASSERT_EQ(got.records.size(), 1U);
    EXPECT_EQ(got.records[0].message, one.message);
    EXPECT_EQ(got.summary.ends_early, "");
    for (size_t length = whole.size() - 1; length > whole.size() - 200'000; length -= 1021) {
        const outcome cut = read(whole.substr(0, length));
        EXPECT_EQ(cut.refusal, "");
        EXPECT_EQ(cut.records.size(), 0U);
        EXPECT_TRUE(cut.summary.ends_early.starts_with("breaks off at byte " + std::to_string(length) + ","))
            << cut.summary.ends_early;
    }
}

TEST_F(pcapng, the_other_byte_order_and_other_clocks_are_read)
{
    using namespace std::string_literals;
    std::array<uint8_t, head_length> head{};
    put_head(record(4, 0).head, head.data());
    const std::string packet(head.begin(), head.end());
    const std::string section =
        big_block(0x0A0D0D0A, "\x1a\x2b\x3c\x4d\0\1\0\0\xff\xff\xff\xff\xff\xff\xff\xff"s);
    /* Without a resolution, time counts in microseconds. */
    const std::string interface = big_block(1, "\0\x93\0\0\0\0\0\0"s);
    const std::string foreign = big_block(1, "\0\1\0\0\0\0\0\0"s);
    const std::string times = "\0\0\0\0\0\0\0\7\0\0\0\x40\0\0\0\x40"s;
    const outcome got = read(section + interface + foreign + big_block(6, "\0\0\0\0"s + times + packet) +
                             big_block(6, "\0\0\0\1"s + times + packet) + big_block(99, "anything"));
    EXPECT_EQ(got.refusal, "");
    ASSERT_EQ(got.records.size(), 1U);
    EXPECT_EQ(got.records[0].time, 7000U);
    EXPECT_EQ(got.records[0].head.number, 4U);
    EXPECT_EQ(got.summary.foreign, 1U);
}

TEST_F(pcapng, what_another_interface_has_lost_is_none_of_ours)
{
    using namespace std::string_literals;
    const std::string section =
        big_block(0x0A0D0D0A, "\x1a\x2b\x3c\x4d\0\1\0\0\xff\xff\xff\xff\xff\xff\xff\xff"s);
    const std::string ours = big_block(1, "\0\x93\0\0\0\0\0\0"s);
    const std::string foreign = big_block(1, "\0\1\0\0\0\0\0\0"s);
    const auto dropped = [](char interface, char count) {
        return big_block(5, "\0\0\0"s + interface + "\0\0\0\0\0\0\0\7\0\5\0\x8\0\0\0\0\0\0\0"s + count);
    };
    const outcome got = read(section + ours + foreign + dropped('\0', '\3') + dropped('\1', '\x64'));
    EXPECT_EQ(got.refusal, "");
    EXPECT_EQ(got.summary.lost, 3U);
}

TEST_F(pcapng, a_record_of_another_version_is_refused_by_name)
{
    std::string file = make();
    const size_t at = file.find(std::string("\0\1\1\2\1\0\0\x40", 8));
    ASSERT_NE(at, std::string::npos);
    file[at + 1] = 2;
    EXPECT_EQ(read(file).refusal, "has records of version 2; this program reads version 1");
}

TEST_F(pcapng, damage_is_named_with_its_place)
{
    const std::string whole = make();
    std::string file = whole;
    file[4] = 3;
    EXPECT_EQ(read(file).refusal, "damaged: the block at byte 0 has an impossible length");
    file = whole;
    file[8] = 0;
    EXPECT_EQ(read(file).refusal, "damaged: the block at byte 0 has no byte-order mark");
    file = whole;
    file[12] = 2;
    EXPECT_EQ(read(file).refusal, "a pcapng file of version 2; this program reads version 1");
    EXPECT_EQ(read("something that is no capture at all").refusal, "not a pcapng file");
}

TEST_F(pcapng, a_file_that_is_there_is_replaced_only_when_told_so)
{
    m_dir.write("x.pcapng", "precious");
    try {
        const pcapng_writer writer(m_path, false, "test");
        FAIL() << "it was replaced";
    } catch (const bad_file &bad) {
        EXPECT_STREQ(bad.what(), "there already (--force replaces it)");
    }
    EXPECT_EQ(system_test::read_file(m_path), "precious");
    pcapng_writer(m_path, true, "test").flush();
    EXPECT_EQ(system_test::read_file(m_path), "precious") << "until all of the new one is there";
    pcapng_writer(m_path, true, "test").place();
    EXPECT_EQ(read(system_test::read_file(m_path)).refusal, "");
    EXPECT_EQ(files(), 1) << "nothing else is left";
}

TEST_F(pcapng, what_appears_in_its_place_meanwhile_is_left_alone)
{
    pcapng_writer writer(m_path, false, "test");
    m_dir.write("precious", "precious");
    std::filesystem::create_symlink(m_dir.file("precious"), m_path);
    EXPECT_THROW(writer.place(), bad_file);
    EXPECT_EQ(system_test::read_file(m_path), "precious");
}

TEST_F(pcapng, what_is_no_file_is_written_as_it_is)
{
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    std::string got;
    std::thread reader([&] { got = system_test::read_file(m_path); });
    {
        pcapng_writer writer(m_path, true, "test");
        writer.place();
    }
    reader.join();
    EXPECT_EQ(read(got).refusal, "");
    EXPECT_TRUE(std::filesystem::is_fifo(m_path));
}

TEST_F(pcapng, no_packet_is_larger_than_other_programs_read)
{
    constexpr size_t sent = 300'000;
    constexpr size_t packet = 262'144;
    pcapng_writer writer(m_path, false, "test");
    writer.add_interface("l2vpnd-1");
    writer.add(0, record(0, sent), 0);
    writer.place();
    const outcome got = read(system_test::read_file(m_path));
    ASSERT_EQ(got.records.size(), 1U);
    EXPECT_EQ(got.records[0].message.size(), packet - head_length);
    EXPECT_EQ(got.records[0].head.length, sent);
    const system_test::result shown = system_test::run(
        "/usr/bin/tshark", {"-r", m_path, "-T", "fields", "-e", "frame.cap_len", "-e", "frame.len"},
        {"HOME=" + m_dir.path(), "XDG_CONFIG_HOME=" + m_dir.path()});
    EXPECT_EQ(shown.out, std::to_string(packet) + "\t" + std::to_string(sent + head_length) + "\n")
        << shown.err;
}
