// The owners that are driven by another loop: libuv's, libevent's, sd-event's.
#include "child.h"

#include <csignal>
#include <gtest/gtest.h>
#include <memory>

namespace {

using system_test::binary;
using system_test::child;

class embed_test : public testing::TestWithParam<const char *> {
protected:
    void start_process()
    {
        process_ = std::make_unique<child>(
            binary("l2vpnd"), std::vector<std::string>{"--runtime-dir", dir_.path(), "--nodeid", "7"});
        ASSERT_TRUE(process_->says("ready on")) << process_->err();
    }

    std::string held() const
    {
        return system_test::run(binary("l2vpnctl"), {"--runtime-dir", dir_.path(), "show", "acs", "--json"})
            .out;
    }

    system_test::temp_dir dir_;
    std::unique_ptr<child> process_;
};

TEST_P(embed_test, lives_through_a_restart_beside_what_is_the_loops_own)
{
    const std::string timer = "the loop has timers of its own\n";
    const std::string created = "port1.100 created: Success\n";
    const std::string down = "the L2VPN process went away\n";

    child owner(binary("l2vpn-embed-" + std::string(GetParam())), {},
                {"L2VPN_RUNTIME_DIR=" + dir_.path(), "L2VPN_NODEID=7"});
    ASSERT_TRUE(owner.says(timer)) << owner.err(); // while nobody is there to connect to
    start_process();
    ASSERT_TRUE(owner.says(timer + created)) << owner.out() << owner.err();
    EXPECT_TRUE(
        system_test::eventually([&] { return held().find("\"name\":\"port1.100\"") != std::string::npos; }));

    process_->send_signal(SIGKILL);
    EXPECT_EQ(process_->wait(), -SIGKILL);
    ASSERT_TRUE(owner.says(timer + created + down)) << owner.out();
    start_process();
    ASSERT_TRUE(owner.says(timer + created + down + created)) << owner.out();
    EXPECT_TRUE(
        system_test::eventually([&] { return held().find("\"name\":\"port1.100\"") != std::string::npos; }));

    owner.send_signal(SIGTERM);
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(owner.out(), timer + created + down + created + "disconnected: Success\n");
    EXPECT_TRUE(
        system_test::eventually([&] { return held().find("\"name\":\"port1.100\"") == std::string::npos; }));
}

TEST_P(embed_test, refuses_arguments)
{
    const system_test::result got =
        system_test::run(binary("l2vpn-embed-" + std::string(GetParam())), {"--help"});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_NE(got.err.find(": takes no arguments, '--help' is one\n"), std::string::npos) << got.err;
}

INSTANTIATE_TEST_SUITE_P(loops, embed_test, testing::Values("libuv", "libevent", "sd_event"),
                         [](const auto &loop) { return std::string(loop.param); });

} // namespace
