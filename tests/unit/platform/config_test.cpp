#include "child.h"

#include <platform/qerr.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using system_test::run;
using system_test::temp_dir;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr int nobody = 65534;

std::string number(int errno_value)
{
    return std::to_string(errno_value);
}

TEST(configuration, has_its_defaults)
{
    const auto result = run(PROBE, {"config"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                HasSubstr("mtu=65536\nsend_timeout_ms=1000\ndebug=off\ntrace=off\ntrace_size=1024\n"));
    EXPECT_THAT(result.err, IsEmpty());
}

TEST(configuration, is_read_from_the_environment)
{
    const auto result =
        run(PROBE, {"config"},
            {"L2VPN_MTU=0x100", "L2VPN_SEND_TIMEOUT_MS=0", "L2VPN_DEBUG=syslog", "L2VPN_LOG=stderr",
             "L2VPN_TRACE=/tmp/x", "L2VPN_TRACE_SIZE=64", "L2VPN_RUNTIME_DIR=/tmp/y//"});
    EXPECT_EQ(result.out, "runtime_dir=/tmp/y\nmtu=256\nsend_timeout_ms=0\ndebug=syslog\ntrace=/tmp/x\n"
                          "trace_size=64\nlog_to_stderr=1\n");
    EXPECT_THAT(result.err, IsEmpty());
}

TEST(configuration, an_empty_value_is_none)
{
    const auto result =
        run(PROBE, {"config"}, {"L2VPN_MTU=", "L2VPN_DEBUG=", "L2VPN_RUNTIME_DIR=", "L2VPN_NODEID="});
    EXPECT_THAT(result.out, HasSubstr("mtu=65536\n"));
    EXPECT_THAT(result.err, IsEmpty());
}

struct bad_value {
    const char *setting;
    const char *result;
};

class bad_values : public ::testing::TestWithParam<bad_value> {};

TEST_P(bad_values, are_reported_once_and_replaced)
{
    const auto result = run(PROBE, {"config"}, {GetParam().setting});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr(GetParam().result));
    EXPECT_THAT(result.err, StartsWith("l2vpn: " + std::string(GetParam().setting) + ": "));
    EXPECT_EQ(std::ranges::count(result.err, '\n'), 1);
}

INSTANTIATE_TEST_SUITE_P(each, bad_values,
                         ::testing::Values(bad_value{"L2VPN_MTU=15", "mtu=65536"},              //
                                           bad_value{"L2VPN_MTU=1048577", "mtu=65536"},         //
                                           bad_value{"L2VPN_MTU=many", "mtu=65536"},            //
                                           bad_value{"L2VPN_MTU=16 ", "mtu=65536"},             //
                                           bad_value{"L2VPN_MTU=0x", "mtu=65536"},              //
                                           bad_value{"L2VPN_MTU=-1", "mtu=65536"},              //
                                           bad_value{"L2VPN_MTU=99999999999999", "mtu=65536"},  //
                                           bad_value{"L2VPN_SEND_TIMEOUT_MS=60001", "ms=1000"}, //
                                           bad_value{"L2VPN_TRACE_SIZE=63", "trace_size=1024"}, //
                                           bad_value{"L2VPN_LOG=file", "log_to_stderr=0"},
                                           bad_value{"L2VPN_DEBUG=loud", "debug=off"}, //
                                           bad_value{"L2VPN_TRACE=yes", "trace=off"},  //
                                           bad_value{"L2VPN_RUNTIME_DIR=here", "runtime_dir=/"}));

TEST(configuration, the_limits_themselves_are_good_values)
{
    const auto least = run(PROBE, {"config"}, {"L2VPN_MTU=16", "L2VPN_SEND_TIMEOUT_MS=0"});
    EXPECT_THAT(least.out, HasSubstr("mtu=16\nsend_timeout_ms=0\n"));
    const auto most = run(PROBE, {"config"}, {"L2VPN_MTU=1048576", "L2VPN_SEND_TIMEOUT_MS=60000"});
    EXPECT_THAT(most.out, HasSubstr("mtu=1048576\nsend_timeout_ms=60000\n"));
    EXPECT_THAT(least.err + most.err, IsEmpty());
}

TEST(node_id, is_the_configured_one)
{
    EXPECT_EQ(run(PROBE, {"nodeid"}, {"L2VPN_NODEID=17"}).out, "0 17\n0 17\n");
    EXPECT_EQ(run(PROBE, {"nodeid"}, {"L2VPN_NODEID=0xfffffffe"}).out, "0 4294967294\n0 4294967294\n");
    EXPECT_EQ(run(PROBE, {"nodeid"}, {"L2VPN_NODEID=0"}).out, "0 0\n0 0\n");
}

TEST(node_id, a_bad_configured_one_is_an_error_and_reported_once)
{
    for (const char *bad : {"0xFFFFFFFF", "4294967296", "-1", "node", "1x"}) {
        const auto result = run(PROBE, {"nodeid"}, {std::string("L2VPN_NODEID=") + bad});
        EXPECT_EQ(result.out, number(EINVAL) + " 4711\n" + number(EINVAL) + " 4711\n") << bad;
        EXPECT_THAT(result.err, HasSubstr("L2VPN_NODEID=")) << bad;
        EXPECT_EQ(std::ranges::count(result.err, '\n'), 1) << bad;
    }
}

TEST(service_path, is_a_socket_in_the_runtime_directory)
{
    EXPECT_EQ(run(PROBE, {"path", "L2VPN", "200"}, {"L2VPN_RUNTIME_DIR=/tmp/z"}).out,
              "0 /tmp/z/L2VPN.sock\n");
}

TEST(service_path, refuses_what_is_no_plain_file_name)
{
    for (const char *name : {"", ".", "..", "a/b", "/"}) {
        EXPECT_EQ(run(PROBE, {"path", name, "200"}).out, number(EINVAL) + " \n") << name;
    }
}

TEST(service_path, must_fit_the_buffer_and_a_socket_address)
{
    // "/tmp/z/L2VPN.sock" is 17 characters long.
    const std::vector<std::string> short_dir{"L2VPN_RUNTIME_DIR=/tmp/z"};
    EXPECT_EQ(run(PROBE, {"path", "L2VPN", "17"}, short_dir).out, number(ENAMETOOLONG) + " \n");
    EXPECT_EQ(run(PROBE, {"path", "L2VPN", "18"}, short_dir).out, "0 /tmp/z/L2VPN.sock\n");
    // A socket address takes 107 characters; "/L2VPN.sock" are 11 of them.
    const std::string fits = "/" + std::string(95, 'd');
    EXPECT_EQ(run(PROBE, {"path", "L2VPN", "200"}, {"L2VPN_RUNTIME_DIR=" + fits}).out,
              "0 " + fits + "/L2VPN.sock\n");
    EXPECT_EQ(run(PROBE, {"path", "L2VPN", "200"}, {"L2VPN_RUNTIME_DIR=" + fits + "d"}).out,
              number(ENAMETOOLONG) + " \n");
}

TEST(runtime_dir, is_made_for_its_owner_and_group)
{
    const temp_dir place;
    const std::string made = place.file("run");
    EXPECT_EQ(run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + made}).out, "0 \n");
    struct stat found {};
    ASSERT_EQ(::stat(made.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07, 0U);
    EXPECT_EQ(run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + made}).out, "0 \n") << "the second time";
}

TEST(runtime_dir, that_cannot_be_made_says_why)
{
    const temp_dir place;
    const auto result = run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + place.file("no/run")});
    EXPECT_THAT(result.out, StartsWith(number(ENOENT) + " " + place.file("no/run") + ": "));
}

TEST(runtime_dir, that_is_a_file_is_refused)
{
    const temp_dir place;
    const std::string file = place.file("file");
    ::close(::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    EXPECT_EQ(run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + file}).out,
              number(ENOTDIR) + " " + file + ": not a directory\n");
}

TEST(runtime_dir, that_anybody_may_write_to_is_refused)
{
    const temp_dir place;
    ASSERT_EQ(::chmod(place.path().c_str(), 0777), 0);
    EXPECT_EQ(run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + place.path()}).out,
              number(EPERM) + " " + place.path() + ": anybody may write to it\n");
}

/* Needs a user to give a directory to; without the right to do so the refusal has nothing to refuse, and
 * the directory is our own. */
TEST(runtime_dir, that_belongs_to_another_user_is_refused)
{
    const temp_dir place;
    const bool given_away = ::chown(place.path().c_str(), nobody, static_cast<gid_t>(-1)) == 0;
    const auto result = run(PROBE, {"runtime-dir"}, {"L2VPN_RUNTIME_DIR=" + place.path()});
    EXPECT_THAT(result.out, StartsWith(number(given_away ? EPERM : EOK) + " "));
}

} // namespace
