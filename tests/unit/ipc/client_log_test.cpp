/*
 * What the client says on standard error, where there is no system log that anybody reads.
 */
#include "harness.h"

#include <cerrno>

namespace {

using namespace ipc_test;

const test_environment s_environment{{"L2VPN_LOG", "stderr"}};

TEST(log_to_stderr, tells_why_a_class_is_not_connected)
{
    const loop on;
    raw_server server(on, "loud");
    owner one(new_client(on, "loud"), 5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(server.take_hello());
    EXPECT_TRUE(server.answer({.kind = 2, .status = EACCES}));
    EXPECT_TRUE(on.until([&] { return syslog_count("loud.sock: the server refuses") == 1; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "l2vpn: IPC class 5: " + socket_path("loud") +
                  ": the server refuses the class: Permission denied\n");
}

TEST(log_to_stderr, says_nothing_of_a_server_that_is_just_not_there_yet)
{
    const loop on;
    owner one(new_client(on, "absent"), 5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return syslog_count("absent.sock: waiting for the server") == 1; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
