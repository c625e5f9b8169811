/*
 * Long work with recordings: how far it is, is shown on a terminal and nowhere else.
 */
#include "recorded.h"

using namespace process_test;

namespace {

constexpr uint64_t many = 66'000; /* the ring has room for all of them */

struct long_work {
    const char *name;
    const char *arguments; /* of l2vpnctl; RING is the file */
    int status;
    const char *shown; /* once it was at the beginning of the line */
};

class progress : public recorded, public testing::WithParamInterface<long_work> {};

} // namespace

TEST_P(progress, is_shown_on_a_terminal_only)
{
    start({"--capture-size", "20480"});
    raw_peer owner = peer(3);
    for (uint64_t i = 0; i < many; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(eventually([&] { return ask({"status"})["messages"] == many; }));
    const long_work &work = GetParam();
    std::string command = system_test::binary("l2vpnctl") + " " + work.arguments;
    for (size_t at = command.find("RING"); at != std::string::npos; at = command.find("RING")) {
        command.replace(at, 4, ring());
    }
    const system_test::result terminal = system_test::run(
        "/usr/bin/script", {"-qec", "cd " + m_dir.path() + " && " + command, "/dev/null"}, {"SHELL=/bin/sh"});
    EXPECT_EQ(terminal.status, work.status) << terminal.out;
    EXPECT_THAT(terminal.out, HasSubstr(work.shown));
    const system_test::result pipe =
        system_test::run("/bin/sh", {"-c", "cd " + m_dir.path() + " && rm -f x && " + command});
    EXPECT_EQ(pipe.status, work.status) << pipe.err;
    EXPECT_THAT(pipe.out + pipe.err, testing::Not(HasSubstr("\r")));
}

INSTANTIATE_TEST_SUITE_P(each, progress,
                         testing::Values(long_work{"monitor", "monitor --read RING --handle 1", 0, "\r6"},
                                         long_work{"capture", "capture --from-ring RING -w x", 0, "\r6"},
                                         long_work{"explain", "explain --read RING 0x1", 5, "\r6"},
                                         long_work{"timeline", "timeline RING -o x", 0, "\r6"},
                                         long_work{"replay", "replay RING --count 500", 0,
                                                   "\rreplayed 50 %"}),
                         [](const auto &work) { return std::string(work.param.name); });
