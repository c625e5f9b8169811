/*
 * The client against a server played by hand: how a link ends, and what comes before and after its end.
 */
#include "harness.h"

#include <cerrno>
#include <numeric>
#include <sys/socket.h>

namespace {

using namespace ipc_test;

struct ending : testing::Test {
    void open()
    {
        ASSERT_EQ(one.start(), qerrno{EOK});
        reopen(1);
    }
    void reopen(size_t times)
    {
        ASSERT_TRUE(server.take_hello());
        ASSERT_TRUE(server.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == times; }));
    }
    void send_hundred()
    {
        for (uint32_t number = 0; number < 100; ++number) {
            ASSERT_TRUE(server.peer.send(message(number)));
        }
    }
    /* All hundred messages in order, and one event behind them. */
    void expect_hundred_and_the_end(uint32_t status)
    {
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
        std::vector<uint32_t> numbers(100);
        std::iota(numbers.begin(), numbers.end(), 0u);
        EXPECT_EQ(one.numbers(), numbers);
        EXPECT_EQ(one.records.back(), (owner::record{true, L2VPN_IPC_EVT_DISCONNECTED, 42, status}));
    }

    loop on;
    std::string service = test_name();
    raw_server server{on, service};
    owner one{new_client(on, service), 5};
};

TEST_F(ending, by_the_server_is_told_after_all_its_messages)
{
    open();
    send_hundred();
    server.peer.reset();
    expect_hundred_and_the_end(EOK);
}

TEST_F(ending, by_a_reset_does_not_overtake_messages)
{
    open();
    send_hundred();
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    server.peer.reset(); /* with the message unread */
    expect_hundred_and_the_end(ECONNRESET);
}

TEST_F(ending, found_by_a_send_does_not_lose_messages)
{
    open();
    send_hundred();
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    server.peer.reset();
    EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN}) << "the reset";
    EXPECT_EQ(one.send(message(3)), qerrno{ENOTCONN}) << "the broken pipe behind it";
    expect_hundred_and_the_end(ECONNRESET);
    EXPECT_EQ(one.send(message(4)), qerrno{ENOTCONN});
}

TEST_F(ending, found_by_a_send_after_a_clean_close_does_not_lose_messages)
{
    open();
    send_hundred();
    server.peer.reset();
    EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN});
    expect_hundred_and_the_end(EPIPE);
}

TEST_F(ending, by_a_server_that_only_stops_reading)
{
    open();
    send_hundred();
    ASSERT_EQ(shutdown(server.peer.fd(), SHUT_RD), 0);
    EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN});
    expect_hundred_and_the_end(EPIPE);
}

TEST_F(ending, is_told_once_and_followed_by_a_new_link)
{
    open();
    for (size_t times = 1; times <= 3; ++times) {
        server.peer.reset();
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == times; }));
        EXPECT_EQ(one.send(message(1)), qerrno{ENOTCONN});
        ASSERT_TRUE(server.take_hello());
        EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN}) << "not before the answer";
        ASSERT_TRUE(server.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == times + 1; }));
        EXPECT_EQ(one.send(message(3)), qerrno{EOK});
        bytes packet;
        ASSERT_TRUE(server.peer.receive(&packet));
        EXPECT_EQ(packet, message(3)) << "nothing of what failed";
        EXPECT_EQ(one.count(L2VPN_IPC_EVT_DISCONNECTED), times);
    }
}

struct faulty {
    const char *name;
    size_t length;
    const char *line;
};

class faults : public ending, public testing::WithParamInterface<faulty> {};

TEST_P(faults, end_the_link)
{
    open();
    send_hundred();
    ASSERT_TRUE(server.peer.send(bytes(GetParam().length, 1)));
    ASSERT_TRUE(server.peer.send(message(100)));
    expect_hundred_and_the_end(EPROTO);
    EXPECT_EQ(syslog_count(socket_path(service) + ": " + GetParam().line), 1u);
    EXPECT_TRUE(server.peer.at_end());
    reopen(2);
}

INSTANTIATE_TEST_SUITE_P(
    packets, faults,
    testing::Values(
        faulty{"empty", 0, "the server sent an empty packet"},
        faulty{"one", 1, "the server sent a packet of 1 bytes, shorter than a message's header"},
        faulty{"fifteen", 15, "the server sent a packet of 15 bytes, shorter than a message's header"},
        faulty{"too_long", 65537, "the server sent a packet of 65537 bytes, longer than the MTU of 65536"}),
    [](const auto &tested) { return tested.param.name; });

TEST_F(ending, after_an_empty_packet_is_a_fault_even_when_the_server_has_left)
{
    open();
    send_hundred();
    ASSERT_TRUE(server.peer.send({}));
    ASSERT_TRUE(server.peer.send(message(100)));
    server.peer.reset();
    expect_hundred_and_the_end(EPROTO);
}

TEST_F(ending, while_the_queue_goes_out_gives_all_of_it_to_the_next_server)
{
    ASSERT_EQ(one.start(), qerrno{EOK});
    constexpr uint32_t count = 100;
    for (uint32_t number = 0; number < count; ++number) {
        ASSERT_EQ(one.send(message(number, 65536)), qerrno{EOK});
    }
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    bytes packet;
    ASSERT_TRUE(on.until([&] { return server.peer.receive(&packet); }));
    EXPECT_EQ(packet, message(0, 65536));
    ASSERT_TRUE(server.take_hello()) << "which closes the first link";
    EXPECT_TRUE(one.records.empty()) << "it was never up";
    ASSERT_TRUE(server.answer());
    for (uint32_t number = 0; number < count; ++number) {
        ASSERT_TRUE(on.until([&] { return server.peer.receive(&packet); }));
        ASSERT_EQ(packet, message(number, 65536));
    }
    ASSERT_TRUE(on.until([&] { return !one.records.empty(); }));
    EXPECT_EQ(one.records, (std::vector<owner::record>{{true, L2VPN_IPC_EVT_CONNECTED, 42, 0}}));
}

TEST_F(ending, does_not_mix_up_the_order_of_event_and_messages)
{
    ASSERT_EQ(one.start(), qerrno{EOK});
    for (uint32_t number = 0; number < 100; ++number) {
        ASSERT_EQ(one.send(message(number, 65536)), qerrno{EOK});
    }
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(server.peer.send(message(1)));
    on.drain();
    EXPECT_TRUE(one.records.empty()) << "the queue is still going out";
    bytes packet;
    ASSERT_TRUE(on.until([&] {
        server.peer.receive(&packet);
        return one.records.size() == 2;
    }));
    EXPECT_TRUE(one.records[0].is_event);
    EXPECT_EQ(one.numbers(), std::vector<uint32_t>{1});
}

} // namespace
