/*
 * The client: when callbacks come, when not, and what they may do.
 */
#include "harness.h"

#include <cerrno>

namespace {

using namespace ipc_test;

struct callbacks : testing::Test {
    void connect()
    {
        ASSERT_EQ(server.start(on, "callbacks"), qerrno{EOK});
        ASSERT_EQ(one.start(), qerrno{EOK});
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    }
    void send_ten()
    {
        for (uint32_t number = 0; number < 10; ++number) {
            ASSERT_EQ(server.send(server.peers.at(0), message(number)), qerrno{EOK});
        }
    }

    loop on;
    recording_server server;
    l2vpn_ipc_client_t client = new_client(on, "callbacks");
    owner one{client, 1};
};

TEST_F(callbacks, never_come_from_inside_a_call)
{
    connect();
    send_ten();
    server.stop();
    const auto before = one.records;
    uint32_t room = 0;
    EXPECT_EQ(one.send(message(1)), qerrno{ENOTCONN});
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 1, &room), qerrno{EOK});
    owner other(client, 2);
    EXPECT_EQ(other.start(), qerrno{EOK});
    EXPECT_EQ(one.start(), qerrno{EEXIST});
    EXPECT_EQ(one.records, before);
}

TEST_F(callbacks, do_not_come_after_the_registration_is_withdrawn)
{
    connect();
    send_ten();
    const auto before = one.records;
    ASSERT_EQ(one.stop(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    on.drain();
    EXPECT_EQ(one.records, before);
}

TEST_F(callbacks, may_withdraw_their_registration_at_a_message)
{
    connect();
    one.message_hook = [&](uint32_t) { EXPECT_EQ(one.stop(), qerrno{EOK}); };
    send_ten();
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    on.drain();
    EXPECT_EQ(one.numbers(), std::vector<uint32_t>{0});
    EXPECT_EQ(one.count(L2VPN_IPC_EVT_DISCONNECTED), 0u);
    EXPECT_EQ(one.stop(), qerrno{ENOENT});
}

TEST_F(callbacks, may_withdraw_their_registration_at_an_event)
{
    ASSERT_EQ(server.start(on, "callbacks"), qerrno{EOK});
    one.event_hook = [&](l2vpn_ipc_evt_t) { EXPECT_EQ(one.stop(), qerrno{EOK}); };
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    EXPECT_EQ(one.records.size(), 1u);

    one.event_hook = nullptr;
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 2; }));
    one.event_hook = [&](l2vpn_ipc_evt_t event) {
        EXPECT_EQ(event, L2VPN_IPC_EVT_DISCONNECTED);
        EXPECT_EQ(one.stop(), qerrno{EOK});
    };
    server.stop();
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    on.drain();
    EXPECT_EQ(one.stop(), qerrno{ENOENT});
}

TEST_F(callbacks, may_register_the_class_anew)
{
    connect();
    one.message_hook = [&](uint32_t) {
        one.message_hook = nullptr;
        EXPECT_EQ(one.stop(), qerrno{EOK});
        EXPECT_EQ(one.start(), qerrno{EOK});
        EXPECT_EQ(one.send(message(77)), qerrno{EOK}) << "queued, as in every new registration";
    };
    send_ten();
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 2; }));
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    EXPECT_EQ(one.numbers(), std::vector<uint32_t>{0}) << "the old link's messages went with it";
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{77});
    EXPECT_EQ(server.infos.size(), 2u);
}

TEST_F(callbacks, may_withdraw_another_class_that_has_messages_waiting)
{
    connect();
    owner two(client, 2);
    ASSERT_EQ(two.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return two.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    one.message_hook = [&](uint32_t) { two.stop(); };
    two.message_hook = [&](uint32_t) { one.stop(); };
    for (const l2vpn_ipc_peer_t peer : std::vector(server.peers)) {
        ASSERT_EQ(server.send(peer, message(1)), qerrno{EOK});
    }
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    on.drain();
    EXPECT_EQ(one.numbers().size() + two.numbers().size(), 1u) << "whoever came first stopped the other";
}

TEST_F(callbacks, may_send)
{
    connect();
    one.message_hook = [&](uint32_t number) { EXPECT_EQ(one.send(message(number + 100)), qerrno{EOK}); };
    send_ten();
    ASSERT_TRUE(on.until([&] { return server.received.size() == 10; }));
    EXPECT_EQ(server.numbers().front(), 100u);
    EXPECT_EQ(server.numbers().back(), 109u);
}

TEST_F(callbacks, share_the_thread_with_others_when_messages_pour_in)
{
    connect();
    owner two(client, 2);
    ASSERT_EQ(two.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.peers.size() == 2; }));
    ASSERT_TRUE(on.until([&] { return two.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    for (uint32_t number = 0; number < 200; ++number) {
        ASSERT_EQ(server.send(server.peers[0], message(number)), qerrno{EOK});
    }
    ASSERT_EQ(server.send(server.peers[1], message(1)), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return !two.numbers().empty(); }));
    EXPECT_LT(one.numbers().size(), 200u) << "the second class waited for all of the first";
    ASSERT_TRUE(on.until([&] { return one.numbers().size() == 200; }));
}

} // namespace
