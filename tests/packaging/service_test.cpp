// l2vpnd as a service manager runs it: with sockets that are passed in, told on, reloaded, stopped.
#include "service.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace process_test;
using system_test::binary;
using system_test::child;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

/* A socket at a path; above the descriptors that a shell may use for its own. */
class bound_socket {
public:
    bound_socket(const std::string &path, int type, bool listening = true) : path_(path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int made = socket(AF_UNIX, type, 0);
        fd_ = fcntl(made, F_DUPFD, 50);
        close(made);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            (listening && listen(fd_, 16) != 0)) {
            throw std::runtime_error("no socket at " + path);
        }
    }
    ~bound_socket() { close(fd_); }
    bound_socket(const bound_socket &) = delete;
    bound_socket &operator=(const bound_socket &) = delete;

    int fd() const { return fd_; }
    bool is_there() const
    {
        struct stat found {};
        return stat(path_.c_str(), &found) == 0 && S_ISSOCK(found.st_mode);
    }

private:
    std::string path_;
    int fd_ = -1;
};

TEST_F(service_test, serves_on_sockets_that_are_passed_in_and_leaves_their_files)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    const bound_socket control(operators(), SOCK_STREAM);
    raw_peer early(owners()); // connects before there is a process
    start_with({links.fd(), control.fd()});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(early.greet(3, 7, 65536), 0u);
    raw_peer later(owners(), 4);
    const json told = status();
    EXPECT_EQ(told["owners"], 2);
    EXPECT_EQ(told["socket"], owners());
    EXPECT_EQ(told["control"], operators());
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(links.is_there());
    EXPECT_TRUE(control.is_there());
    EXPECT_EQ(m_daemon->err(), "");
}

/* Sockets that are passed in have their groups already; the ring is its own. Where a directory service knows the groups
 * and does not answer, nobody can tell that there is none. */
TEST_F(service_test, a_ring_that_its_group_cannot_have_is_told_of)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    const bound_socket control(operators(), SOCK_STREAM);
    start_with({links.fd(), control.fd()}, {"--group", "no-such-group-here"});
    ASSERT_TRUE(serves());
    const std::string ring = status()["capture"];
    const std::string said = "l2vpnd: " + ring + ": only its owner may read it: ";
    EXPECT_THAT(m_daemon->err(), AnyOf(said + "no group no-such-group-here\n",
                                       StartsWith(said + "cannot look up the group no-such-group-here: ")));
}

/* The one that it makes itself, it would have to give away. */
TEST_F(service_test, a_group_that_the_control_socket_cannot_have_is_told_of)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    start_with({links.fd()}, {"--group", "no-such-group-here"});
    EXPECT_EQ(m_daemon->wait(), 1);
    const std::string where = " the control socket " + operators() + ": ";
    EXPECT_THAT(m_daemon->err(), AnyOf("l2vpnd: no such group for" + where + "No such file or directory\n",
                                       StartsWith("l2vpnd: cannot look up the group for" + where)));
    EXPECT_NE(access(operators().c_str(), F_OK), 0) << "nobody finds it there";
}

TEST_F(service_test, a_second_process_serves_on_the_same_sockets)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    const bound_socket control(operators(), SOCK_STREAM);
    start_with({control.fd(), links.fd()}); // in either order
    ASSERT_TRUE(serves()) << m_daemon->err();
    m_daemon->send_signal(SIGKILL);
    EXPECT_EQ(m_daemon->wait(), -SIGKILL);
    raw_peer between(owners());
    start_with({links.fd(), control.fd()});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(between.greet(3, 7, 65536), 0u);
    EXPECT_EQ(status()["owners"], 1);
    EXPECT_EQ(stop(), 0);
}

TEST_F(service_test, makes_the_socket_that_is_not_passed_in)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    start_with({links.fd()});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(status()["control"], operators());
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(access(operators().c_str(), F_OK), 0); // its own goes with it
    EXPECT_TRUE(links.is_there());

    const bound_socket control(operators(), SOCK_STREAM);
    unlink(owners().c_str());
    start_with({control.fd()});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(status()["socket"], owners());
    EXPECT_EQ(stop(), 0);
    EXPECT_NE(access(owners().c_str(), F_OK), 0);
    EXPECT_TRUE(control.is_there());
}

TEST_F(service_test, sockets_for_another_process_are_left_alone)
{
    const bound_socket links(m_dir.file("other.sock"), SOCK_SEQPACKET);
    start_without_sockets({}, {"LISTEN_FDS=1", "LISTEN_PID=1"});
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(stop(), 0);
}

TEST_F(service_test, refuses_what_it_cannot_serve_on_in_one_line)
{
    const bound_socket links(owners(), SOCK_SEQPACKET);
    const bound_socket more_links(m_dir.file("more.sock"), SOCK_SEQPACKET);
    const bound_socket datagrams(m_dir.file("datagrams"), SOCK_DGRAM, false);
    const bound_socket deaf(m_dir.file("deaf"), SOCK_STREAM, false);
    const auto refused = [&](const std::vector<int> &sockets) {
        start_with(sockets);
        EXPECT_EQ(m_daemon->wait(), 1);
        EXPECT_EQ(m_daemon->out(), "");
        return m_daemon->err();
    };
    const std::string no_listener =
        ", which was passed in, is no listening Unix socket of packets or a stream\n";
    EXPECT_EQ(refused({datagrams.fd()}), "l2vpnd: descriptor 3" + no_listener);
    EXPECT_EQ(refused({links.fd(), deaf.fd()}), "l2vpnd: descriptor 4" + no_listener);
    EXPECT_EQ(refused({links.fd(), more_links.fd()}),
              "l2vpnd: descriptor 4, which was passed in, is one too many of its kind\n");

    const int first = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const int nowhere = fcntl(first, F_DUPFD, 60);
    close(first);
    sockaddr_un abstract{};
    abstract.sun_family = AF_UNIX; // the kernel chooses a name that is no path
    ASSERT_EQ(bind(nowhere, reinterpret_cast<const sockaddr *>(&abstract), sizeof abstract.sun_family), 0);
    ASSERT_EQ(listen(nowhere, 1), 0);
    EXPECT_EQ(refused({nowhere}), "l2vpnd: descriptor 3, which was passed in, has no path\n");
    close(nowhere);

    const auto number = system_test::run(
        "/bin/bash", {"-c", R"(LISTEN_PID=$$ LISTEN_FDS=many exec "$0" --nodeid 7)", binary("l2vpnd")});
    EXPECT_EQ(number.status, 1);
    EXPECT_THAT(number.err, StartsWith("l2vpnd: cannot take the sockets that were passed in: "));
    EXPECT_TRUE(is_one_line(number.err));
}

TEST_F(service_test, is_started_by_the_first_owner_that_comes)
{
    m_daemon = std::make_unique<child>("/usr/bin/systemd-socket-activate",
                                       std::vector<std::string>{"--seqpacket", "--listen", owners(),
                                                                binary("l2vpnd"), "--runtime-dir",
                                                                runtime_dir(), "--nodeid", "7"});
    ASSERT_TRUE(system_test::eventually([&] { return access(owners().c_str(), F_OK) == 0; }));
    std::unique_ptr<raw_peer> owner;
    // The file is there a moment before somebody listens.
    ASSERT_TRUE(system_test::eventually([&] {
        try {
            owner = std::make_unique<raw_peer>(owners(), 3);
            return true;
        } catch (const std::runtime_error &) {
            return false;
        }
    }));
    ASSERT_TRUE(serves()) << m_daemon->err();
    EXPECT_EQ(status()["owners"], 1);
    EXPECT_EQ(stop(), 0);
}

/* The service manager's end of what it is told. */
class manager {
public:
    explicit manager(const std::string &path) : socket_(path, SOCK_DGRAM, false), path_(path) {}

    std::string variable() const { return "NOTIFY_SOCKET=" + path_; }
    std::string hears() const
    {
        pollfd ready{socket_.fd(), POLLIN, 0};
        char text[4096];
        const ssize_t got = poll(&ready, 1, 30'000) == 1 ? recv(socket_.fd(), text, sizeof text, 0) : 0;
        return {text, got > 0 ? static_cast<size_t>(got) : 0};
    }
    bool hears_nothing() const
    {
        pollfd ready{socket_.fd(), POLLIN, 0};
        return poll(&ready, 1, 0) == 0;
    }

private:
    bound_socket socket_;
    std::string path_;
};

TEST_F(service_test, tells_the_manager_that_it_serves_reloads_and_stops)
{
    const manager boss(m_dir.file("notify"));
    start_without_sockets({"--config", m_dir.write("options", "")}, {boss.variable()});
    ASSERT_TRUE(serves()) << m_daemon->err();
    const std::string serving = "READY=1\nSTATUS=Serving on " + owners();
    EXPECT_EQ(boss.hears(), serving);
    m_daemon->send_signal(SIGHUP);
    EXPECT_EQ(boss.hears(), "RELOADING=1");
    EXPECT_EQ(boss.hears(), serving);
    m_dir.write("options", "garbage\n"); // what it cannot take it has also done with
    m_daemon->send_signal(SIGHUP);
    EXPECT_EQ(boss.hears(), "RELOADING=1");
    EXPECT_EQ(boss.hears(), serving);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(boss.hears(), "STOPPING=1");
    EXPECT_TRUE(boss.hears_nothing());
}

TEST_F(service_test, a_process_that_does_not_come_to_serve_never_tells_that_it_does)
{
    const manager boss(m_dir.file("notify"));
    m_dir.write("run/L2VPN.sock", "in the way");
    start_without_sockets({}, {boss.variable()});
    EXPECT_EQ(m_daemon->wait(), 1);
    EXPECT_TRUE(boss.hears_nothing());
}

TEST_F(service_test, a_stop_withdraws_nothing_and_ends_the_links)
{
    start_without_sockets({"--auto-provision"});
    ASSERT_TRUE(serves()) << m_daemon->err();
    raw_peer owner(owners(), 3);
    ASSERT_TRUE(owner.send(create(3, {1, 2})));
    std::optional<octets> told = owner.receive();
    ASSERT_TRUE(told && told->size() > 16);
    EXPECT_EQ((*told)[7], 7); // both are provisioned
    EXPECT_EQ((*told)[11], 2);
    EXPECT_EQ(stop(), 0);
    told = owner.receive();
    ASSERT_TRUE(told.has_value());
    EXPECT_TRUE(told->empty()); // the end, and no word before it
}

} // namespace
