/*
 * Both ends of the links when a call of theirs fails: each of them in turn, with an errno of its own.
 */
#include "failing/calls.h"
#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace ipc_test;
using namespace failing;
namespace fs = std::filesystem;
using std::string_view;

constexpr unsigned most_calls = 200;

const test_environment s_environment{{"L2VPN_CAPTURE", "off"}}; /* whose calls may fail, and nobody minds */

/* A service in a directory that is made with it, and nothing else in it. */
struct server_failures : testing::Test {
    server_failures() { fs::remove_all(runtime_dir()); }

    /* Tries with one failure; what failed. Afterwards `status` and `error` say what came of it, and the server
     * is gone again. */
    template <typename Order>
    failure attempt(const Order &with_failure)
    {
        l2vpn_ipc_server_t made = nullptr;
        const auto start = [&] {
            status = l2vpn_ipc_server_new(on.evm(), service.c_str(), &options, &callbacks, nullptr, &made);
        };
        const failure what = with_failure(start);
        error = l2vpn_ipc_server_error();
        l2vpn_ipc_server_free(made);
        return what;
    }

    /* As many calls as a server makes, each fails once. `harmless` are those whose failure is nobody's. */
    unsigned every_call(std::initializer_list<string_view> harmless, const std::function<void()> &prepare)
    {
        for (unsigned at = 1; at <= most_calls; ++at) {
            prepare();
            const size_t before = open_descriptors();
            const failure what = latest = attempt([&](const auto &work) { return fail_at(at, work); });
            if (what.call.empty()) {
                EXPECT_EQ(status, qerrno{EOK}) << error;
                return at - 1;
            }
            if (std::ranges::find(harmless, what.call) != harmless.end() && status == EOK) {
                continue;
            }
            EXPECT_EQ(status, static_cast<qerrno>(what.cause)) << text_of(what) << ": " << error;
            EXPECT_TRUE(error.ends_with(qerr_strerror(status)) ||
                        (status == ENOMEM && error == "out of memory"))
                << text_of(what) << ": " << error;
            EXPECT_EQ(error.find('\n'), std::string::npos) << error;
            EXPECT_EQ(open_descriptors(), before) << text_of(what);
            EXPECT_EQ(event_mgr_dispatch(on.evm(), 0), 0) << text_of(what);
        }
        ADD_FAILURE() << "there is no end of calls";
        return 0;
    }

    loop on;
    std::string service = test_name();
    std::string path = socket_path(service);
    l2vpn_ipc_server_options_t options = recording_server::defaults;
    l2vpn_ipc_server_callbacks_t callbacks{
        [](l2vpn_ipc_server_t, l2vpn_ipc_peer_t, const l2vpn_ipc_peer_info_t *, void *) -> qerrno {
            return EOK;
        },
        [](l2vpn_ipc_server_t, l2vpn_ipc_peer_t, void *, uint32_t, void *) {},
        [](l2vpn_ipc_server_t, l2vpn_ipc_peer_t, qerrno, void *) {}, nullptr};
    qerrno status = EOK;
    std::string error;
    failure latest; /* of every_call() */
};

TEST_F(server_failures, each_is_told_in_a_line_and_leaves_nothing)
{
    const named_group group = some_group();
    options.group = group.name.c_str();
    const unsigned calls = every_call({}, [&] {
        EXPECT_FALSE(fs::exists(path));
        /* A lock file that was not to be locked may be another server's. */
        EXPECT_TRUE(latest.call == "flock" || !fs::exists(path + ".lock")) << text_of(latest);
        fs::remove_all(runtime_dir());
    });
    EXPECT_GT(calls, 15U);
}

TEST_F(server_failures, each_leaves_a_stale_socket_for_the_next_attempt)
{
    ASSERT_TRUE(fs::create_directory(runtime_dir()));
    const unsigned calls = every_call({}, [&] {
        if (!fs::exists(path)) {
            (void)raw_socket::listen_at(path); /* whose owner is gone */
        }
    });
    EXPECT_GT(calls, 15U);
}

TEST_F(server_failures, each_leaves_a_socket_that_was_passed_in_to_its_owner)
{
    ASSERT_TRUE(fs::create_directory(runtime_dir()));
    raw_socket given;
    const unsigned calls = every_call({"getsockname"}, [&] {
        if (status == EOK) {
            given.release(); /* a server has closed it */
        }
        fs::remove(path);
        given = raw_socket::listen_at(path);
        options.listen_fd = given.fd();
    });
    given.release();
    EXPECT_GT(calls, 5U);
}

TEST_F(server_failures, interrupted_calls_are_made_again)
{
    const auto flock = [](const auto &work) { return fail_call("flock", EINTR, work); };
    EXPECT_EQ(attempt(flock).cause, EINTR);
    EXPECT_EQ(status, qerrno{EOK}) << error;
}

TEST_F(server_failures, a_socket_file_that_cannot_be_looked_at_is_named)
{
    const auto lost = [](const auto &work) { return fail_call("lstat", EIO, work); };
    EXPECT_EQ(attempt(lost).cause, EIO);
    EXPECT_EQ(status, qerrno{EIO});
    EXPECT_EQ(error, path + ": Input/output error");
}

TEST_F(server_failures, a_group_with_many_members_is_found)
{
    const named_group group = some_group();
    options.group = group.name.c_str();
    const auto too_long = [](const auto &work) { return fail_call("getgrnam_r", ERANGE, work); };
    EXPECT_EQ(attempt(too_long).cause, ERANGE);
    EXPECT_EQ(status, qerrno{EOK}) << error;
}

/* Which is not to say that there is no such group. */
TEST_F(server_failures, a_group_that_cannot_be_looked_up_is_told_with_the_reason)
{
    const named_group group = some_group();
    options.group = group.name.c_str();
    const auto lost = [](const auto &work) { return fail_call("getgrnam_r", EIO, work); };
    EXPECT_EQ(attempt(lost).cause, EIO);
    EXPECT_EQ(status, qerrno{EIO});
    EXPECT_EQ(error, "cannot look up the group " + group.name + ": Input/output error");
}

TEST_F(server_failures, a_socket_whose_queue_is_full_is_in_use)
{
    ASSERT_TRUE(fs::create_directory(runtime_dir()));
    const raw_socket busy = raw_socket::listen_at(path);
    const auto full = [](const auto &work) { return fail_call("connect", EAGAIN, work); };
    EXPECT_EQ(attempt(full).cause, EAGAIN);
    EXPECT_EQ(status, qerrno{EADDRINUSE});
    EXPECT_TRUE(fs::exists(path));
}

struct client_failures : testing::Test {
    loop on;
    std::string service = test_name();
};

TEST_F(client_failures, a_client_that_cannot_be_made_is_told_with_the_cause_and_leaves_nothing)
{
    unsigned refused = 0;
    for (unsigned at = 1;; ++at) {
        ASSERT_LE(at, most_calls);
        const size_t before = open_descriptors();
        l2vpn_ipc_client_t client = nullptr;
        qerrno status = EOK;
        const failure what =
            fail_at(at, [&] { status = l2vpn_ipc_client_init(on.evm(), service.c_str(), &client); });
        if (what.call.empty()) {
            EXPECT_EQ(status, qerrno{EOK});
            break;
        }
        if (status == EOK) { /* it goes on without what only makes it faster */
            EXPECT_TRUE(what.call == "inotify_init1" || what.call == "epoll_ctl") << text_of(what);
            continue;
        }
        ++refused;
        EXPECT_EQ(status, static_cast<qerrno>(what.cause)) << text_of(what);
        EXPECT_EQ(client, nullptr);
        EXPECT_EQ(open_descriptors(), before) << text_of(what);
    }
    EXPECT_GT(refused, 6U);
}

TEST_F(client_failures, a_socket_that_does_not_tell_its_room_has_room_for_the_configured_mtu)
{
    l2vpn_ipc_client_t client = nullptr;
    const auto init = [&] { (void)l2vpn_ipc_client_init(on.evm(), service.c_str(), &client); };
    EXPECT_EQ(fail_call("getsockopt", ENOBUFS, init).cause, ENOBUFS);
    ASSERT_NE(client, nullptr);
    owner one(client, 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    uint32_t mtu = 0;
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(client, 5, &mtu), qerrno{EOK});
    EXPECT_EQ(mtu, 65536U);
}

TEST_F(client_failures, a_server_whose_user_cannot_be_told_is_not_said_to_pose_as_one)
{
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const std::string told =
        socket_path(service) + ": cannot tell who the server is: No buffer space available";
    const size_t before = syslog_count(told);
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    order ordered("getsockopt", ENOBUFS);
    ordered.begin();
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ordered.end();
    EXPECT_EQ(ordered.failed().cause, ENOBUFS);
    EXPECT_EQ(syslog_count(told), before + 1);
    EXPECT_EQ(syslog_count(socket_path(service) + ": a process of uid"), 0U);
}

TEST_F(client_failures, a_class_that_cannot_be_registered_can_be_later)
{
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    unsigned refused = 0;
    for (bool enough = false; !enough; ++refused) {
        ASSERT_LE(refused, most_calls);
        owner one(new_client(on, service), 5);
        qerrno status = EOK;
        const failure what = fail_at(refused + 1, [&] { status = one.start(); });
        EXPECT_EQ(status, static_cast<qerrno>(what.cause)) << text_of(what);
        enough = what.call.empty();
        if (!enough) {
            ASSERT_EQ(one.start(), qerrno{EOK}) << text_of(what);
        }
        EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; })) << text_of(what);
    }
    EXPECT_GT(refused, 4U) << "the class, its place in the table, and the client's watch";
}

TEST_F(client_failures, a_message_that_finds_no_memory_in_the_queue_is_not_taken)
{
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    qerrno status = EOK;
    const bytes first = message(1);
    EXPECT_EQ(fail_call(allocation, ENOMEM, [&] { status = one.send(first); }).call, allocation);
    EXPECT_EQ(status, qerrno{ENOMEM});
    ASSERT_EQ(one.send(message(2)), qerrno{EOK});
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return server.numbers().size() == 1; }));
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{2});
}

/* A call that fails while a link opens, and one that is interrupted, cost an attempt at most. */
struct opening_failure {
    const char *call;
    int cause;
    unsigned at = 1;
};

void PrintTo(const opening_failure &of, std::ostream *out)
{
    *out << of.call << " " << of.at << " " << of.cause;
}

class link_failures : public client_failures, public testing::WithParamInterface<opening_failure> {};

TEST_P(link_failures, a_link_opens_all_the_same)
{
    const auto [call, cause, at] = GetParam();
    recording_server server;
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    order ordered(call, cause, at);
    ordered.begin();
    EXPECT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ordered.end();
    EXPECT_EQ(ordered.failed().cause, cause) << "it was not called";
    ASSERT_EQ(one.send(message(1)), qerrno{EOK});
    EXPECT_TRUE(on.until([&] { return !server.numbers().empty(); }));
    EXPECT_EQ(server.numbers(), std::vector<uint32_t>{1});
}

INSTANTIATE_TEST_SUITE_P(
    each, link_failures,
    testing::Values(opening_failure{"socket", EMFILE}, opening_failure{"connect", EAGAIN},
                    opening_failure{"connect", ENOENT}, opening_failure{"connect", EACCES},
                    opening_failure{"getsockopt", ENOBUFS}, opening_failure{"getsockopt", ENOBUFS, 3},
                    opening_failure{"epoll_ctl", ENOSPC}, opening_failure{"epoll_ctl", ENOSPC, 2},
                    opening_failure{"accept4", EMFILE}, opening_failure{"accept4", EINTR},
                    opening_failure{"accept4", ECONNABORTED}, opening_failure{"epoll_wait", EINTR}));

} // namespace
