/*
 * The client used by many threads at once.
 */
#include "harness.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

/* Takes the C library's place, so that a test knows when a thread waits for room. */
namespace {
std::atomic<pthread_t> s_waiter{};
}
extern "C" __attribute__((visibility("default"))) int noticed_poll(pollfd *, nfds_t, int) __asm__("poll");
int noticed_poll(pollfd *fds, nfds_t count, int timeout_ms)
{
    if (count == 1 && fds->events == POLLOUT) {
        s_waiter = pthread_self();
    }
    return reinterpret_cast<decltype(&noticed_poll)>(dlsym(RTLD_NEXT, "poll"))(fds, count, timeout_ms);
}

namespace {

using namespace ipc_test;

/* Long enough that no send of these tests may end by it. All threads record into one ring. */
const test_environment s_environment{
    {"L2VPN_SEND_TIMEOUT_MS", "60000"}, {"L2VPN_CAPTURE", "on"}, {"L2VPN_CAPTURE_SIZE", "64"}};

/* An event manager that runs on a thread of its own. */
class running_loop {
public:
    explicit running_loop(loop &of) : loop_(of), thread_([this] { event_mgr_run(loop_.evm()); }) {}
    running_loop(const running_loop &) = delete;
    running_loop &operator=(const running_loop &) = delete;
    ~running_loop()
    {
        event_mgr_stop(loop_.evm());
        thread_.join();
    }

private:
    loop &loop_;
    std::thread thread_;
};

bool wait_for(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

TEST(threads, send_at_once_and_nothing_is_mixed_up)
{
    constexpr uint32_t senders = 8;
    constexpr uint32_t each = 500;
    loop of_server;
    loop of_client;
    recording_server server;
    std::atomic<size_t> arrived{0};
    server.message_hook = [&](l2vpn_ipc_peer_t, uint32_t) { ++arrived; };
    ASSERT_EQ(server.start(of_server, "send"), qerrno{EOK});
    owner one(new_client(of_client, "send"), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    std::vector<std::thread> threads;
    std::atomic<uint32_t> failures{0};
    {
        const running_loop server_thread(of_server);
        const running_loop client_thread(of_client);
        for (uint32_t sender = 0; sender < senders; ++sender) {
            threads.emplace_back([&, sender] {
                for (uint32_t i = 0; i < each; ++i) {
                    failures += one.send(message(sender << 16 | i, 16 + (i * 37 + sender) % 5000)) != EOK;
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(wait_for([&] { return arrived == senders * each; }));
    }
    EXPECT_EQ(failures, 0u);
    std::map<uint32_t, uint32_t> next;
    for (const auto &[peer, packet] : server.received) {
        const uint32_t number = number_of(packet.data());
        const uint32_t sender = number >> 16;
        const uint32_t i = number & 0xFFFF;
        ASSERT_EQ(i, next[sender]++) << "each sender's messages keep their order";
        ASSERT_EQ(packet, message(number, 16 + (i * 37 + sender) % 5000));
    }
}

struct counted {
    std::atomic<uint64_t> events{0};
    std::atomic<uint64_t> messages{0};
};

void count_message(l2vpn_ipc_client_t, uint32_t, uint32_t, void *, uint32_t, uint32_t, void *cookie)
{
    ++static_cast<counted *>(cookie)->messages;
}

void count_event(l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_evt_t, uint32_t, void *cookie)
{
    ++static_cast<counted *>(cookie)->events;
}

TEST(threads, register_send_and_withdraw_while_the_event_thread_works)
{
    constexpr uint32_t threads_count = 4;
    loop of_server;
    loop of_client;
    recording_server server;
    server.message_hook = [&](l2vpn_ipc_peer_t peer, uint32_t number) { server.send(peer, message(number)); };
    ASSERT_EQ(server.start(of_server, "stress"), qerrno{EOK});
    l2vpn_ipc_client_t client = new_client(of_client, "stress");
    std::array<counted, threads_count> all; /* by class */
    std::atomic<uint32_t> failures{0};
    {
        const running_loop server_thread(of_server);
        const running_loop client_thread(of_client);
        std::vector<std::thread> threads;
        for (uint32_t class_id = 0; class_id < threads_count; ++class_id) {
            threads.emplace_back([&, class_id, &mine = all[class_id]] {
                for (int round = 0; round < 300; ++round) {
                    failures += l2vpn_ipc_class_init(client, class_id, 7, count_message, count_event, nullptr,
                                                     &mine) != EOK;
                    const uint64_t before = mine.messages;
                    for (uint32_t i = 0; i < 4; ++i) {
                        const bytes sent = message(i);
                        failures += l2vpn_ipc_ucast(client, class_id, L2VPN_IPC_DEST_L2VPN, sent.data(), 16,
                                                    0) != EOK;
                    }
                    if (round % 3 == 0) {
                        failures += !wait_for([&] { return mine.messages > before; });
                    }
                    failures += l2vpn_ipc_class_deinit(client, class_id, 0) != EOK;
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(failures, 0u);
    for (const counted &of : all) {
        EXPECT_GE(of.events, 100u) << "a message comes on a link that is up";
    }
}

TEST(threads, withdraw_a_class_while_its_callback_does_the_same)
{
    loop of_server;
    loop of_client;
    recording_server server;
    ASSERT_EQ(server.start(of_server, "both"), qerrno{EOK});
    std::atomic<uint32_t> withdrawn{0};
    std::atomic<uint32_t> entered{0};
    std::atomic<uint32_t> left{0};
    l2vpn_ipc_client_t client = new_client(of_client, "both");
    struct shared_t {
        std::atomic<uint32_t> &withdrawn;
        std::atomic<uint32_t> &entered;
        std::atomic<uint32_t> &left;
    } shared{withdrawn, entered, left};
    const auto at_event = [](l2vpn_ipc_client_t of, uint32_t, uint32_t, l2vpn_ipc_evt_t, uint32_t,
                             void *cookie) {
        auto &with = *static_cast<shared_t *>(cookie);
        ++with.entered;
        with.withdrawn += l2vpn_ipc_class_deinit(of, 5, 0) == EOK;
        ++with.left;
    };
    {
        const running_loop server_thread(of_server);
        const running_loop client_thread(of_client);
        for (uint32_t round = 1; round <= 200; ++round) {
            ASSERT_EQ(l2vpn_ipc_class_init(client, 5, 7, count_message, at_event, nullptr, &shared),
                      qerrno{EOK});
            ASSERT_TRUE(wait_for([&] { return entered == round; }));
            withdrawn += l2vpn_ipc_class_deinit(client, 5, 0) == EOK;
            /* A callback that is still inside would withdraw the class of the next round. */
            ASSERT_TRUE(wait_for([&] { return left == round; }));
            ASSERT_EQ(withdrawn, round) << "one of the two, and once";
        }
    }
}

/* A link whose server does not read, and a thread that waits for room in it. */
struct waiting_sender : testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(one.start(), qerrno{EOK});
        ASSERT_TRUE(server.take_hello());
        ASSERT_TRUE(server.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
        sender = std::thread([this] {
            qerrno status = EOK;
            while ((status = one.send(message(1, 65536))) == EOK) {
                ++sent;
            }
            ended = status;
        });
        ASSERT_TRUE(wait_for([this] { return s_waiter == sender.native_handle(); }));
    }
    /* A test that failed has not released it. */
    void TearDown() override
    {
        if (sender.joinable()) {
            one.stop();
            sender.join();
        }
        s_waiter = pthread_t{};
    }

    loop on;
    raw_server server{on, test_name()};
    owner one{new_client(on, test_name()), 5};
    std::atomic<uint32_t> sent{0};
    std::atomic<qerrno> ended{EOK};
    std::thread sender;
};

TEST_F(waiting_sender, is_released_when_the_class_is_withdrawn)
{
    EXPECT_EQ(one.stop(), qerrno{EOK});
    sender.join();
    EXPECT_EQ(ended, qerrno{ENOENT});
    EXPECT_EQ(one.start(), qerrno{EOK});
}

TEST_F(waiting_sender, is_released_when_the_server_goes)
{
    server.peer.reset();
    sender.join();
    EXPECT_EQ(ended, qerrno{ENOTCONN});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
}

TEST_F(waiting_sender, is_released_when_the_server_breaks_the_protocol)
{
    ASSERT_TRUE(server.peer.send({}));
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    sender.join();
    EXPECT_EQ(ended, qerrno{ENOTCONN});
}

TEST_F(waiting_sender, does_not_keep_messages_from_coming)
{
    ASSERT_TRUE(server.peer.send(message(9)));
    ASSERT_TRUE(on.until([&] { return one.numbers() == std::vector<uint32_t>{9}; }));
    EXPECT_EQ(one.stop(), qerrno{EOK});
    sender.join();
}

TEST(threads, wait_for_room)
{
    const loop on;
    raw_server server{on, test_name()};
    owner one{new_client(on, test_name()), 5};
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer());
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    constexpr uint32_t more_than_fit = 100;
    std::atomic<uint32_t> sent{0};
    std::atomic<qerrno> status{EINPROGRESS};
    std::thread sender([&] {
        qerrno last = EOK;
        while (last == EOK && sent < more_than_fit) {
            last = one.send(message(sent, 65536));
            sent += last == EOK;
        }
        status = last;
    });
    uint32_t received = 0;
    bytes packet;
    EXPECT_TRUE(on.until([&] {
        for (; server.peer.receive(&packet) && packet == message(received, 65536); ++received) {
        }
        return status != EINPROGRESS && received == sent;
    }));
    sender.join();
    EXPECT_EQ(status, qerrno{EOK});
    EXPECT_EQ(received, more_than_fit);
    EXPECT_EQ(one.count(L2VPN_IPC_EVT_DISCONNECTED), 0u);
}

} // namespace
