/*
 * Files that hold the same records, all or some: each is read once, and none that only looks like another is left out.
 */
#include "overlapping.h"
#include "pcapng_reader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>

using namespace process_test;

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

/* What begins there does not know what was before. */
TEST_F(overlapping, what_is_missing_before_the_beginning_of_another_file_is_told)
{
    const std::vector<int64_t> lossy = {0, 1, -5, 7, 8};
    expect_together({lossy, {7, 8}}, lossy);
    expect_together({{7, 8}, lossy}, lossy);
    expect_together({{7, 8}, {-7, 7, 8}, lossy}, lossy);
    expect_together({{7, 8}, {-7, 7, 8}}, {-7, 7, 8});
    expect_together({{-7, 7, 8}, {7, 8}}, {-7, 7, 8});
}

TEST_F(overlapping, explain_tells_the_same_loss_in_either_order)
{
    const std::string lossy = make("lossy.pcapng", {0, 1, -5, 7, 8});
    const std::string begins = make("begins.pcapng", {7, 8});
    for (const auto &[one, other] : {std::pair(lossy, begins), std::pair(begins, lossy)}) {
        const system_test::result done = ctl({"explain", "0x11", "--read", one, "--read", other, "--json"});
        const json told = json::parse(done.out);
        std::map<std::string, uint64_t> lost;
        for (const json &source : told.at("searched")) {
            lost[source.at("path")] = source.at("lost");
        }
        EXPECT_EQ(lost, (std::map<std::string, uint64_t>{{lossy, 5}, {begins, 0}})) << one;
    }
}

TEST_F(overlapping, what_is_missing_at_the_end_is_told_once)
{
    const std::vector<int64_t> lossy = {0, 1, 2, -5};
    expect_together({lossy, {0, 1, 2}}, lossy);
    expect_together({{0, 1, 2}, lossy}, lossy);
    expect_together({{0, 1, 2}, lossy, lossy}, lossy);
    expect_together({lossy, lossy}, lossy);
    expect_together({{1, 2, -5}, lossy}, lossy);
    expect_together({{0, 1, 2, -2}, lossy}, lossy);
    const std::vector<int64_t> longer = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    for (const std::vector<int64_t> &other : {longer, {2, 3, 4, 5, 6, 7, 8}}) {
        expect_together({lossy, other}, longer);
        expect_together({other, lossy}, longer);
        expect_together({other, lossy, {1, 2}}, longer);
    }
    expect_together({lossy, {7, 8}}, {0, 1, 2, 7, 8, -5});
    expect_together({{-5}, {0, 1}}, {0, 1, -5});
}

/* As where a ring was followed, and a thread was late: its record is missing in the file until it comes. */
TEST_F(overlapping, what_was_overtaken_is_put_back_and_not_missing)
{
    const std::vector<int64_t> late = {0, -2, 3, 1, 2, 4};
    const std::vector<int64_t> right = {0, 1, 2, 3, 4};
    expect_together({late}, right);
    expect_together({late, right}, right);
    expect_together({right, late}, right);
    expect_together({{0, 2, 1, 3, 4}, late}, right);
    expect_together({{0, -2, 3, 2, 1, 4}}, right);
    expect_together({{0, -3, 4, 2, 5, -2}}, {0, 2, -2, 4, 5, -2});
    expect_together({{0, -2, 3, 2, -1, 5, 4}}, {0, 2, -1, 3, 4, 5});
}

TEST_F(overlapping, numbers_that_begin_again_are_not_put_back)
{
    for (const std::vector<int64_t> &again :
         {std::vector<int64_t>{5, 6, 7, 0, 1, 2}, {0, 1, 2, 0, 1, 2}, {4, 5, 6, 5, 6}, {2, 1, 0}}) {
        expect_together({again}, again);
    }
    expect_together({{0, -99, 100, 9, 10}}, {0, -99, 100, 9, 10});
}

/* Each interface counts for itself. */
TEST_F(overlapping, what_another_has_recorded_is_not_overtaken)
{
    const std::vector<std::pair<uint32_t, uint64_t>> written = {{0, 10}, {1, 20}, {0, 11}, {1, 21}, {0, 12}};
    {
        l2vpn::capture::pcapng_writer writer(m_dir.file("two.pcapng"), true, "test");
        writer.add_interface("l2vpnd-1");
        writer.add_interface("l2vpnd-1");
        for (const auto &[interface, number] : written) {
            writer.add(interface, refused(number), 0);
        }
        writer.place();
    }
    EXPECT_EQ(numbers({"--read", m_dir.file("two.pcapng")}), (std::vector<int64_t>{10, 20, 11, 21, 12}));
}

TEST_F(overlapping, explain_and_timeline_tell_the_same_where_a_record_was_overtaken)
{
    const std::string file = m_dir.file("x.pcapng");
    const std::string page = m_dir.file("x.html");
    const auto tell = [&] {
        const system_test::result told = ctl({"explain", "0x11", "--read", file, "--json"});
        EXPECT_EQ(told.status, 0) << told.err;
        EXPECT_EQ(ctl({"timeline", file, "-o", page, "--force"}).status, 0);
        return std::pair(json::parse(told.out), system_test::read_file(page));
    };
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", make_history()}).status, 0);
    const auto right = tell();
    std::vector<l2vpn::capture::captured> records;
    {
        std::ifstream whole(file, std::ios::binary);
        l2vpn::capture::pcapng_reader reader(whole);
        l2vpn::capture::captured record{};
        for (uint64_t lost = 0; reader.next(record, lost);) {
            records.push_back(record);
        }
    }
    ASSERT_EQ(records.size(), 4U);
    {
        l2vpn::capture::pcapng_writer writer(file, true, "test");
        writer.add_interface(*records[0].interface);
        for (const size_t number : {0U, 2U, 1U, 3U}) {
            writer.add(0, records[number], number == 2 ? 1 : 0);
        }
        writer.add_statistics(0, 4, 1);
        writer.place();
    }
    const auto overtaken = tell();
    EXPECT_EQ(overtaken.first, right.first);
    EXPECT_EQ(overtaken.second, right.second);
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
