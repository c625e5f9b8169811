/*
 * What time does to control connections: the server itself, with the test's own clock.
 */
#include "../../l2vpn/process/control_server.h"
#include "child.h"
#include "support.h"

#include <gtest/gtest.h>
#include <memory>
#include <platform/event_loop.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace l2vpnd;
using namespace process_test;
using std::chrono::seconds;

namespace {

class control_time : public testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_EQ(server.open({.path = path}, &error), EOK) << error;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        serve();
    }
    void TearDown() override { close(fd); }

    /* Until nothing is left to do. */
    void serve()
    {
        while (event_mgr_dispatch(evm.get(), 0) > 0) {
        }
    }

    void send(const std::string &text)
    {
        ASSERT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        serve();
    }

    /* The server has ended the connection, whatever there is still to be read. */
    bool ended()
    {
        pollfd now{fd, 0, 0};
        return poll(&now, 1, 0) == 1 && (now.revents & POLLHUP) != 0;
    }

    system_test::temp_dir dir;
    std::string path = dir.file("ctl");
    std::unique_ptr<event_mgr, void (*)(event_mgr_p)> evm{event_mgr_new(), event_mgr_free};
    bench b;
    control_server server{evm.get(), {b.process, "service", path}, b.log};
    int fd = -1;
};

TEST_F(control_time, ends_a_connection_that_asks_nothing)
{
    server.tick(control_server::clock::now() + control_server::idle_limit - seconds(5));
    EXPECT_FALSE(ended());
    server.tick(control_server::clock::now() + control_server::idle_limit + seconds(5));
    EXPECT_TRUE(ended());
}

TEST_F(control_time, a_request_begun_is_still_no_request)
{
    send("{\"verb\":");
    server.tick(control_server::clock::now() + control_server::unread_limit + seconds(5));
    EXPECT_FALSE(ended());
    server.tick(control_server::clock::now() + control_server::idle_limit + seconds(5));
    EXPECT_TRUE(ended());
}

TEST_F(control_time, ends_a_connection_that_does_not_read_its_answer)
{
    owner *const o = b.connect(0);
    for (uint32_t part = 0; part < 20; part++) {
        b.process.received(*o, create(0, handles_from(1 + part * 100, 100)));
    }
    ASSERT_EQ(b.process.acs().size(), 2000U);
    send("{\"verb\":\"show acs\",\"args\":{\"raw\":true}}\n");
    server.tick(control_server::clock::now() + control_server::unread_limit - seconds(5));
    EXPECT_FALSE(ended());
    server.tick(control_server::clock::now() + control_server::unread_limit + seconds(5));
    EXPECT_TRUE(ended());
}

} // namespace
