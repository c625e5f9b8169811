/*
 * The server as a whole: the status of every call, accepting, refusing, limits.
 */
#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace ipc_test;

const test_environment s_environment;

qerrno accept_any(l2vpn_ipc_server_t, l2vpn_ipc_peer_t, const l2vpn_ipc_peer_info_t *, void *)
{
    return EOK;
}
void ignore_message(l2vpn_ipc_server_t, l2vpn_ipc_peer_t, void *, uint32_t, void *) {}
void ignore_closed(l2vpn_ipc_server_t, l2vpn_ipc_peer_t, qerrno, void *) {}

struct server_test : testing::Test {
    raw_socket greeted_socket(const greeting_fields &hello = {})
    {
        const size_t before = server.peers.size();
        raw_socket made = raw_socket::connect_to(socket_path(service));
        EXPECT_TRUE(made.send(greeting_bytes(hello)));
        EXPECT_TRUE(on.until([&] { return server.peers.size() == before + 1; }));
        bytes packet;
        EXPECT_TRUE(made.receive(&packet));
        answer = greeting_of(packet);
        return made;
    }

    loop on;
    std::string service = test_name();
    recording_server server;
    greeting_fields answer;
};

TEST(server_new, wants_every_argument)
{
    const loop on;
    l2vpn_ipc_server_t server = nullptr;
    const l2vpn_ipc_server_options_t options = recording_server::defaults;
    l2vpn_ipc_server_callbacks_t callbacks{accept_any, ignore_message, ignore_closed, nullptr};
    const auto made = [&](event_mgr_p evm, const char *service) {
        return l2vpn_ipc_server_new(evm, service, &options, &callbacks, nullptr, &server);
    };
    EXPECT_EQ(made(nullptr, "new"), qerrno{EINVAL});
    EXPECT_EQ(made(on.evm(), nullptr), qerrno{EINVAL});
    for (const char *name : {"", ".", "..", "a/b"}) {
        EXPECT_EQ(made(on.evm(), name), qerrno{EINVAL}) << name;
        EXPECT_NE(l2vpn_ipc_server_error(), std::string());
    }
    EXPECT_EQ(made(on.evm(), std::string(120, 'x').c_str()), qerrno{ENAMETOOLONG});
    EXPECT_NE(l2vpn_ipc_server_error(), std::string());
    EXPECT_EQ(l2vpn_ipc_server_new(on.evm(), "new", nullptr, &callbacks, nullptr, &server), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_new(on.evm(), "new", &options, nullptr, nullptr, &server), qerrno{EINVAL});
    EXPECT_EQ(l2vpn_ipc_server_new(on.evm(), "new", &options, &callbacks, nullptr, nullptr), qerrno{EINVAL});
    callbacks.accept = nullptr;
    EXPECT_EQ(made(on.evm(), "new"), qerrno{EINVAL});
    callbacks = {accept_any, nullptr, ignore_closed, nullptr};
    EXPECT_EQ(made(on.evm(), "new"), qerrno{EINVAL});
    callbacks = {accept_any, ignore_message, nullptr, nullptr};
    EXPECT_EQ(made(on.evm(), "new"), qerrno{EINVAL});
    EXPECT_EQ(server, nullptr);
    l2vpn_ipc_server_free(nullptr);
}

TEST_F(server_test, takes_an_mtu_of_16_to_a_mebibyte)
{
    auto options = recording_server::defaults;
    for (const uint32_t mtu : {1u, 15u, 1048577u, 0xFFFFFFFFu}) {
        options.mtu = mtu;
        EXPECT_EQ(server.start(on, service, options), qerrno{EINVAL}) << mtu;
    }
    for (const uint32_t mtu : {16u, 1048576u}) {
        options.mtu = mtu;
        EXPECT_EQ(server.start(on, service, options), qerrno{EOK}) << mtu;
        server.stop();
    }
}

TEST_F(server_test, knows_who_its_peers_are)
{
    auto options = recording_server::defaults;
    options.mtu = 5000;
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK});
    EXPECT_EQ(l2vpn_ipc_server_path(server.handle), socket_path(service));
    const raw_socket one = greeted_socket({.class_id = 11, .nodeid = 0x01020304, .mtu = 4000});
    EXPECT_EQ(greeting_bytes(answer), (bytes{'L', '2', 'V', 'L', 0, 1, 0,    2,    0, 0, 0, 11,
                                             0,   0,   0,   99,  0, 0, 0x0F, 0xA0, 0, 0, 0, 0}));
    const raw_socket two = greeted_socket({.class_id = 12, .mtu = 5000});
    EXPECT_EQ(answer.mtu, 5000u);
    ASSERT_EQ(server.infos.size(), 2u);
    EXPECT_EQ(server.infos[0].peer_id, 1u);
    EXPECT_EQ(server.infos[0].class_id, 11u);
    EXPECT_EQ(server.infos[0].nodeid, 0x01020304u);
    EXPECT_EQ(server.infos[0].mtu, 4000u);
    EXPECT_EQ(server.infos[0].pid, getpid());
    EXPECT_EQ(server.infos[0].uid, geteuid());
    EXPECT_EQ(server.infos[0].gid, getegid());
    EXPECT_EQ(server.infos[1].peer_id, 2u);
    EXPECT_EQ(server.infos[1].mtu, 5000u);
    int something = 0;
    EXPECT_EQ(l2vpn_ipc_peer_get_arg(server.peers[0]), nullptr);
    l2vpn_ipc_peer_set_arg(server.peers[0], &something);
    EXPECT_EQ(l2vpn_ipc_peer_get_arg(server.peers[0]), &something);
    EXPECT_EQ(l2vpn_ipc_peer_get_arg(server.peers[1]), nullptr);
}

TEST_F(server_test, tells_a_refused_peer_why)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    server.verdict = EDQUOT;
    const raw_socket peer = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(peer.send(greeting_bytes({})));
    bytes packet;
    ASSERT_TRUE(on.until([&] { return peer.receive(&packet); }));
    EXPECT_EQ(greeting_of(packet).status, uint32_t{EDQUOT});
    EXPECT_TRUE(peer.at_end());
    EXPECT_EQ(server.log_count("is refused: Disk quota exceeded"), 1u);
    EXPECT_TRUE(server.closed.empty());
}

struct bad_hello {
    const char *name;
    bytes packet;
    uint32_t status;
    const char *line;
};

class bad_hellos : public server_test, public testing::WithParamInterface<bad_hello> {};

TEST_P(bad_hellos, are_answered_and_logged)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const raw_socket peer = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(peer.send(GetParam().packet));
    bytes packet;
    ASSERT_TRUE(on.until([&] { return peer.receive(&packet); }));
    EXPECT_EQ(greeting_of(packet).version, 1);
    EXPECT_EQ(greeting_of(packet).status, GetParam().status);
    EXPECT_TRUE(peer.at_end());
    EXPECT_EQ(server.log_count(GetParam().line), 1u);
    EXPECT_EQ(server.log_count("pid " + std::to_string(getpid())), 1u);
    EXPECT_TRUE(server.infos.empty());
    EXPECT_TRUE(server.closed.empty());
    const raw_socket good = greeted_socket();
    EXPECT_EQ(answer.status, 0u);
}

bytes cut(bytes from, size_t length)
{
    from.resize(length);
    return from;
}

INSTANTIATE_TEST_SUITE_P(
    hellos, bad_hellos,
    testing::Values(bad_hello{"magic", greeting_bytes({.magic = 0}), EPROTO, "sent garbage of 24 bytes"},
                    bad_hello{"kind", greeting_bytes({.kind = 2}), EPROTO, "sent garbage of 24 bytes"},
                    bad_hello{"mtu", greeting_bytes({.mtu = 15}), EPROTO, "sent garbage of 24 bytes"},
                    bad_hello{"shorter", cut(greeting_bytes({}), 23), EPROTO, "sent garbage of 23 bytes"},
                    bad_hello{"longer", cut(greeting_bytes({}), 25), EPROTO, "sent garbage of 25 bytes"},
                    bad_hello{"runt", cut(greeting_bytes({}), 7), EPROTO, "sent garbage of 7 bytes"},
                    bad_hello{"huge", cut(greeting_bytes({}), 70000), EPROTO, "sent garbage of 70000 bytes"},
                    bad_hello{"empty", {}, EPROTO, "sent garbage of 0 bytes"},
                    bad_hello{"version", greeting_bytes({.version = 513}), EPROTONOSUPPORT,
                              "has version 513 of the link, not 1"},
                    bad_hello{"later_version", cut(greeting_bytes({.version = 2}), 48), EPROTONOSUPPORT,
                              "has version 2 of the link"}),
    [](const auto &tested) { return tested.param.name; });

TEST_F(server_test, gives_a_silent_peer_five_seconds)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const auto since = std::chrono::steady_clock::now();
    const raw_socket silent = raw_socket::connect_to(socket_path(service));
    on.drain();
    const raw_socket talking = greeted_socket();
    bytes packet;
    ASSERT_TRUE(on.until([&] { return silent.receive(&packet); }));
    EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(4900));
    EXPECT_EQ(greeting_of(packet).status, uint32_t{ETIMEDOUT});
    EXPECT_TRUE(silent.at_end());
    EXPECT_EQ(server.log_count("says nothing"), 1u);
    EXPECT_EQ(server.peers.size(), 1u) << "the other one stays";
    EXPECT_TRUE(talking.send(message(1)));
    EXPECT_TRUE(on.until([&] { return server.received.size() == 1; }));
}

TEST_F(server_test, says_nothing_of_a_peer_that_leaves_without_a_word)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    raw_socket::connect_to(socket_path(service)).reset();
    const raw_socket next = greeted_socket();
    EXPECT_TRUE(server.lines.empty());
    EXPECT_TRUE(server.closed.empty());
}

TEST_F(server_test, takes_so_many_peers_and_no_more)
{
    auto options = recording_server::defaults;
    options.max_peers = 2;
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK});
    raw_socket one = greeted_socket();
    const raw_socket two = greeted_socket();
    bytes packet;
    for (int i = 0; i < 3; ++i) {
        const raw_socket three = raw_socket::connect_to(socket_path(service));
        ASSERT_TRUE(on.until([&] { return three.receive(&packet); }));
        EXPECT_EQ(greeting_of(packet).status, uint32_t{EUSERS});
        EXPECT_TRUE(three.at_end());
    }
    EXPECT_TRUE(server.closed.empty());
    one.reset();
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    const raw_socket three = greeted_socket();
    EXPECT_EQ(answer.status, 0u);
}

TEST_F(server_test, serves_a_thousand_peers)
{
    constexpr uint32_t count = 1000;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    l2vpn_ipc_client_t client = new_client(on, service);
    std::vector<std::unique_ptr<owner>> owners;
    for (uint32_t class_id = 0; class_id < count; ++class_id) {
        owners.push_back(std::make_unique<owner>(client, class_id));
        ASSERT_EQ(owners.back()->start(), qerrno{EOK});
        ASSERT_EQ(owners.back()->send(message(class_id)), qerrno{EOK});
    }
    server.message_hook = [&](l2vpn_ipc_peer_t peer, uint32_t number) {
        EXPECT_EQ(number, l2vpn_ipc_peer_get_info(peer)->class_id);
        EXPECT_EQ(server.send(peer, message(number)), qerrno{EOK});
    };
    ASSERT_TRUE(on.until([&] {
        for (const auto &one : owners) {
            if (one->records.size() < 2) {
                return false;
            }
        }
        return true;
    }));
    for (uint32_t class_id = 0; class_id < count; ++class_id) {
        EXPECT_EQ(owners[class_id]->numbers(), std::vector<uint32_t>{class_id});
    }
    owners.clear();
    ASSERT_TRUE(on.until([&] { return server.closed.size() == count; }));
}

TEST_F(server_test, rests_when_there_are_no_descriptors_left)
{
    auto options = recording_server::defaults;
    options.max_peers = 8;
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK});
    const raw_socket peer = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(peer.send(greeting_bytes({})));
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(peer.fd());
    ASSERT_GE(next, 0);
    close(next);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    int handlers = 0;
    const bool told = on.until([&] {
        handlers += event_mgr_dispatch(on.evm(), 1);
        return server.log_count("cannot accept") >= 2;
    });
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_TRUE(told);
    EXPECT_LT(handlers, 20) << "the server spins";
    EXPECT_EQ(server.log_count("Too many open files"), server.log_count("cannot accept"));
    ASSERT_TRUE(on.until([&] { return server.peers.size() == 1; }));
}

TEST_F(server_test, makes_room_for_its_peers_descriptors)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 256;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    auto options = recording_server::defaults;
    options.max_peers = 600;
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK});
    rlimit after{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &after), 0);
    EXPECT_EQ(after.rlim_max, before.rlim_max);
    EXPECT_GE(after.rlim_cur, std::min<rlim_t>(600, before.rlim_max));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(server_test, logs_to_the_system_without_a_callback_of_its_own)
{
    const l2vpn_ipc_server_options_t options = recording_server::defaults;
    const l2vpn_ipc_server_callbacks_t callbacks{accept_any, ignore_message, ignore_closed, nullptr};
    l2vpn_ipc_server_t handle = nullptr;
    ASSERT_EQ(l2vpn_ipc_server_new(on.evm(), service.c_str(), &options, &callbacks, nullptr, &handle),
              qerrno{EOK});
    const raw_socket peer = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(peer.send(message(1)));
    EXPECT_TRUE(on.until([&] { return syslog_count("sent garbage of 16 bytes") == 1; }));
    l2vpn_ipc_server_free(handle);
}

TEST_F(server_test, closes_its_links_when_it_is_freed)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    const raw_socket silent = raw_socket::connect_to(socket_path(service));
    on.drain();
    server.stop();
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    EXPECT_TRUE(silent.at_end());
    EXPECT_TRUE(server.closed.empty());
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 2; }));
}

} // namespace
