/*
 * The group of the control socket, where it cannot be found: told in one line, and nobody finds the socket open.
 */
#include "../../l2vpn/process/control_server.h"
#include "child.h"
#include "failing/calls.h"
#include "support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <platform/event_loop.h>

using namespace l2vpnd;
using namespace process_test;

namespace {

class control_group : public testing::Test {
protected:
    qerrno open() { return m_server.open({.path = m_path, .group = "no-such-group-here"}, &m_error); }
    void expect_told(const std::string &what, const std::string &why)
    {
        EXPECT_EQ(m_error, what + " the control socket " + m_path + ": " + why);
        struct stat about {};
        EXPECT_TRUE(stat(m_path.c_str(), &about) != 0 || (about.st_mode & 0777) == 0600);
    }

private:
    system_test::temp_dir m_dir;
    std::string m_path = m_dir.file("ctl");
    std::string m_error;
    std::unique_ptr<event_mgr, void (*)(event_mgr_p)> m_events{event_mgr_new(), event_mgr_free};
    bench m_bench;
    control_server m_server{m_events.get(), {m_bench.process, "service", m_path}, m_bench.log};
};

} // namespace

TEST_F(control_group, that_is_not_there_is_told)
{
    qerrno status = EOK;
    EXPECT_EQ(failing::fail_call("getgrnam_r", ENOENT, [&] { status = open(); }).cause, ENOENT);
    EXPECT_EQ(status, qerrno{ENOENT});
    expect_told("no such group for", "No such file or directory");
}

/* Which is not to say that there is none. */
TEST_F(control_group, that_cannot_be_looked_up_is_told_with_the_reason)
{
    qerrno status = EOK;
    EXPECT_EQ(failing::fail_call("getgrnam_r", EIO, [&] { status = open(); }).cause, EIO);
    EXPECT_EQ(status, qerrno{EIO});
    expect_told("cannot look up the group for", "Input/output error");
}
