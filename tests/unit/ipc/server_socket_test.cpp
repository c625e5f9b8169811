/*
 * The server's socket file, its lock, and sockets that are passed in.
 */
#include "harness.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace ipc_test;
namespace fs = std::filesystem;

struct socket_test : testing::Test {
    [[nodiscard]] struct stat file() const
    {
        struct stat found {};
        EXPECT_EQ(lstat(path.c_str(), &found), 0);
        return found;
    }
    [[nodiscard]] qerrno try_start(const l2vpn_ipc_server_options_t &options = recording_server::defaults)
    {
        recording_server other;
        return other.start(on, service, options);
    }

    loop on;
    std::string service = test_name();
    std::string path = socket_path(service);
    recording_server server;
};

TEST_F(socket_test, has_the_mode_that_was_asked_for)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    EXPECT_EQ(file().st_mode, mode_t{S_IFSOCK | 0660});
    server.stop();
    auto options = recording_server::defaults;
    options.socket_mode = 0606;
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK});
    EXPECT_EQ(file().st_mode, mode_t{S_IFSOCK | 0606});
}

TEST_F(socket_test, lets_its_group_into_a_new_directory_whatever_the_umask)
{
    const named_group wanted = some_group();
    auto options = recording_server::defaults;
    options.group = wanted.name.c_str();
    fs::remove_all(runtime_dir());
    const mode_t before = umask(077);
    const qerrno status = server.start(on, service, options);
    umask(before);
    ASSERT_EQ(status, qerrno{EOK}) << l2vpn_ipc_server_error();
    struct stat found {};
    ASSERT_EQ(stat(runtime_dir().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, mode_t{S_IFDIR | 0750});
    EXPECT_EQ(found.st_gid, wanted.id);
    EXPECT_EQ(file().st_mode, mode_t{S_IFSOCK | 0660});
}

TEST_F(socket_test, belongs_to_the_group_that_was_asked_for)
{
    const named_group wanted = some_group();
    auto options = recording_server::defaults;
    options.group = wanted.name.c_str();
    ASSERT_EQ(server.start(on, service, options), qerrno{EOK}) << l2vpn_ipc_server_error();
    EXPECT_EQ(file().st_gid, wanted.id);
}

TEST_F(socket_test, is_given_to_its_group_or_not_made)
{
    const struct group *const daemon = getgrnam("daemon");
    ASSERT_NE(daemon, nullptr);
    const int cause = giving_fails_with(daemon->gr_gid);
    auto options = recording_server::defaults;
    options.group = "daemon";
    EXPECT_EQ(server.start(on, service, options), static_cast<qerrno>(cause));
    if (cause == 0) {
        EXPECT_EQ(file().st_gid, daemon->gr_gid);
    } else {
        EXPECT_EQ(l2vpn_ipc_server_error(), "cannot give " + path + " to the group daemon: " +
                                                qerr_strerror(static_cast<qerrno>(cause)));
        EXPECT_FALSE(fs::exists(path));
    }
}

TEST_F(socket_test, is_not_made_for_an_unknown_group)
{
    auto options = recording_server::defaults;
    options.group = "no-such-group-here";
    EXPECT_EQ(server.start(on, service, options), qerrno{ENOENT});
    EXPECT_EQ(l2vpn_ipc_server_error(),
              std::string("no group no-such-group-here: No such file or directory"));
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(socket_test, goes_away_with_its_server_and_leaves_nothing)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    EXPECT_TRUE(fs::exists(path));
    EXPECT_TRUE(fs::exists(path + ".lock"));
    server.stop();
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(fs::exists(path + ".lock"));
}

TEST_F(socket_test, is_one_servers_only)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const ino_t before = file().st_ino;
    EXPECT_EQ(try_start(), qerrno{EADDRINUSE});
    EXPECT_NE(std::string(l2vpn_ipc_server_error()).find(path), std::string::npos);
    EXPECT_EQ(file().st_ino, before);
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
}

TEST_F(socket_test, stays_its_servers_when_the_file_is_removed)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ASSERT_TRUE(fs::remove(path));
    EXPECT_EQ(try_start(), qerrno{EADDRINUSE});
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(one.send(message(1)), qerrno{EOK}) << "those who are connected stay";
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    server.stop();
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 2; }));
    EXPECT_EQ(one.count(L2VPN_IPC_EVT_DISCONNECTED), 1u);
}

TEST_F(socket_test, is_not_removed_when_it_is_somebody_elses_by_now)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    ASSERT_TRUE(fs::remove(path));
    const raw_socket stranger = raw_socket::listen_at(path);
    const ino_t before = file().st_ino;
    server.stop();
    EXPECT_EQ(file().st_ino, before);
}

TEST_F(socket_test, of_a_dead_server_is_replaced)
{
    raw_socket::listen_at(path).reset();
    ASSERT_TRUE(fs::exists(path));
    ASSERT_EQ(server.start(on, service), qerrno{EOK}) << l2vpn_ipc_server_error();
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
}

TEST_F(socket_test, of_a_living_server_without_a_lock_is_not_replaced)
{
    const raw_socket living = raw_socket::listen_at(path);
    const ino_t before = file().st_ino;
    EXPECT_EQ(server.start(on, service), qerrno{EADDRINUSE});
    EXPECT_EQ(file().st_ino, before);
    EXPECT_TRUE(living.accept().is_open()) << "it was asked";
}

TEST_F(socket_test, does_not_replace_what_is_no_socket)
{
    std::ofstream(path) << "precious";
    EXPECT_EQ(server.start(on, service), qerrno{ENOTSOCK});
    EXPECT_NE(std::string(l2vpn_ipc_server_error()).find(path), std::string::npos);
    std::string text;
    std::ifstream(path) >> text;
    EXPECT_EQ(text, "precious");
    fs::remove(path);
    EXPECT_EQ(server.start(on, service), qerrno{EOK}) << "the failure kept nothing locked";
}

struct passing : socket_test {
    static l2vpn_ipc_server_options_t options_for(int fd)
    {
        auto options = recording_server::defaults;
        options.listen_fd = fd;
        return options;
    }
};

TEST_F(passing, a_listening_socket_serves)
{
    raw_socket made = raw_socket::listen_at(path);
    ASSERT_EQ(fcntl(made.fd(), F_SETFL, 0), 0) << "as a parent process would pass it: blocking";
    ASSERT_EQ(server.start(on, service, options_for(made.release())), qerrno{EOK})
        << l2vpn_ipc_server_error();
    EXPECT_EQ(l2vpn_ipc_server_path(server.handle), path);
    EXPECT_FALSE(fs::exists(path + ".lock"));
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    server.stop();
    EXPECT_TRUE(fs::exists(path)) << "whoever made the file removes it";
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_DISCONNECTED) == 1; }));
    EXPECT_EQ(server.start(on, service), qerrno{EOK}) << "the socket was closed with its server";
}

TEST_F(passing, anything_else_is_refused_and_stays_open)
{
    const raw_socket stream(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(stream.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(stream.fd(), 1), 0);
    const raw_socket idle(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
    const raw_socket file(open("/dev/null", O_RDONLY));
    for (const int fd : {stream.fd(), idle.fd(), file.fd(), 999999}) {
        EXPECT_EQ(server.start(on, service, options_for(fd)), qerrno{EINVAL}) << fd;
        EXPECT_NE(std::string(l2vpn_ipc_server_error()).find(std::to_string(fd)), std::string::npos);
    }
    for (const int fd : {stream.fd(), idle.fd(), file.fd()}) {
        EXPECT_GE(fcntl(fd, F_GETFD), 0);
    }
}

} // namespace
