/*
 * The client against a server played by hand: how a link opens, and how it does not.
 */
#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <filesystem>
#include <set>
#include <sys/timerfd.h>

/* The timers of this process, which a test can stop. timerfd_settime() takes the C library's place. */
namespace {
class clocks {
public:
    int set(int fd, int flags, const itimerspec *to, itimerspec *before)
    {
        m_seen.insert(fd);
        return m_stopped ? 0 : real(fd, flags, to, before);
    }
    void stop()
    {
        m_stopped = true;
        const itimerspec never{};
        for (const int fd : m_seen) {
            real(fd, 0, &never, nullptr);
        }
    }
    void go() { m_stopped = false; }

private:
    static int real(int fd, int flags, const itimerspec *to, itimerspec *before)
    {
        const auto next = reinterpret_cast<decltype(&timerfd_settime)>(dlsym(RTLD_NEXT, "timerfd_settime"));
        return next(fd, flags, to, before);
    }

    std::set<int> m_seen;
    bool m_stopped = false;
} s_clocks;
} // namespace
extern "C" __attribute__((visibility("default"))) int timerfd_settime(int fd, int flags, const itimerspec *to,
                                                                      itimerspec *before) noexcept
{
    return s_clocks.set(fd, flags, to, before);
}

namespace {

using namespace ipc_test;

const test_environment s_environment{{"L2VPN_SEND_TIMEOUT_MS", "300"}};

TEST(opening, begins_with_a_hello_of_24_bytes)
{
    const loop on;
    raw_server server(on, "hello");
    owner one(new_client(on, "hello"), 0x01020304);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    EXPECT_EQ(greeting_bytes(server.hello),
              (bytes{'L', '2', 'V', 'L', 0, 1, 0, 1, 1, 2, 3, 4, 0, 0, 0, 7, 0, 1, 0, 0, 0, 0, 0, 0}));
    on.drain();
    EXPECT_TRUE(one.records.empty()) << "not up without an answer";
    ASSERT_TRUE(server.answer({.kind = 2, .class_id = 0x01020304, .nodeid = 42}));
    ASSERT_TRUE(on.until([&] { return !one.records.empty(); }));
    EXPECT_EQ(one.records, (std::vector<owner::record>{{true, L2VPN_IPC_EVT_CONNECTED, 42, 0}}));
}

/* What was told to be the MTU stays so: messages are made to that measure before there is a link. */
TEST(opening, is_refused_where_the_server_takes_less_than_was_told)
{
    const loop on;
    raw_server server(on, "smaller");
    l2vpn_ipc_client_t client = new_client(on, "smaller");
    owner one(client, 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(1, 2001)), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    const auto since = std::chrono::steady_clock::now(); /* the client waits from when it reads the answer */
    ASSERT_TRUE(server.answer({.kind = 2, .mtu = 2000}));
    ASSERT_TRUE(on.until([&] { return server.peer.at_end(); }));
    EXPECT_TRUE(one.records.empty());
    EXPECT_EQ(syslog_count("smaller.sock: the server takes 2000 bytes a message, this process sends 65536: "
                           "set L2VPN_MTU to what the server takes"),
              1u);
    uint32_t mtu = 0;
    ASSERT_EQ(l2vpn_ipc_transport_mtu_get(client, 5, &mtu), qerrno{EOK});
    EXPECT_EQ(mtu, 65536u);
    ASSERT_TRUE(server.take_hello());
    EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(1400));
    ASSERT_TRUE(server.answer());
    bytes packet;
    ASSERT_TRUE(on.until([&] { return server.peer.receive(&packet); }));
    EXPECT_EQ(packet, message(1, 2001)) << "nothing that was taken is lost";
}

TEST(opening, with_a_server_of_a_smaller_mtu_is_told_on_both_sides)
{
    const loop on;
    auto options = recording_server::defaults;
    options.mtu = 2000;
    recording_server server;
    ASSERT_EQ(server.start(on, "tight", options), qerrno{EOK});
    owner one(new_client(on, "tight"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(
        on.until([&] { return syslog_count("tight.sock: the server takes 2000 bytes a message") == 1; }));
    EXPECT_EQ(server.log_count("sends up to 65536 bytes a message, more than the 2000 of this server"), 1u);
    EXPECT_TRUE(server.infos.empty()) << "never accepted";
    EXPECT_TRUE(one.records.empty());
}

struct bad_answer {
    const char *name;
    bytes packet;
    const char *line;
};

class bad_answers : public testing::TestWithParam<bad_answer> {};

TEST_P(bad_answers, end_the_link_with_a_line_in_the_log)
{
    const loop on;
    const std::string service = std::string("bad-") + GetParam().name;
    raw_server server(on, service);
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.peer.send(GetParam().packet));
    ASSERT_TRUE(on.until([&] { return server.peer.at_end(); }));
    EXPECT_TRUE(one.records.empty());
    EXPECT_EQ(syslog_count(socket_path(service) + ": " + GetParam().line), 1u);
    EXPECT_EQ(one.send(message(1)), qerrno{EOK}) << "the queue goes on";
}

bytes cut(bytes from, size_t length)
{
    from.resize(length);
    return from;
}

constexpr const char *garbage = "the server's answer is garbage";

INSTANTIATE_TEST_SUITE_P(
    answers, bad_answers,
    testing::Values(bad_answer{"magic", greeting_bytes({.magic = 0x4C32564D, .kind = 2}), garbage},
                    bad_answer{"kind", greeting_bytes({.kind = 1}), garbage},
                    bad_answer{"class", greeting_bytes({.kind = 2, .class_id = 6}), garbage},
                    bad_answer{"mtu-15", greeting_bytes({.kind = 2, .mtu = 15}), garbage},
                    bad_answer{"mtu-above", greeting_bytes({.kind = 2, .mtu = 65537}), garbage},
                    bad_answer{"short", cut(greeting_bytes({.kind = 2}), 23), garbage},
                    bad_answer{"long", cut(greeting_bytes({.kind = 2}), 25), garbage},
                    bad_answer{"huge", cut(greeting_bytes({.kind = 2}), 60000), garbage},
                    bad_answer{"runt", cut(greeting_bytes({.kind = 2}), 15), garbage},
                    bad_answer{"empty", {}, garbage},
                    bad_answer{"version", greeting_bytes({.version = 2, .kind = 2}),
                               "the server has version 2 of the link, not 1"},
                    bad_answer{"refused", greeting_bytes({.kind = 2, .status = EACCES}),
                               "the server refuses the class: Permission denied"}),
    [](const auto &tested) {
        std::string name = tested.param.name;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

TEST(opening, says_so_when_the_server_leaves_without_an_answer_and_tries_again)
{
    const loop on;
    raw_server server(on, "leaves");
    owner one(new_client(on, "leaves"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    for (int attempt = 0; attempt < 3; ++attempt) {
        ASSERT_TRUE(server.take_hello());
    }
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(on.until([&] { return !one.records.empty(); }));
    bytes packet;
    ASSERT_TRUE(server.peer.receive(&packet));
    EXPECT_EQ(packet, message(1));
    EXPECT_EQ(syslog_count("leaves.sock: the server closed the link without an answer"), 1u);
}

TEST(opening, is_tried_at_growing_intervals)
{
    const loop on;
    raw_server server(on, "growing");
    owner one(new_client(on, "growing"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    /* 50 ms and twice as much each time, a quarter less at the least. */
    for (auto shortest = std::chrono::microseconds(37500); shortest < std::chrono::seconds(1);
         shortest *= 2) {
        const auto since = std::chrono::steady_clock::now();
        ASSERT_TRUE(server.take_hello());
        EXPECT_GE(std::chrono::steady_clock::now() - since, shortest);
    }
}

TEST(opening, keeps_the_queue_over_refusals_and_logs_a_cause_once)
{
    const loop on;
    raw_server server(on, "refuses");
    owner one(new_client(on, "refuses"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer({.kind = 2, .status = EBUSY}));
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer({.kind = 2, .status = EBUSY}));
    ASSERT_EQ(one.send(message(2)), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(on.until([&] { return !one.records.empty(); }));
    EXPECT_EQ(one.records, (std::vector<owner::record>{{true, L2VPN_IPC_EVT_CONNECTED, 42, 0}}));
    bytes packet;
    for (const uint32_t number : {1u, 2u}) {
        ASSERT_TRUE(server.peer.receive(&packet));
        EXPECT_EQ(packet, message(number));
    }
    EXPECT_EQ(syslog_count("refuses.sock: the server refuses the class: Device or resource busy"), 1u);
}

TEST(opening, reads_the_refusal_of_a_server_that_hangs_up_before_it_reads)
{
    const loop on;
    const raw_socket listener = raw_socket::listen_at(socket_path("hasty"));
    owner one(new_client(on, "hasty"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    raw_socket peer;
    ASSERT_TRUE(on.until([&] { return (peer = listener.accept()).is_open(); }));
    ASSERT_TRUE(peer.send(greeting_bytes({.kind = 2, .status = EUSERS})));
    peer.reset(); /* the hello is unread: this resets the link */
    ASSERT_TRUE(on.until([&] { return syslog_count("hasty.sock: the server refuses the class") == 1; }));
}

TEST(opening, gives_a_silent_server_five_seconds)
{
    const loop on;
    raw_server server(on, "silent");
    owner one(new_client(on, "silent"), 5);
    const auto since = std::chrono::steady_clock::now();
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(on.until([&] { return server.peer.at_end(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(4900));
    EXPECT_EQ(syslog_count("silent.sock: the server does not answer"), 1u);
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(on.until([&] { return !one.records.empty(); }));
}

TEST(opening, gives_a_server_that_stops_reading_the_queue_five_seconds)
{
    const loop on;
    raw_server server(on, "stops");
    owner one(new_client(on, "stops"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    constexpr uint32_t count = 100; /* far more than the socket holds */
    for (uint32_t number = 0; number < count; ++number) {
        ASSERT_EQ(one.send(message(number, 65536)), qerrno{EOK});
    }
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    const auto since = std::chrono::steady_clock::now();
    ASSERT_TRUE(on.until([&] { return syslog_count("stops.sock: the server does not take messages") == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(4900));
    EXPECT_TRUE(one.records.empty());
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    bytes packet;
    for (uint32_t number = 0; number < count; ++number) {
        ASSERT_TRUE(on.until([&] { return server.peer.receive(&packet); }));
        ASSERT_EQ(packet, message(number, 65536));
    }
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
}

TEST(opening, happens_at_once_when_the_socket_appears)
{
    const loop on;
    owner one(new_client(on, "appears"), 5);
    recording_server refusing;
    refusing.verdict = EPERM;
    ASSERT_EQ(refusing.start(on, "appears"), qerrno{EOK});
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return syslog_count("appears.sock: the server refuses the class") == 1; }));
    s_clocks.stop();
    refusing.stop();
    recording_server server;
    ASSERT_EQ(server.start(on, "appears"), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return !one.records.empty(); })) << "the next attempt waited for its time";
    s_clocks.go();
}

TEST(opening, waits_for_a_directory_that_is_not_there_yet)
{
    const loop on;
    owner one(new_client(on, "later"), 5);
    std::filesystem::remove_all(runtime_dir());
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return syslog_count("later.sock: waiting for the server") == 1; }));
    recording_server server;
    ASSERT_EQ(server.start(on, "later"), qerrno{EOK}) << l2vpn_ipc_server_error();
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
}

} // namespace
