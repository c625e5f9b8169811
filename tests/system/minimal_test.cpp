// The minimal client, as the README shows it.
#include "child.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

namespace {

using system_test::binary;
using system_test::child;
using testing::HasSubstr;

const std::string created = "port1.100 created: Success\n";

TEST(minimal, creates_its_ac_and_again_after_a_restart)
{
    const system_test::temp_dir dir;
    const std::string runtime_dir = "L2VPN_RUNTIME_DIR=" + dir.path();
    auto process =
        std::make_unique<child>(binary("l2vpnd"), std::vector<std::string>{"--runtime-dir", dir.path()});
    ASSERT_TRUE(process->says("ready on")) << process->err();
    child client(binary("l2vpn-minimal"), {}, {runtime_dir});
    ASSERT_TRUE(client.says(created)) << client.out() << client.err();

    const auto held = [&] {
        const auto shown =
            system_test::run(binary("l2vpnctl"), {"--runtime-dir", dir.path(), "show", "acs", "--json"});
        return shown.out.find("\"name\":\"port1.100\"") != std::string::npos &&
               shown.out.find("\"handle\":4096") != std::string::npos;
    };
    EXPECT_TRUE(system_test::eventually(held));

    process->send_signal(SIGKILL);
    EXPECT_EQ(process->wait(), -SIGKILL);
    ASSERT_TRUE(client.says("the L2VPN process went away\n")) << client.out();
    process =
        std::make_unique<child>(binary("l2vpnd"), std::vector<std::string>{"--runtime-dir", dir.path()});
    ASSERT_TRUE(client.says(created + "the L2VPN process went away\n" + created)) << client.out();
    EXPECT_TRUE(system_test::eventually(held));
    client.send_signal(SIGTERM);
    EXPECT_EQ(client.wait(), -SIGTERM);
    EXPECT_EQ(client.err(), "");
}

TEST(minimal, says_what_is_wrong_in_one_line)
{
    const system_test::result argument = system_test::run(binary("l2vpn-minimal"), {"--verbose"});
    EXPECT_EQ(argument.status, 2);
    EXPECT_EQ(argument.out, "");
    EXPECT_EQ(argument.err, "l2vpn-minimal: takes no arguments, '--verbose' is one\n");
    const system_test::result node =
        system_test::run(binary("l2vpn-minimal"), {}, {"L2VPN_NODEID=0xFFFFFFFF"});
    EXPECT_EQ(node.status, 1);
    EXPECT_THAT(node.err, HasSubstr("\nl2vpn-minimal: connect: "));
}

TEST(minimal, is_40_lines_long_at_most_and_stands_in_the_readme)
{
    const std::string root = L2VPN_SOURCE_DIR;
    const std::string source = system_test::read_file(root + "/examples/minimal/minimal.c");
    ASSERT_NE(source, "");
    EXPECT_LE(std::count(source.begin(), source.end(), '\n'), 40);
    EXPECT_THAT(system_test::read_file(root + "/README.md"), HasSubstr("```c\n" + source + "```\n"));
}

} // namespace
