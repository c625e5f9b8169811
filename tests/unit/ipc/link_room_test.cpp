/*
 * The client against a server that does not read: sends wait so long and no longer.
 */
#include "harness.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <pthread.h>

namespace {

using namespace ipc_test;
using std::chrono::milliseconds;

struct room : testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(one.start(), qerrno{EOK});
        ASSERT_TRUE(server.take_hello());
        ASSERT_TRUE(server.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    }

    /* Sends until the socket takes no more. */
    qerrno fill(uint32_t *sent, size_t length)
    {
        qerrno status = EOK;
        while (*sent < 1000000 && (status = one.send(message(*sent, length))) == EOK) {
            ++*sent;
        }
        return status;
    }

    void expect_numbered_messages(uint32_t count, size_t length)
    {
        bytes packet;
        for (uint32_t number = 0; number < count; ++number) {
            ASSERT_TRUE(server.peer.receive(&packet));
            ASSERT_EQ(packet, message(number, length));
        }
        EXPECT_TRUE(server.peer.at_end()) << "no piece of what failed";
    }

    loop on;
    std::string service = test_name();
    raw_server server{on, service};
    owner one{new_client(on, service), 5};
};

/* What the failed message would have changed is not known to the server, so it must hear everything anew. */
TEST_F(room, runs_out_and_the_send_that_times_out_ends_the_link)
{
    uint32_t sent = 0;
    const auto since = std::chrono::steady_clock::now();
    ASSERT_EQ(fill(&sent, 65536), qerrno{ETIMEDOUT});
    EXPECT_GE(std::chrono::steady_clock::now() - since, milliseconds(300));
    EXPECT_GE(sent, 4u) << "several of the largest messages fit";
    EXPECT_EQ(one.send(message(sent)), qerrno{ENOTCONN});
    expect_numbered_messages(sent, 65536);
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    EXPECT_EQ(one.records.back().arg, uint32_t{ETIMEDOUT});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 2; }));
    EXPECT_EQ(one.send(message(sent)), qerrno{EOK}) << "there is room again";
}

TEST_F(room, is_taken_whole_or_not_at_all_by_messages_of_odd_sizes)
{
    for (const size_t length : {size_t{16}, size_t{4097}, size_t{33333}}) {
        uint32_t sent = 0;
        ASSERT_EQ(fill(&sent, length), qerrno{ETIMEDOUT});
        expect_numbered_messages(sent, length);
        const size_t ups = one.count(L2VPN_IPC_EVT_CONNECTED);
        ASSERT_TRUE(server.take_hello());
        ASSERT_TRUE(server.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == ups + 1; }));
    }
}

TEST_F(room, is_waited_for_no_longer_because_of_signals)
{
    static std::atomic<int> s_signals;
    struct sigaction action {};
    action.sa_handler = [](int) { ++s_signals; };
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<qerrno> status{EINPROGRESS};
    uint32_t sent = 0;
    milliseconds waited{};
    std::thread sender([&] {
        const auto since = std::chrono::steady_clock::now();
        const qerrno ended = fill(&sent, 65536);
        waited = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - since);
        status = ended;
    });
    while (status == EINPROGRESS) {
        pthread_kill(sender.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(milliseconds(5));
    }
    sender.join();
    EXPECT_EQ(status, qerrno{ETIMEDOUT});
    EXPECT_GE(waited, milliseconds(300));
    EXPECT_GT(s_signals, 0);
    ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
    expect_numbered_messages(sent, 65536);
}

} // namespace
