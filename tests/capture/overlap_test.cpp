/*
 * Files that hold the same records, all or some: each is read once, and none that only looks like another is left out.
 */
#include "recorded.h"

#include <algorithm>
#include <filesystem>
#include <numeric>

using namespace process_test;

namespace {

class overlapping : public recorded {
protected:
    /* Of the records that are shown; -N where N are said to be missing. */
    std::vector<int64_t> numbers(const std::vector<std::string> &files) const
    {
        std::vector<int64_t> found;
        for (const json &row : rows(files)) {
            found.push_back(row.contains("lost") ? -row["lost"].get<int64_t>()
                                                 : row["number"].get<int64_t>());
        }
        return found;
    }
};

} // namespace

/* The ring itself, a link to it, a copy, and what was captured of it. */
TEST_F(overlapping, a_record_of_several_files_is_there_once)
{
    const std::string its = make_history();
    const std::string copy = m_dir.file("copy.ring");
    const std::string link = m_dir.file("link");
    const std::string file = m_dir.file("x.pcapng");
    std::filesystem::copy_file(its, copy);
    std::filesystem::create_symlink(its, link);
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", its}).status, 0);
    const std::vector<json> once = rows({"--read", its});
    ASSERT_EQ(once.size(), 4U);
    for (const std::string &other : {its, link, copy, file}) {
        EXPECT_EQ(rows({"--read", its, "--read", other}), once) << other;
        EXPECT_EQ(rows({"--read", other, "--read", its}), once) << other;
        EXPECT_EQ(
            json::parse(ctl({"explain", "0x11", "--read", its, "--read", other, "--json"}).out)["steps"],
            json::parse(ctl({"explain", "0x11", "--read", its, "--json"}).out)["steps"])
            << other;
    }
    const std::string all = m_dir.file("all.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", all, "--from-ring", its, "--from-ring", copy}).status, 0);
    EXPECT_EQ(rows({"--read", all}), once);
}

TEST_F(overlapping, captures_that_overlap_make_one_without_a_gap)
{
    start({"--capture-size", "64"}); /* 256 slots: the second capture lacks the beginning */
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    const auto send_and_capture = [&](uint64_t upto, const std::string &name) {
        for (uint64_t sent = totals()["received"].value("JOIN", uint64_t{0}); sent < upto; sent++) {
            EXPECT_TRUE(owner.send(header(0, 0, 0).bytes()));
        }
        EXPECT_TRUE(eventually([&] { return totals()["received"].value("JOIN", uint64_t{0}) == upto; }));
        EXPECT_EQ(ctl({"capture", "-w", m_dir.file(name), "--from-ring", ring()}).status, 0);
        return m_dir.file(name);
    };
    const std::string first = send_and_capture(200, "first.pcapng");
    const std::string second = send_and_capture(400, "second.pcapng");
    ASSERT_LT(numbers({"--read", second})[0], -50) << "some of it is lost there";
    std::vector<int64_t> expected(402);
    std::iota(expected.begin(), expected.end(), 0);
    for (const auto &[one, other] : {std::pair(first, second), std::pair(second, first)}) {
        EXPECT_EQ(numbers({"--read", one, "--read", other}), expected) << one;
        const json told = json::parse(ctl({"explain", "0x11", "--read", one, "--read", other, "--json"}).out);
        EXPECT_EQ(told["verdict"]["code"], "not-provisioned:not-told");
        EXPECT_EQ(told["notes"], json::array()) << "nothing is missing, or overwritten";
    }
}

/* One AC has another name there, one message is another link's: as of two processes. */
TEST_F(overlapping, records_that_only_look_alike_are_two)
{
    const std::string its = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", its}).status, 0);
    const std::vector<json> once = rows({"--read", file});
    const std::string content = system_test::read_file(file);
    for (const auto &[part, offset] : {std::pair(std::string("ac17"), size_t{2}),
                                       std::pair(std::string("\0\1\1\1\1\0\0\100", 8), size_t{31})}) {
        std::string changed = content;
        changed.at(changed.find(part) + offset) ^= 8;
        const std::string other = m_dir.write("other.pcapng", changed);
        const std::vector<json> both = rows({"--read", file, "--read", other});
        EXPECT_EQ(both.size(), once.size() + 1) << offset;
        for (const json &row : once) {
            EXPECT_EQ(std::ranges::count(both, row), 1) << row;
        }
    }
}
