/*
 * Both ends at the smallest MTU there is: messages are headers and nothing more.
 */
#include "harness.h"

#include <cerrno>

namespace {

using namespace ipc_test;

const test_environment s_environment{{"L2VPN_MTU", "16"}};

TEST(smallest_mtu, carries_headers)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, "tiny"), qerrno{EOK});
    l2vpn_ipc_client_t client = new_client(on, "tiny");
    owner one(client, 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    uint32_t mtu = 0;
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 5, &mtu), qerrno{EOK});
    EXPECT_EQ(mtu, 16u);
    EXPECT_EQ(one.send(message(1, 17)), qerrno{EMSGSIZE});
    EXPECT_EQ(one.send(message(1)), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    EXPECT_EQ(server.send(server.peers.at(0), message(2, 17)), qerrno{EMSGSIZE});
    EXPECT_EQ(server.send(server.peers.at(0), message(2)), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.numbers() == std::vector<uint32_t>{2}; }));
}

TEST(smallest_mtu, of_the_server_does_not_cut_greetings)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, "cut"), qerrno{EOK});
    const raw_socket peer = raw_socket::connect_to(socket_path("cut"));
    ASSERT_TRUE(peer.send(greeting_bytes({.mtu = 16})));
    bytes packet;
    ASSERT_TRUE(on.until([&] { return peer.receive(&packet); }));
    EXPECT_EQ(greeting_of(packet).mtu, 16u);
    EXPECT_EQ(greeting_of(packet).status, 0u);
    const raw_socket larger = raw_socket::connect_to(socket_path("cut"));
    ASSERT_TRUE(larger.send(greeting_bytes({.mtu = 17})));
    ASSERT_TRUE(on.until([&] { return larger.receive(&packet); }));
    EXPECT_EQ(greeting_of(packet).mtu, 16u);
    EXPECT_EQ(greeting_of(packet).status, static_cast<uint32_t>(EMSGSIZE));
}

} // namespace
