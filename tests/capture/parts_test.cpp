/*
 * Parts of one capture: they are read, and written together, as the one that they are.
 */
#include "overlapping.h"
#include "pcapng_reader.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

using namespace process_test;

namespace {

using l2vpn::capture::captured;

struct part_record {
    uint64_t number;
    uint64_t time;
    uint64_t missing = 0;
};

std::vector<captured> records_of(const std::string &file)
{
    std::ifstream from(file, std::ios::binary);
    l2vpn::capture::pcapng_reader reader(from);
    std::vector<captured> found;
    captured record{};
    for (uint64_t lost = 0; reader.next(record, lost);) {
        found.push_back(record);
    }
    return found;
}

/* What an interface's statistics say: its number, what was recorded, what of it was lost. */
using statistics = std::array<uint64_t, 3>;

std::vector<statistics> statistics_of(const std::string &file)
{
    const std::string content = system_test::read_file(file);
    const auto number_at = [&content](size_t at, auto value) {
        content.copy(reinterpret_cast<char *>(&value), sizeof value, at);
        return value;
    };
    std::vector<statistics> found;
    for (size_t at = 0; at < content.size(); at += number_at(at + 4, uint32_t{})) {
        constexpr uint32_t interface_statistics = 5;
        if (number_at(at, uint32_t{}) == interface_statistics) { /* two options of 8 bytes behind its time */
            found.push_back({number_at(at + 8, uint32_t{}), number_at(at + 24, uint64_t{}),
                             number_at(at + 36, uint64_t{})});
        }
    }
    return found;
}

class parts : public overlapping {
protected:
    static constexpr uint64_t a_second = 1'000'000'000;

    void part(const std::string &name, const std::vector<part_record> &records,
              const std::string &process = "l2vpnd-1")
    {
        l2vpn::capture::pcapng_writer writer(m_dir.file(name), true, "test");
        writer.add_interface(process);
        uint64_t missing = 0;
        for (const part_record &record : records) {
            captured made = refused(record.number);
            made.time = record.time;
            writer.add(0, made, record.missing);
            missing += record.missing;
        }
        writer.add_statistics(0, records.size() + missing, missing);
        writer.place();
    }
    void expect_read(const std::vector<int64_t> &expected) const
    {
        EXPECT_EQ(numbers({"--read", m_dir.file("1"), "--read", m_dir.file("2")}), expected);
        EXPECT_EQ(numbers({"--read", m_dir.file("2"), "--read", m_dir.file("1")}), expected);
    }
};

} // namespace

/* The last of one part and the first of the next were recorded at the same moment, and the clock read in between. */
TEST_F(parts, are_read_in_the_order_of_their_numbers)
{
    part("1", {{0, 10}, {1, 14}, {2, 15}});
    part("2", {{3, 12}, {4, 13}, {5, 20}});
    expect_read({0, 1, 2, 3, 4, 5});
    part("2", {{3, 12}, {4, 13}, {5, 20}}, "l2vpnd-2");
    expect_read({0, 3, 4, 1, 2, 5}); /* another process */
    part("1", {{0, 10}, {1, 14 + a_second}});
    part("2", {{3, 12}, {4, 13}});
    expect_read({0, 3, 4, 1}); /* not at the same moment */
    part("1", {{0, 10}, {1, 14}});
    part("2", {{70, 12}, {71, 13}});
    expect_read({0, 70, 71, 1});
    part("1", {{40, 10}, {41, 14}});
    part("2", {{0, 12}, {1, 15}});
    expect_read({40, 0, 41, 1}); /* one that has begun again */
}

/* What comes next is the same however they are given. */
TEST_F(parts, wait_for_one_another_and_others_do_not)
{
    part("1", {{0, 5}, {1, 14}});
    part("2", {{2, 10}});
    part("3", {{100, 12}}, "l2vpnd-2");
    std::vector<std::string> files = {"1", "2", "3"};
    do {
        std::vector<std::string> arguments;
        for (const std::string &file : files) {
            arguments.insert(arguments.end(), {"--read", m_dir.file(file)});
        }
        EXPECT_EQ(numbers(arguments), (std::vector<int64_t>{0, 100, 1, 2})) << testing::PrintToString(files);
    } while (std::ranges::next_permutation(files).found);
}

/* It was overtaken, and the capture has gone on in the next part by then. */
TEST_F(parts, what_came_late_into_the_next_one_is_not_missing)
{
    part("1", {{0, 10}, {2, 12, 1}});
    part("2", {{1, 11}, {3, 13}});
    expect_read({0, 1, 2, 3});
    part("2", {{1, 13}, {3, 14}});
    expect_read({0, 1, 2, 3}); /* the clock was read in between */
    part("1", {{0, 10}, {4, 14, 3}, {5, 15}, {7, 17, 1}});
    part("2", {{1, 11}, {3, 12}, {6, 16}, {8, 18}});
    expect_read({0, 1, 3, -1, 4, 5, 6, 7, 8});
    part("2", {{1, 11}, {3, 13}}, "l2vpnd-2");
    part("1", {{0, 10}, {2, 12, 1}});
    expect_read({0, 1, -1, 2, 3}); /* another process has the number */
    part("1", {{0, 10}, {2, 12 + a_second, 1}});
    part("2", {{1, 11}});
    expect_read({0, 1, -1, 2}); /* or this one, long before */
    part("1", {{0, 10}, {10, 12, 1}});
    part("2", {{8, 11}});
    expect_read({0, 8, -1, 10}); /* which was not missing */
}

/* The process, and not the file that it was read from, has recorded: a batch that is open in one is closed in the other. */
TEST_F(parts, that_are_written_to_one_file_are_one_process_s)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11}, 0x1)) && owner.send(create(3, {0x12}, 0x2)));
    ASSERT_TRUE(holds(2));
    const std::string whole = m_dir.file("whole.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", whole, "--from-ring", ring()}).status, 0);
    const std::vector<captured> records = records_of(whole);
    ASSERT_EQ(records.size(), 3U);
    const auto write = [&](const std::string &name, size_t from, size_t upto) {
        l2vpn::capture::pcapng_writer writer(m_dir.file(name), true, "test");
        writer.add_interface(*records[0].interface);
        for (size_t i = from; i < upto; i++) {
            writer.add(0, records[i], 0);
        }
        writer.place();
        return m_dir.file(name);
    };
    const std::string first = write("x.pcapng.1", 0, 2);
    const std::string second = write("x.pcapng", 2, 3);
    const std::string all = m_dir.file("all.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", all, "--from-ring", first, "--from-ring", second}).status, 0);
    EXPECT_EQ(rows({"--read", all}), rows({"--read", whole}));
    const auto told_of = [&](const std::vector<std::string> &files) {
        std::vector<std::string> arguments = {"explain", "0x11", "--json"};
        for (const std::string &file : files) {
            arguments.insert(arguments.end(), {"--read", file});
        }
        json told = json::parse(ctl(arguments).out);
        for (json &step : told.at("steps")) {
            step.erase("source");
        }
        return json({told.at("steps"), told.at("verdict"), told.at("notes")});
    };
    EXPECT_THAT(told_of({whole}).dump(), HasSubstr("batch-closed"));
    EXPECT_EQ(told_of({first, second}), told_of({whole}));
    EXPECT_EQ(told_of({all}), told_of({whole}));
}

/* Files of two processes can have one name. */
TEST_F(parts, of_two_processes_keep_the_names_of_their_interfaces)
{
    std::filesystem::create_directory(m_dir.file("a"));
    std::filesystem::create_directory(m_dir.file("b"));
    const std::string one = make("a/x.pcapng", {0, 1, -2, 4}, "l2vpnd-1");
    const std::string other = make("b/x.pcapng", {7, 8, -3}, "l2vpnd-2");
    const std::string both = m_dir.file("both.pcapng");
    const std::string all = m_dir.file("all.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", both, "--from-ring", other, "--from-ring", one}).status, 0);
    EXPECT_EQ(statistics_of(both), (std::vector<statistics>{{1, 5, 3}, {0, 5, 2}}));
    const std::string its = make_history();
    ASSERT_EQ(ctl({"capture", "-w", all, "--from-ring", both, "--from-ring", its}).status, 0);
    std::map<std::string, std::vector<uint64_t>> found;
    for (const captured &record : records_of(all)) {
        found[*record.interface].push_back(record.head.number);
    }
    const std::map<std::string, std::vector<uint64_t>> expected = {
        {"l2vpnd-1", {0, 1, 4}}, {"l2vpnd-2", {7, 8}}, {std::filesystem::path(its).stem(), {0, 1, 2, 3}}};
    EXPECT_EQ(found, expected);
}
