/*
 * The ring file: what is written is read, as long as it is there; what is not there any more is counted; and what
 * is no ring is told in words.
 */
#include "capture/ring.h"
#include "child.h"
#include "ring_reader.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <thread>

using namespace l2vpn::capture;

namespace {

class rings : public testing::Test {
protected:
    std::unique_ptr<ring> make(uint64_t size, uint32_t snap = 0)
    {
        qerrno cause = EOK;
        std::string problem;
        auto made = ring::create(m_path, observer::owner, size, snap, cause, problem);
        EXPECT_NE(made, nullptr) << problem;
        return made;
    }

    /* The bytes tell the length and each other. */
    static std::string message(size_t length)
    {
        std::string bytes(length, '\0');
        for (size_t i = 0; i < length; i++) {
            bytes[i] = static_cast<char>(length + i);
        }
        return bytes;
    }

    static void write(ring &to, const std::string &bytes, uint32_t class_id = 6)
    {
        record_head head{};
        head.kind = record_kind::message;
        head.direction = flow::to_process;
        head.class_id = class_id;
        head.link = 3;
        head.status = 32;
        /* In two pieces, as messages come. */
        const size_t half = bytes.size() / 2;
        const iovec pieces[] = {{const_cast<char *>(bytes.data()), half},
                                {const_cast<char *>(bytes.data()) + half, bytes.size() - half}};
        to.write(head, pieces, 2);
    }

    /* Writes messages of all sizes; the ring holds the latest of them, one behind the other, and no more. */
    void expect_a_whole_lap(ring &to)
    {
        constexpr uint64_t count = 1000;
        constexpr uint64_t slots = 256;
        const auto length = [](uint64_t i) { return 16 + i % 300; };
        for (uint64_t i = 0; i < count; i++) {
            write(to, message(length(i)));
        }
        uint64_t fit = 0;
        for (uint64_t taken = 0; fit < count; fit++) {
            taken += length(count - 1 - fit) <= one_slot_message ? 1 : 2;
            if (taken > slots) {
                break;
            }
        }
        std::vector<captured> records;
        ring_reader(m_path).read(records);
        ASSERT_EQ(records.size(), fit);
        for (uint64_t i = 0; i < fit; i++) {
            EXPECT_EQ(bytes_of(records[i]), message(length(count - fit + i)));
            EXPECT_EQ(records[i].head.number, records[0].head.number + i);
        }
    }

    static std::string bytes_of(const captured &record)
    {
        return {record.message.begin(), record.message.end()};
    }

    std::string refusal()
    {
        try {
            ring_reader reader(m_path);
            std::vector<captured> records;
            reader.read(records);
        } catch (const bad_file &bad) {
            return bad.what();
        }
        return "read";
    }

    void patch(std::streamoff at, const std::string &bytes)
    {
        std::fstream file(m_path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(at);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    system_test::temp_dir m_dir;
    std::string m_path = m_dir.file("ring");
};

} // namespace

TEST_F(rings, gives_back_whole_records_of_any_length)
{
    const auto to = make(1 << 20);
    const std::vector<size_t> lengths = {16, 160, 161, 400, 401, 65536};
    for (const size_t length : lengths) {
        write(*to, message(length));
    }
    std::vector<captured> records;
    ring_reader reader(m_path);
    reader.read(records);
    ASSERT_EQ(records.size(), lengths.size());
    for (size_t i = 0; i < lengths.size(); i++) {
        EXPECT_EQ(bytes_of(records[i]), message(lengths[i]));
        EXPECT_EQ(records[i].head.length, lengths[i]);
        EXPECT_EQ(records[i].head.number, i);
        EXPECT_EQ(records[i].head.class_id, 6U);
        EXPECT_EQ(records[i].head.link, 3U);
        EXPECT_EQ(records[i].head.status, 32U);
        EXPECT_EQ(records[i].head.by, observer::owner);
    }
    EXPECT_EQ(reader.lost(), 0U);
    EXPECT_FALSE(reader.writer_ended());
}

TEST_F(rings, keeps_the_beginning_only_where_told_so)
{
    const auto to = make(1 << 16, one_slot_message);
    write(*to, message(5000));
    std::vector<captured> records;
    ring_reader(m_path).read(records);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(bytes_of(records[0]), message(5000).substr(0, 160));
    EXPECT_EQ(records[0].head.length, 5000U);
}

TEST_F(rings, a_message_larger_than_a_quarter_of_the_ring_is_cut)
{
    const auto to = make(1 << 16);
    write(*to, message(60000));
    std::vector<captured> records;
    ring_reader(m_path).read(records);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_LE(records[0].message.size(), 1U << 14);
    EXPECT_GE(records[0].message.size(), 1U << 13);
    EXPECT_EQ(bytes_of(records[0]), message(60000).substr(0, records[0].message.size()));
}

TEST_F(rings, never_grows_and_counts_what_it_has_overwritten)
{
    const auto to = make(1 << 16);
    struct stat before {};
    ASSERT_EQ(stat(m_path.c_str(), &before), 0);
    constexpr uint64_t written = 5000;
    for (uint64_t i = 0; i < written; i++) {
        write(*to, message(16 + i % 300));
    }
    struct stat after {};
    ASSERT_EQ(stat(m_path.c_str(), &after), 0);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(after.st_size, 4096 + (1 << 16));

    std::vector<captured> records;
    ring_reader reader(m_path);
    reader.read(records);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().head.number, written - 1);
    for (const captured &record : records) {
        EXPECT_EQ(bytes_of(record), message(16 + record.head.number % 300));
    }
    EXPECT_EQ(records.size() + reader.lost(), written);
    expect_a_whole_lap(*to);
}

TEST_F(rings, what_comes_after_a_reader_has_read_is_not_lost)
{
    const auto to = make(1 << 16);
    std::vector<captured> records;
    ring_reader reader(m_path);
    EXPECT_EQ(reader.lost(), 0U);
    for (uint64_t i = 0; i < 300; i++) {
        write(*to, message(20));
    }
    reader.read(records);
    EXPECT_EQ(reader.lost(), 300U - 256U);
    for (uint64_t i = 0; i < 10; i++) {
        write(*to, message(20));
    }
    EXPECT_EQ(reader.lost(), 300U - 256U);
    to->release_file();
    reader.read(records);
    EXPECT_EQ(records.size(), 256U + 10U);
    EXPECT_EQ(reader.lost(), 300U - 256U);
}

TEST_F(rings, a_reader_that_follows_gets_only_what_is_new)
{
    const auto to = make(1 << 16);
    write(*to, message(20));
    ring_reader reader(m_path);
    reader.skip();
    std::vector<captured> records;
    reader.read(records);
    EXPECT_TRUE(records.empty());
    write(*to, message(30));
    reader.read(records);
    write(*to, message(40));
    reader.read(records);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(bytes_of(records[0]), message(30));
    EXPECT_EQ(bytes_of(records[1]), message(40));
    EXPECT_EQ(reader.lost(), 0U);
}

TEST_F(rings, threads_write_and_a_reader_gets_nothing_torn)
{
    const auto to = make(1 << 16);
    constexpr uint32_t threads = 4;
    constexpr uint32_t each = 4000;
    std::vector<std::thread> writers;
    for (uint32_t t = 0; t < threads; t++) {
        writers.emplace_back([&to] {
            for (uint32_t i = 0; i < each; i++) {
                write(*to, message(16 + i % 500));
            }
        });
    }
    ring_reader reader(m_path);
    std::vector<captured> records;
    uint64_t taken = 0;
    std::set<uint64_t> numbers;
    const auto check = [&] {
        for (const captured &record : records) {
            ASSERT_EQ(bytes_of(record), message(record.head.length));
            ASSERT_TRUE(numbers.insert(record.head.number).second) << "once";
        }
        taken += records.size();
        records.clear();
    };
    for (int i = 0; i < 100; i++) {
        reader.read(records);
        check();
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    to->release_file();
    EXPECT_TRUE(reader.writer_ended());
    reader.read(records);
    check();
    EXPECT_GT(taken, 0U);
    EXPECT_EQ(taken + reader.lost(), uint64_t{threads} * each);
    expect_a_whole_lap(*to);
}

TEST_F(rings, what_is_no_ring_is_refused_in_words)
{
    EXPECT_EQ(refusal(), "No such file or directory");
    m_dir.write("ring", "");
    EXPECT_EQ(refusal(), "empty, not a capture ring");
    m_dir.write("ring", "something else");
    EXPECT_EQ(refusal(), "not a capture ring");
    std::filesystem::remove(m_path);
    make(1 << 16).reset();
    EXPECT_EQ(refusal(), "read");
    std::filesystem::resize_file(m_path, 100);
    EXPECT_EQ(refusal(), "truncated: only 100 bytes are there");
    std::filesystem::resize_file(m_path, 50000);
    EXPECT_EQ(refusal(), "truncated: 50000 of 69632 bytes are there");
    std::filesystem::resize_file(m_path, 69632);
    patch(112, std::string(8, '\xff'));
    EXPECT_EQ(refusal(), "damaged: the header does not fit the file of 69632 bytes");
    patch(8, {2, 0, 0, 0});
    EXPECT_EQ(refusal(), "a capture ring of version 2; this program reads version 1");
}

TEST_F(rings, a_record_of_another_version_is_refused_by_name)
{
    write(*make(1 << 16), message(20));
    patch(4096 + 32, {0, 9}); /* the head's first two bytes */
    EXPECT_EQ(refusal(), "has records of version 9; this program reads version 1");
}

TEST_F(rings, a_damaged_record_is_counted_and_the_others_are_read)
{
    {
        const auto to = make(1 << 16);
        for (const size_t length : {size_t{20}, size_t{30}, size_t{40}}) {
            write(*to, message(length));
        }
    }
    patch(4096 + 256 + 34, {77}); /* the second record's kind */
    std::vector<captured> records;
    ring_reader reader(m_path);
    reader.read(records);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(bytes_of(records[1]), message(40));
    EXPECT_EQ(reader.lost(), 1U);
}

TEST_F(rings, another_file_in_its_place_is_left_alone)
{
    m_dir.write("ring", "something else");
    qerrno cause = EOK;
    std::string problem;
    EXPECT_EQ(ring::create(m_path, observer::owner, 1 << 16, 0, cause, problem), nullptr);
    EXPECT_EQ(cause, EEXIST);
    EXPECT_EQ(problem, m_path + ": there already and not a capture ring");
    EXPECT_EQ(system_test::read_file(m_path), "something else");
}
