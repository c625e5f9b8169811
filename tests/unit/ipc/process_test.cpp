/*
 * Client and server in processes of their own: killed servers, second servers, strangers.
 */
#include "../../support/forked.h"
#include "harness.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace ipc_test;
using system_test::forked;

const test_environment s_environment;

/* A server that sends back what it gets. */
int serve(const std::string &service, int ready)
{
    const loop on;
    recording_server server;
    server.message_hook = [&](l2vpn_ipc_peer_t peer, uint32_t number) { server.send(peer, message(number)); };
    if (server.start(on, service) != EOK || write(ready, "r", 1) != 1) {
        return 1;
    }
    return event_mgr_run(on.evm());
}

struct process_test : testing::Test {
    std::string service = test_name();
};

TEST_F(process_test, a_killed_server_is_missed_and_found_again)
{
    const loop on;
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    for (size_t times = 1; times <= 3; ++times) {
        forked server([&](int ready) { return serve(service, ready); });
        ASSERT_TRUE(server.is_ready()) << "replaces the socket file of the one before";
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == times; }));
        ASSERT_EQ(one.send(message(1)), qerrno{EOK});
        ASSERT_TRUE(on.until([&] { return one.numbers().size() == times; }));
        server.end();
        EXPECT_TRUE(std::filesystem::exists(socket_path(service))) << "killed servers do not tidy up";
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == times; }));
        EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN});
    }
}

TEST_F(process_test, a_killed_servers_last_words_are_heard)
{
    const loop on;
    owner one(new_client(on, service), 5);
    forked server([&](int ready) {
        const loop of_child;
        recording_server dying;
        dying.message_hook = [&](l2vpn_ipc_peer_t peer, uint32_t) {
            for (uint32_t number = 0; number < 100; ++number) {
                dying.send(peer, message(number));
            }
            raise(SIGKILL);
        };
        if (dying.start(of_child, service) != EOK || write(ready, "r", 1) != 1) {
            return 1;
        }
        return event_mgr_run(of_child.evm());
    });
    ASSERT_TRUE(server.is_ready());
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    EXPECT_EQ(server.wait(), -SIGKILL);
    EXPECT_EQ(one.send(message(2)), qerrno{ENOTCONN});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    EXPECT_EQ(one.numbers().size(), 100u);
    EXPECT_EQ(one.records.back().number, L2VPN_IPC_EVT_DISCONNECTED);
}

TEST_F(process_test, a_second_server_process_is_told_off)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    forked second([&](int) {
        const loop of_child;
        recording_server other;
        return static_cast<int>(other.start(of_child, service));
    });
    EXPECT_EQ(second.wait(), EADDRINUSE);
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
}

/* What a user without rights does: root becomes another, anybody else just is one. Who becomes another is not ended
 * with its parent any more, until it asks for that again. */
void drop_rights()
{
    constexpr uid_t nobody = 65534;
    const pid_t parent = getppid();
    if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0 ||
                           prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)) {
        _exit(99);
    }
}

TEST_F(process_test, a_client_without_permission_says_so_once_and_waits)
{
    ASSERT_EQ(chmod(runtime_dir().c_str(), 0755), 0);
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    if (geteuid() != 0) {
        ASSERT_EQ(chmod(socket_path(service).c_str(), 0), 0);
    }
    forked stranger([&](int ready) {
        drop_rights();
        const loop of_child;
        owner one(new_client(of_child, service), 5);
        if (one.start() != EOK || one.send(message(1)) != EOK) {
            return 1;
        }
        const std::string line = service + ".sock: cannot connect: Permission denied";
        if (!of_child.until([&] { return syslog_count(line) == 1; }) || write(ready, "r", 1) != 1) {
            return 2;
        }
        if (!of_child.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; })) {
            return 3;
        }
        return syslog_count(line) == 1 ? 0 : 4;
    });
    ASSERT_TRUE(stranger.is_ready());
    ASSERT_EQ(chmod(socket_path(service).c_str(), 0666), 0);
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    EXPECT_EQ(stranger.wait(), 0);
    EXPECT_EQ(server.infos.at(0).uid, geteuid() == 0 ? 65534 : geteuid());
}

TEST_F(process_test, a_server_without_permission_names_the_path)
{
    ASSERT_EQ(chmod(runtime_dir().c_str(), 0555), 0);
    forked stranger([&](int) {
        drop_rights();
        const loop of_child;
        recording_server server;
        if (server.start(of_child, service) != EACCES) {
            return 1;
        }
        return std::string(l2vpn_ipc_server_error()).find(socket_path(service)) != std::string::npos ? 0 : 2;
    });
    const int status = stranger.wait();
    ASSERT_EQ(chmod(runtime_dir().c_str(), 0755), 0);
    EXPECT_EQ(status, 0);
}

TEST_F(process_test, a_peer_is_the_process_that_connected)
{
    const loop on;
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    forked client([&](int ready) {
        const pid_t self = getpid();
        const loop of_child;
        owner one(new_client(of_child, service), 5);
        one.start();
        if (!of_child.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }) ||
            write(ready, &self, sizeof self) != sizeof self) {
            return 1;
        }
        return of_child.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }) ? 0 : 2;
    });
    ASSERT_TRUE(on.until([&] { return server.infos.size() == 1; }));
    EXPECT_NE(server.infos[0].pid, getpid());
    EXPECT_GT(server.infos[0].pid, 0);
    ASSERT_TRUE(client.is_ready());
    client.end();
    ASSERT_TRUE(on.until([&] { return server.closed.size() == 1; }));
    EXPECT_EQ(server.closed[0].second, qerrno{EOK});
}

} // namespace
