/*
 * The server and one of its peers: messages, queues, ends.
 */
#include "harness.h"

#include <array>
#include <cerrno>
#include <numeric>
#include <sys/socket.h>

namespace {

using namespace ipc_test;

constexpr size_t mtu = 65536;

struct peer_test : testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(server.start(on, service), qerrno{EOK});
        socket = open(5);
    }

    raw_socket open(uint32_t class_id)
    {
        const size_t before = server.peers.size();
        raw_socket made = raw_socket::connect_to(socket_path(service));
        EXPECT_TRUE(made.send(greeting_bytes({.class_id = class_id})));
        EXPECT_TRUE(on.until([&] { return server.peers.size() == before + 1; }));
        bytes packet;
        EXPECT_TRUE(made.receive(&packet));
        EXPECT_EQ(greeting_of(packet).status, 0u);
        return made;
    }
    [[nodiscard]] l2vpn_ipc_peer_t peer() const { return server.peers.at(0); }
    void expect_end(qerrno reason)
    {
        ASSERT_TRUE(on.until([&] { return !server.closed.empty(); }));
        EXPECT_EQ(server.closed, (std::vector<std::pair<uint64_t, qerrno>>{{1, reason}}));
    }

    loop on;
    std::string service = test_name();
    recording_server server;
    raw_socket socket;
};

TEST_F(peer_test, is_sent_nothing_by_a_call_without_arguments)
{
    bytes sent = message(1);
    const iovec piece{sent.data(), sent.size()};
    EXPECT_EQ(l2vpn_ipc_server_sendv(nullptr, peer(), &piece, 1), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_sendv(server.handle, nullptr, &piece, 1), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_sendv(server.handle, peer(), nullptr, 1), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_queued(server.handle, nullptr), 0U);
    l2vpn_ipc_server_close(server.handle, nullptr);
    on.drain();
    bytes packet;
    EXPECT_FALSE(socket.receive(&packet));
    EXPECT_TRUE(server.closed.empty());
}

/* Until its callback is over a peer that was closed can be named, and nothing goes to it. */
TEST_F(peer_test, is_sent_nothing_after_it_was_closed)
{
    qerrno status = EOK;
    server.message_hook = [&](l2vpn_ipc_peer_t from, uint32_t) {
        l2vpn_ipc_server_close(server.handle, from);
        status = server.send(from, message(2));
        l2vpn_ipc_server_close(server.handle, from);
    };
    ASSERT_TRUE(socket.send(message(1)));
    ASSERT_TRUE(on.until([&] { return !server.received.empty(); }));
    EXPECT_EQ(status, qerrno{ENOTCONN});
    EXPECT_TRUE(on.until([&] { return socket.at_end(); }));
    EXPECT_TRUE(server.closed.empty());
}

TEST_F(peer_test, is_sent_messages_of_16_bytes_to_its_mtu)
{
    bytes sent = message(1, mtu + 1);
    const auto send = [&](std::initializer_list<iovec> pieces) {
        return l2vpn_ipc_server_sendv(server.handle, peer(), pieces.begin(),
                                      static_cast<uint32_t>(pieces.size()));
    };
    EXPECT_EQ(send({}), qerrno{EINVAL});
    EXPECT_EQ(send({{sent.data(), 15}}), qerrno{EINVAL});
    EXPECT_EQ(send({{sent.data(), 15}, {nullptr, 0}}), qerrno{EINVAL});
    EXPECT_EQ(send({{sent.data(), mtu + 1}}), qerrno{EMSGSIZE});
    EXPECT_EQ(send({{sent.data(), SIZE_MAX}, {sent.data(), 2}}), qerrno{EMSGSIZE});
    const iovec piece{sent.data(), 16};
    EXPECT_EQ(l2vpn_ipc_server_sendv(nullptr, peer(), &piece, 1), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_sendv(server.handle, nullptr, &piece, 1), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_sendv(server.handle, peer(), nullptr, 1), qerrno{EINVAL});
    bytes packet;
    EXPECT_FALSE(socket.receive(&packet)) << "nothing of these";
    EXPECT_EQ(send({{sent.data(), 10}, {nullptr, 0}, {sent.data() + 10, mtu - 10}}), qerrno{EOK});
    ASSERT_TRUE(socket.receive(&packet));
    EXPECT_EQ(packet, message(1, mtu));
}

TEST_F(peer_test, that_does_not_read_fills_its_queue_and_blocks_nobody)
{
    const raw_socket other = open(6);
    uint32_t sent = 0;
    qerrno status = EOK;
    while (sent < 100000 && (status = server.send(peer(), message(sent, mtu))) == EOK) {
        ++sent;
    }
    EXPECT_EQ(status, qerrno{ENOBUFS});
    EXPECT_EQ(l2vpn_ipc_server_queued(server.handle, peer()), uint64_t{16} << 20);
    EXPECT_EQ(server.send(peer(), message(sent)), qerrno{ENOBUFS});
    ASSERT_TRUE(other.send(message(1)));
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    EXPECT_EQ(server.send(server.peers[1], message(2)), qerrno{EOK});
    bytes packet;
    EXPECT_TRUE(other.receive(&packet));

    for (uint32_t number = 0; number < sent; ++number) {
        ASSERT_TRUE(on.until([&] { return socket.receive(&packet); }));
        ASSERT_EQ(packet, message(number, mtu));
    }
    EXPECT_EQ(l2vpn_ipc_server_queued(server.handle, peer()), 0u);
    EXPECT_EQ(server.send(peer(), message(sent)), qerrno{EOK});
    ASSERT_TRUE(socket.receive(&packet));
    EXPECT_EQ(packet, message(sent));
}

TEST_F(peer_test, that_does_not_read_can_be_closed)
{
    uint32_t sent = 0;
    while (sent < 100000 && server.send(peer(), message(sent, mtu)) == EOK) {
        ++sent;
    }
    l2vpn_ipc_server_close(server.handle, peer());
    bytes packet;
    uint32_t read = 0;
    while (socket.receive(&packet) && !packet.empty()) {
        EXPECT_EQ(packet, message(read, mtu));
        ++read;
    }
    EXPECT_TRUE(socket.at_end());
    EXPECT_LT(read, sent) << "the queue went with the peer";
    on.drain();
    EXPECT_TRUE(server.closed.empty());
}

TEST_F(peer_test, that_floods_waits_for_its_turn)
{
    const raw_socket other = open(6);
    uint32_t sent = 0;
    while (socket.send(message(sent))) {
        ++sent;
    }
    ASSERT_GT(sent, 100u);
    ASSERT_TRUE(other.send(message(7)));
    size_t turn = 0;
    server.message_hook = [&](l2vpn_ipc_peer_t of, uint32_t) {
        turn = of == peer() ? turn : server.received.size();
    };
    ASSERT_TRUE(on.until([&] { return turn > 0; }));
    EXPECT_LT(turn, 100u) << "the other peer waited for all of the flood";
    l2vpn_ipc_server_close(server.handle, peer());
    const size_t before = server.received.size();
    on.drain();
    EXPECT_EQ(server.received.size(), before);
}

TEST_F(peer_test, is_closed_after_all_it_sent)
{
    for (uint32_t number = 0; number < 100; ++number) {
        ASSERT_TRUE(socket.send(message(number)));
    }
    socket.reset();
    expect_end(EOK);
    std::vector<uint32_t> numbers(100);
    std::iota(numbers.begin(), numbers.end(), 0u);
    EXPECT_EQ(server.numbers(), numbers);
}

TEST_F(peer_test, that_resets_the_link_is_closed_after_all_it_sent)
{
    ASSERT_EQ(server.send(peer(), message(1)), qerrno{EOK});
    for (uint32_t number = 0; number < 100; ++number) {
        ASSERT_TRUE(socket.send(message(number)));
    }
    socket.reset();
    EXPECT_EQ(server.send(peer(), message(2)), qerrno{ENOTCONN});
    EXPECT_EQ(server.send(peer(), message(3)), qerrno{ENOTCONN});
    EXPECT_TRUE(server.closed.empty()) << "not from inside a call";
    expect_end(ECONNRESET);
    EXPECT_EQ(server.received.size(), 100u);
}

TEST_F(peer_test, that_leaves_with_a_full_queue_is_closed_after_all_it_sent)
{
    uint32_t sent = 0;
    while (sent < 100000 && server.send(peer(), message(sent, mtu)) == EOK) {
        ++sent;
    }
    for (uint32_t number = 0; number < 100; ++number) {
        ASSERT_TRUE(socket.send(message(number)));
    }
    socket.reset();
    ASSERT_TRUE(on.until([&] { return !server.closed.empty(); }));
    EXPECT_EQ(server.received.size(), 100u);
    EXPECT_EQ(server.closed.size(), 1u);
    EXPECT_NE(server.closed[0].second, qerrno{EOK});
}

struct faulty {
    const char *name;
    size_t length;
    const char *line;
};

class peer_faults : public peer_test, public testing::WithParamInterface<faulty> {};

TEST_P(peer_faults, end_the_link)
{
    ASSERT_TRUE(socket.send(message(1)));
    ASSERT_TRUE(socket.send(bytes(GetParam().length, 1)));
    ASSERT_TRUE(socket.send(message(2)));
    expect_end(EPROTO);
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{1});
    EXPECT_EQ(server.log_count(GetParam().line), 1u);
    EXPECT_EQ(server.log_count("class 5"), 1u);
    EXPECT_TRUE(socket.at_end());
    const raw_socket next = open(6);
}

INSTANTIATE_TEST_SUITE_P(
    packets, peer_faults,
    testing::Values(faulty{"empty", 0, "sent an empty packet"},
                    faulty{"one", 1, "sent a packet of 1 bytes, shorter than a message's header"},
                    faulty{"fifteen", 15, "sent a packet of 15 bytes, shorter than a message's header"},
                    faulty{"too_long", mtu + 1,
                           "sent a packet of 65537 bytes, longer than the MTU of 65536"}),
    [](const auto &tested) { return tested.param.name; });

TEST_F(peer_test, may_be_closed_in_its_own_message)
{
    server.message_hook = [&](l2vpn_ipc_peer_t of, uint32_t) { l2vpn_ipc_server_close(server.handle, of); };
    ASSERT_TRUE(socket.send(message(1)));
    ASSERT_TRUE(socket.send(message(2)));
    ASSERT_TRUE(on.until([&] { return socket.at_end(); }));
    on.drain();
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{1});
    EXPECT_TRUE(server.closed.empty());
}

TEST_F(peer_test, may_be_closed_in_another_peers_message)
{
    const raw_socket other = open(6);
    const std::array<l2vpn_ipc_peer_t, 2> peers{server.peers[0], server.peers[1]};
    server.message_hook = [&](l2vpn_ipc_peer_t of, uint32_t) {
        l2vpn_ipc_server_close(server.handle, of == peers[0] ? peers[1] : peers[0]);
        server.message_hook = nullptr;
    };
    for (uint32_t number = 0; number < 10; ++number) {
        ASSERT_TRUE(socket.send(message(number)));
        ASSERT_TRUE(other.send(message(number)));
    }
    ASSERT_TRUE(on.until([&] { return server.received.size() == 10; }));
    on.drain();
    EXPECT_EQ(server.received.size(), 10u) << "all of the one, nothing of the other";
    EXPECT_NE(socket.at_end(), other.at_end());
}

TEST_F(peer_test, may_be_closed_while_it_is_accepted)
{
    server.accept_hook = [&](l2vpn_ipc_peer_t of) { l2vpn_ipc_server_close(server.handle, of); };
    const raw_socket other = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(other.send(greeting_bytes({})));
    ASSERT_TRUE(on.until([&] { return other.at_end(); }));
    on.drain();
    EXPECT_TRUE(server.closed.empty());
}

TEST_F(peer_test, may_be_sent_to_while_it_is_accepted)
{
    server.accept_hook = [&](l2vpn_ipc_peer_t of) {
        EXPECT_EQ(server.send(of, message(1)), qerrno{EOK});
        EXPECT_EQ(server.send(of, message(2, 1000)), qerrno{EOK});
        EXPECT_EQ(l2vpn_ipc_server_queued(server.handle, of), 1016u);
    };
    const raw_socket other = open(6);
    bytes packet;
    ASSERT_TRUE(other.receive(&packet));
    EXPECT_EQ(packet, message(1)) << "behind the answer";
    ASSERT_TRUE(other.receive(&packet));
    EXPECT_EQ(packet, message(2, 1000));
    EXPECT_EQ(l2vpn_ipc_server_queued(server.handle, server.peers[1]), 0u);
}

TEST_F(peer_test, that_stops_reading_is_closed)
{
    ASSERT_TRUE(socket.send(message(1)));
    ASSERT_EQ(shutdown(socket.fd(), SHUT_RD), 0);
    EXPECT_EQ(server.send(peer(), message(1)), qerrno{ENOTCONN});
    expect_end(EPIPE);
    EXPECT_EQ(server.received.size(), 1u);
}

} // namespace
