/*
 * l2vpnd while its start fails, and the connections of its control socket while they do: one call, the next
 * one in each run, once or from there on.
 */
#include "fault_test.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kill_test;
using process_test::json;

namespace {

const std::set<std::string> nothing;

class faulty : public testing::TestWithParam<failure> {
protected:
    void SetUp() override { m_plan->disarm(); }

    /* Begins one, and waits until it is ready or has ended. */
    std::unique_ptr<faulty_daemon> begin()
    {
        auto daemon = std::make_unique<faulty_daemon>(m_dir.path(), m_plan_file);
        EXPECT_TRUE(eventually([&] { return daemon->is_ready() || !daemon->program.running(); }))
            << "it hangs";
        return daemon;
    }

    static bool answers(process_test::raw_control &control, const std::string &verb)
    {
        control.send(R"({"verb":")" + verb + "\"}\n");
        const json end = control.answer();
        return end.is_object() && end.value("ok", false);
    }

    /* A daemon that is ready does what it is for, and leaves nothing when it ends. */
    void expect_works(faulty_daemon &daemon) const
    {
        process_test::raw_control control(m_dir.file("L2VPN.ctl"));
        EXPECT_TRUE(answers(control, "status")) << daemon.program.err();
        const process_test::raw_peer owner(m_dir.file("L2VPN.sock"), 4);
        daemon.program.send_signal(SIGTERM);
        EXPECT_EQ(daemon.program.wait(), 0) << daemon.program.err();
        EXPECT_EQ(left_behind(), nothing);
    }

    /* But for the ring of its messages, which is there to be looked at afterwards. */
    std::set<std::string> left_behind() const
    {
        std::set<std::string> names;
        for (const auto &file : std::filesystem::directory_iterator(m_dir.path()))
            if (file.path() != m_plan_file && file.path().extension() != ".ring")
                names.insert(file.path().filename());
        return names;
    }

    system_test::temp_dir m_dir;
    std::string m_plan_file = m_dir.file("plan");
    fault_plan *m_plan = map_plan(m_plan_file.c_str());
    injected m_all;
};

class faulty_start : public faulty {
protected:
    void SetUp() override
    {
        faulty::SetUp();
        const auto killed = begin();
        killed->program.send_signal(SIGKILL);
        ASSERT_EQ(killed->program.wait(), -SIGKILL);
        const std::set<std::string> left = left_behind();
        remove_files();
        leave_files();
        ASSERT_EQ(left_behind(), left);
        remove_files();
    }

    void remove_files() const
    {
        for (const std::string &name : left_behind())
            std::filesystem::remove(m_dir.file(name));
    }

    /* Those of a process that was killed. */
    void leave_files() const
    {
        leave_socket("L2VPN.sock", SOCK_SEQPACKET);
        leave_socket("L2VPN.ctl", SOCK_STREAM);
        (void)m_dir.write("L2VPN.sock.lock", "");
    }

    void leave_socket(const std::string &name, int type) const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_dir.file(name).copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << name;
        EXPECT_EQ(listen(fd, 1), 0);
        close(fd);
    }

    /* One start, with a failure from the `first` call on. Returns how many calls it has come to. */
    int fail_from(int first, bool stale)
    {
        SCOPED_TRACE(name_of(GetParam()) + " at call " + std::to_string(first));
        remove_files();
        if (stale)
            leave_files();
        m_plan->arm(GetParam().error, first, GetParam().lasting);
        const auto daemon = begin();
        const int calls = m_plan->calls_until(first);
        m_plan->disarm();
        m_all.add(*m_plan);
        if (daemon->is_ready()) {
            EXPECT_NO_THROW(expect_works(*daemon));
            return calls;
        }
        EXPECT_GT(daemon->program.wait(), 0);
        EXPECT_TRUE(process_test::is_one_line(daemon->program.err()));
        EXPECT_TRUE(daemon->program.err().starts_with("l2vpnd: ")) << daemon->program.err();
        /* Who could not lock the lock file does not know whose it is. */
        const bool not_locked = m_plan->failed[static_cast<size_t>(call::flock)] > 0;
        const std::set<std::string> left = left_behind();
        EXPECT_TRUE(stale || left == (not_locked ? std::set<std::string>{"L2VPN.sock.lock"} : nothing))
            << testing::PrintToString(left);
        /* What is left does not hinder the next one; often it is the same. */
        if (m_started_over.insert(left).second) {
            const auto next = begin();
            EXPECT_TRUE(next->is_ready()) << next->program.err();
            EXPECT_NO_THROW(expect_works(*next));
        }
        return calls;
    }

    void fail_each(bool stale, std::initializer_list<call> expected)
    {
        fail_in_turn([&](int first) { return fail_from(first, stale); });
        EXPECT_EQ(m_all.missing(expected, GetParam().error), "") << "never failed";
    }

    std::set<std::set<std::string>> m_started_over;
};

/* It starts and works, or ends with a line that says why; the next one is not hindered. */
TEST_P(faulty_start, ends_in_one_line_or_works)
{
    fail_each(false, {call::socket, call::bind, call::listen, call::epoll_create1, call::epoll_ctl,
                      call::eventfd, call::timerfd_create, call::signalfd, call::open, call::flock});
}

TEST_P(faulty_start, over_the_files_of_one_that_was_killed_ends_in_one_line_or_works)
{
    fail_each(true, {call::connect, call::socket, call::bind, call::listen, call::open, call::flock});
}

INSTANTIATE_TEST_SUITE_P(each, faulty_start, testing::ValuesIn(failures),
                         [](const auto &of) { return name_of(of.param); });

/* A connection is answered whole, or it ends; the next one is answered. */
class faulty_control : public faulty {
protected:
    /* Two requests, with a failure from the `first` call on. Returns how many calls it has come to. */
    int fail_from(int first, call only)
    {
        SCOPED_TRACE(name_of(GetParam()) + " at call " + std::to_string(first));
        m_plan->arm(GetParam().error, first, GetParam().lasting, only);
        process_test::raw_control control(m_dir.file("L2VPN.ctl"));
        control.send("{\"id\":1,\"verb\":\"status\"}\n{\"id\":2,\"verb\":\"show counters\"}\n");
        const auto goes_on = [&] {
            return control.readable() || (GetParam().lasting && m_plan->all_failed() >= 2);
        };
        EXPECT_TRUE(eventually(goes_on)) << "it hangs";
        const int calls = m_plan->calls_until(first);
        m_plan->disarm();
        for (int id = 1; id <= 2; ++id) {
            const json end = control.answer();
            const bool whole = end.is_object() && end.value("ok", false) && end["id"] == id;
            EXPECT_TRUE(whole || control.ended()) << end;
        }
        hang_up(control);
        m_all.add(*m_plan);
        process_test::raw_control next(m_dir.file("L2VPN.ctl"));
        EXPECT_TRUE(answers(next, "status"));
        hang_up(next);
        return calls;
    }

private:
    /* Has the other end read all and hung up, so that nothing of this connection counts for the next one. */
    static void hang_up(process_test::raw_control &control)
    {
        control.end_sending();
        EXPECT_TRUE(control.ended());
    }
};

/* The first call of each function, and the first of all, the second, and so on, whose order is chance. */
TEST_P(faulty_control, connections_are_answered_or_ended)
{
    const auto calls = {call::accept4, call::recv, call::send, call::epoll_ctl, call::epoll_wait, call::read};
    const auto daemon = begin();
    ASSERT_TRUE(daemon->is_ready()) << daemon->program.err();
    for (const call which : calls)
        if (can_fail(which, GetParam().error) && !HasFailure())
            fail_from(1, which);
    fail_in_turn([&](int first) { return fail_from(first, call::count_); });
    EXPECT_EQ(m_all.missing(calls, GetParam().error), "") << "never failed";
    ASSERT_FALSE(HasFailure()) << daemon->program.err();
    expect_works(*daemon);
}

INSTANTIATE_TEST_SUITE_P(each, faulty_control, testing::ValuesIn(failures),
                         [](const auto &of) { return name_of(of.param); });

} // namespace
