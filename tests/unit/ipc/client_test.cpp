/*
 * The client: the status of every call, the queue, what arrives at the server.
 */
#include "harness.h"

#include <array>
#include <cerrno>
#include <numeric>

namespace {

using namespace ipc_test;

const test_environment s_environment;
constexpr uint32_t to_server = L2VPN_IPC_DEST_L2VPN;
constexpr size_t mtu = 65536;

void ignore_message(l2vpn_ipc_client_t, uint32_t, uint32_t, void *, uint32_t, uint32_t, void *) {}
void ignore_event(l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_evt_t, uint32_t, void *) {}

std::vector<uint32_t> first_numbers(uint32_t count)
{
    std::vector<uint32_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0u);
    return numbers;
}

TEST(client_init, wants_every_argument_and_a_plain_service_name)
{
    const loop on;
    l2vpn_ipc_client_t client = nullptr;
    EXPECT_EQ(l2vpn_ipc_client_init(nullptr, "L2VPN", &client), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), nullptr, &client), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), "L2VPN", nullptr), qerrno{EINVAL});
    for (const char *name : {"", ".", "..", "a/b", "/L2VPN"}) {
        EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), name, &client), qerrno{EINVAL}) << name;
    }
    EXPECT_EQ(client, nullptr);
}

TEST(client_init, refuses_a_path_that_no_socket_address_holds)
{
    const loop on;
    l2vpn_ipc_client_t client = nullptr;
    const size_t longest = 107 - socket_path("").size();
    EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), std::string(longest + 1, 'x').c_str(), &client),
              qerrno{ENAMETOOLONG});
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), std::string(longest, 'x').c_str(), &client), qerrno{EOK});
    EXPECT_NE(client, nullptr);
}

TEST(client_init, makes_a_second_handle_at_a_second_call)
{
    const loop on;
    EXPECT_NE(new_client(on, "twice"), new_client(on, "twice"));
}

TEST(class_init, wants_a_client_and_both_callbacks)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "class");
    EXPECT_EQ(l2vpn_ipc_class_init(nullptr, 1, 7, ignore_message, ignore_event, nullptr, nullptr),
              qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_class_init(client, 1, 7, nullptr, ignore_event, nullptr, nullptr), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_class_init(client, 1, 7, ignore_message, nullptr, nullptr, nullptr), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_class_deinit(client, 1, 0), qerrno{ENOENT}) << "nothing was registered";
}

TEST(class_init, takes_a_class_once_a_client)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "class");
    owner one(client, 1);
    owner same(client, 1);
    owner other_client(new_client(on, "class"), 1);
    EXPECT_EQ(one.start(), qerrno{EOK});
    EXPECT_EQ(same.start(), qerrno{EEXIST});
    EXPECT_EQ(other_client.start(), qerrno{EOK});
    EXPECT_EQ(one.stop(), qerrno{EOK});
    EXPECT_EQ(same.start(), qerrno{EOK});
}

TEST(class_deinit, tells_what_is_not_registered)
{
    const loop on;
    owner one(new_client(on, "class"), 1);
    EXPECT_EQ(l2vpn_ipc_class_deinit(nullptr, 1, 0), qerrno{EINVAL});
    EXPECT_EQ(one.stop(), qerrno{ENOENT});
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_EQ(one.stop(), qerrno{EOK});
    EXPECT_EQ(one.stop(), qerrno{ENOENT});
}

TEST(transport_mtu_get, gives_the_configured_mtu_before_there_is_a_server)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "mtu");
    owner one(client, 1);
    uint32_t got = 1;
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 1, &got), qerrno{ENOENT});
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(nullptr, 1, &got), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 1, nullptr), qerrno{EINVAL});
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 1, &got), qerrno{EOK});
    EXPECT_EQ(got, mtu);
}

TEST(ucast, checks_its_arguments_before_there_is_a_server)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "ucast");
    owner one(client, 1);
    const bytes sent = message(1, mtu + 1);
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), 16, 0), qerrno{ENOENT});
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_EQ(l2vpn_ipc_ucast(nullptr, 1, to_server, sent.data(), 16, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, nullptr, 16, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, 0, sent.data(), 16, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), 0, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), 15, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), 16, 0), qerrno{EOK});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), mtu, 0), qerrno{EOK});
    EXPECT_EQ(l2vpn_ipc_ucast(client, 1, to_server, sent.data(), mtu + 1, 0), qerrno{EMSGSIZE});
}

TEST(ucastv, checks_its_pieces)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "ucastv");
    owner one(client, 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    bytes sent = message(1, 64);
    std::array<iovec, 17> pieces{};
    pieces.fill({sent.data(), 1});
    const auto send = [&](uint32_t count) {
        return l2vpn_ipc_ucastv(client, 1, to_server, pieces.data(), count, 0);
    };
    EXPECT_EQ(l2vpn_ipc_ucastv(client, 1, to_server, nullptr, 1, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucastv(nullptr, 1, to_server, pieces.data(), 16, 0), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_ucastv(client, 2, to_server, pieces.data(), 16, 0), qerrno{ENOENT});
    EXPECT_EQ(send(0), qerrno{EINVAL});
    EXPECT_EQ(send(15), qerrno{EINVAL}) << "shorter than a header";
    EXPECT_EQ(send(16), qerrno{EOK});
    EXPECT_EQ(send(17), qerrno{EINVAL});
    pieces[3] = {nullptr, 1};
    EXPECT_EQ(send(16), qerrno{EINVAL});
    pieces[3] = {nullptr, 0};
    pieces[4] = {sent.data(), 2};
    EXPECT_EQ(send(16), qerrno{EOK}) << "pieces of length 0 need no address";
    pieces[5].iov_len = SIZE_MAX;
    EXPECT_EQ(send(16), qerrno{EMSGSIZE}) << "a length that wraps around";
}

TEST(ucastv, gathers_the_pieces_into_one_message)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, "gather"), qerrno{EOK});
    l2vpn_ipc_client_t client = new_client(on, "gather");
    owner one(client, 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    bytes sent = message(9, 40000);
    const std::array<iovec, 4> pieces{
        {{sent.data(), 16}, {nullptr, 0}, {sent.data() + 16, 30000}, {sent.data() + 30016, 9984}}};
    ASSERT_EQ(l2vpn_ipc_ucastv(client, 1, to_server, pieces.data(), 4, 0), qerrno{EOK}) << "by the queue";
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ASSERT_EQ(l2vpn_ipc_ucastv(client, 1, to_server, pieces.data(), 4, 0), qerrno{EOK}) << "straight";
    ASSERT_TRUE(on.until([&] { return server.received.size() == 2; }));
    EXPECT_EQ(server.received[0].second, sent);
    EXPECT_EQ(server.received[1].second, sent);
}

TEST(queue, goes_out_first_and_in_order)
{
    const loop on;
    owner one(new_client(on, "queue"), 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    for (uint32_t number = 0; number < 100; ++number) {
        ASSERT_EQ(one.send(message(number, 16 + number)), qerrno{EOK});
    }
    on.drain();
    EXPECT_TRUE(one.records.empty());
    one.event_hook = [&](l2vpn_ipc_evt_t) { EXPECT_EQ(one.send(message(100)), qerrno{EOK}); };
    recording_server server;
    ASSERT_EQ(server.start(on, "queue"), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.received.size() == 101; }));
    EXPECT_EQ(server.numbers(), first_numbers(101));
    EXPECT_EQ(server.received[50].second, message(50, 66));
    EXPECT_EQ(one.records, (std::vector<owner::record>{{true, L2VPN_IPC_EVT_CONNECTED, 99, 0}}));
}

TEST(queue, holds_so_many_bytes_and_no_more)
{
    const loop on;
    owner one(new_client(on, "bytes"), 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    uint32_t taken = 0;
    qerrno status = EOK;
    while ((status = one.send(message(taken, mtu))) == EOK && taken < 10000) {
        ++taken;
    }
    EXPECT_EQ(status, qerrno{ENOBUFS});
    EXPECT_EQ(taken, 256u) << "16 MiB";
    EXPECT_EQ(one.send(message(taken)), qerrno{ENOBUFS}) << "not even a small one";
    recording_server server;
    ASSERT_EQ(server.start(on, "bytes"), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.received.size() == taken; }));
    EXPECT_EQ(server.numbers(), first_numbers(taken));
    EXPECT_EQ(server.received.back().second, message(taken - 1, mtu));
    EXPECT_EQ(one.count(L2VPN_IPC_EVT_CONNECTED), 1u);
}

TEST(queue, holds_so_many_messages_and_no_more)
{
    const loop on;
    owner one(new_client(on, "count"), 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    const bytes sent = message(1);
    uint32_t taken = 0;
    qerrno status = EOK;
    while ((status = one.send(sent)) == EOK && taken < 1000000) {
        ++taken;
    }
    EXPECT_EQ(status, qerrno{ENOBUFS});
    EXPECT_EQ(taken, 65536u);
}

TEST(queue, is_dropped_with_the_registration)
{
    const loop on;
    owner one(new_client(on, "dropped"), 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    ASSERT_EQ(one.stop(), qerrno{EOK});
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(2)), qerrno{EOK});
    recording_server server;
    ASSERT_EQ(server.start(on, "dropped"), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ASSERT_TRUE(on.until([&] { return !server.received.empty(); }));
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{2});
}

TEST(traffic, carries_the_smallest_and_the_largest_message_both_ways)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, "sizes"), qerrno{EOK});
    owner one(new_client(on, "sizes"), 1);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    for (const size_t length : {size_t{16}, size_t{17}, mtu - 1, mtu}) {
        server.received.clear();
        one.records.clear();
        const bytes sent = message(static_cast<uint32_t>(length), length);
        ASSERT_EQ(one.send(sent), qerrno{EOK});
        ASSERT_EQ(server.send(server.peers.at(0), sent), qerrno{EOK});
        ASSERT_TRUE(on.until([&] { return !server.received.empty() && !one.records.empty(); }));
        EXPECT_EQ(server.received[0].second, sent);
        EXPECT_EQ(one.records[0],
                  (owner::record{false, static_cast<uint32_t>(length), static_cast<uint32_t>(length), 0}));
    }
}

TEST(traffic, keeps_the_classes_of_a_client_apart)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, "classes"), qerrno{EOK});
    l2vpn_ipc_client_t client = new_client(on, "classes");
    owner one(client, 1);
    owner two(client, 0xFFFFFFFF);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(two.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.peers.size() == 2; }));
    for (const l2vpn_ipc_peer_t peer : server.peers) {
        ASSERT_EQ(server.send(peer, message(l2vpn_ipc_peer_get_info(peer)->class_id)), qerrno{EOK});
    }
    ASSERT_TRUE(on.until([&] { return !one.numbers().empty() && !two.numbers().empty(); }));
    EXPECT_EQ(one.numbers(), std::vector<uint32_t>{1});
    EXPECT_EQ(two.numbers(), std::vector<uint32_t>{0xFFFFFFFF});
    ASSERT_EQ(one.stop(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    EXPECT_EQ(two.send(message(3)), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    EXPECT_EQ(two.count(L2VPN_IPC_EVT_DISCONNECTED), 0u);
}

} // namespace
