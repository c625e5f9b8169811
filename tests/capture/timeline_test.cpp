/*
 * l2vpnctl timeline: the file that it makes, and what it refuses. What the page shows is for a browser to tell.
 */
#include "recorded.h"

#include <filesystem>

using namespace process_test;
namespace fs = std::filesystem;

TEST_F(recorded, a_page_is_one_file_that_needs_no_other)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    for (const std::string &source : {file, path}) {
        const std::string page = m_dir.file("page.html");
        const system_test::result done = ctl({"timeline", source, "-o", page, "--force"});
        EXPECT_EQ(done.status, 0) << done.err;
        EXPECT_EQ(done.err, "") << "no progress is shown where there is no terminal";
        EXPECT_EQ(done.out, "");
        const std::string html = system_test::read_file(page);
        EXPECT_TRUE(html.starts_with("<!DOCTYPE html>"));
        EXPECT_TRUE(html.ends_with("</html>\n"));
        for (const char *from_elsewhere : {"http:", "https:", " src=", "@import", "url("}) {
            EXPECT_THAT(html, testing::Not(HasSubstr(from_elsewhere)));
        }
        EXPECT_THAT(html, HasSubstr("default-src 'none'"));
        EXPECT_THAT(html, HasSubstr("<script type=\"text/plain\" id=\"part0\">"));
        EXPECT_THAT(html, testing::Not(HasSubstr("/* draw.js */")))
            << "every part of the page is in its place";
    }
    EXPECT_EQ(ctl({"timeline", file, "-o", "/dev/null", "--force"}).status, 0);
}

TEST_F(recorded, a_page_is_made_whole_or_not_at_all)
{
    const std::string path = make_history();
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    const std::string there = m_dir.write("there.html", "kept");
    const std::string none = m_dir.file("none.pcapng");
    expect_one_line(ctl({"timeline", file, "-o", there}), 1, there + ": there already (--force replaces it)");
    expect_one_line(ctl({"timeline", none, "-o", there, "--force"}), 1, none + ": No such file or directory");
    expect_one_line(ctl({"timeline", m_dir.write("text", "text"), "-o", m_dir.file("new.html")}), 1,
                    "text: not a pcapng file");
    expect_one_line(ctl({"timeline", file, "-o", m_dir.file("no/where.html")}), 1,
                    "No such file or directory");
    expect_one_line(ctl({"timeline", file}), 2, "--output");
    expect_one_line(ctl({"timeline", "-o", there}), 2, "file");
    EXPECT_EQ(system_test::read_file(there), "kept");
    for (const std::string &input : {file, path}) {
        const size_t size = fs::file_size(input);
        expect_one_line(ctl({"timeline", input, "-o", input, "--force"}), 1,
                        input + ": is to be read, and cannot be written at the same time");
        EXPECT_EQ(fs::file_size(input), size);
    }
    expect_one_line(ctl({"timeline", file, "-o", path, "--force"}), 1,
                    path + ": a capture ring, which is not replaced");
    EXPECT_FALSE(fs::exists(m_dir.file("new.html")));

    /* What is left of one that breaks off can be looked at. */
    const std::string content = system_test::read_file(file);
    const std::string broken = m_dir.write("broken.pcapng", content.substr(0, content.size() - 70));
    const std::string page = m_dir.file("broken.html");
    expect_one_line(ctl({"timeline", broken, "-o", page}), 1, "broken.pcapng: breaks off at byte ");
    EXPECT_TRUE(system_test::read_file(page).ends_with("</html>\n"));

    std::string strange = content;
    strange.at(strange.find(std::string("\0\1\1\1\1\0\0\100", 8)) + 1) = 9;
    expect_one_line(
        ctl({"timeline", m_dir.write("strange.pcapng", strange), "-o", m_dir.file("strange.html")}), 1,
        "has records of version 9; this program reads version 1");
    for (const auto &entry : fs::directory_iterator(m_dir.path())) {
        EXPECT_THAT(entry.path().string(), testing::Not(testing::ContainsRegex("html\\.......$")))
            << "nothing of a page that was given up is left";
    }
}
