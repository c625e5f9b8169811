/*
 * An owner connects, hands over, changes, deletes, maps VLANs and is told what was provisioned; in each run one
 * call fails, the next one in each, in the owner's process or in l2vpnd, once or from there on, until there is
 * no such call. Whatever happened, when nothing fails any more the process comes to hold what the owner
 * intends, once, and the owner knows what was provisioned; and l2vpnd lives.
 */
#include "fault_test.h"
#include "fleet_test.h"

using namespace kill_test;
using std::chrono::steady_clock;

namespace {

constexpr uint32_t owned_class = 2;

/* The platform reads its configuration once, so there is one directory for all tests. */
const system_test::temp_dir &directory()
{
    static const system_test::temp_dir dir;
    return dir;
}

class faulty_calls : public testing::Test {
protected:
    void SetUp() override
    {
        configure(directory().path());
        setenv("L2VPN_MTU", "2048", 1); /* several messages for little that is to be compared */
        setenv("L2VPN_LOG", "stderr", 1);
        setenv("L2VPN_CAPTURE", "off", 1); /* calls of the links are to fail; a ring's are nobody's trouble */
        ASSERT_NE(event_manager(), nullptr);
        const std::string plan = directory().file("plan");
        m_daemon_plan = map_plan(plan.c_str());
        m_daemon_plan->disarm();
        m_daemon = std::make_unique<faulty_daemon>(directory().path(), plan);
        ASSERT_TRUE(m_daemon->program.says("l2vpnd: ready on ")) << m_daemon->program.err();
        m_control = std::make_unique<process_test::raw_control>(directory().file("L2VPN.ctl"));
    }

    /* Does what events there are until the condition holds. */
    static bool until(const std::function<bool()> &condition)
    {
        const auto deadline = steady_clock::now() + system_test::patience;
        while (!condition()) {
            if (steady_clock::now() > deadline)
                return false;
            event_mgr_dispatch(event_manager(), 10);
        }
        return true;
    }

    std::unique_ptr<faulty_daemon> m_daemon;
    std::unique_ptr<process_test::raw_control> m_control;
    fault_plan *m_daemon_plan = nullptr;
};

/* The library is set up once in a program's life, however often that has failed before. */
TEST_F(faulty_calls, of_the_set_up_are_told_at_once_and_it_can_be_repeated)
{
    injected all;
    for (int calls = 1;; ++calls) {
        SCOPED_TRACE(calls);
        owner one(owned_class);
        own_plan().arm(ENOMEM, calls, false);
        const bool connected = one.connect(event_manager());
        own_plan().disarm();
        all.add(own_plan());
        if (connected) {
            EXPECT_EQ(one.disconnect(), 0u);
            break;
        }
        ASSERT_EQ(own_plan().all_failed(), 1);
    }
    EXPECT_EQ(all.missing({call::epoll_create1, call::timerfd_create, call::socket, call::epoll_ctl}, ENOMEM),
              "");
}

/* Or it would be waited for an answer that nobody sees. */
TEST_F(faulty_calls, to_watch_a_link_are_told_and_the_link_is_tried_again)
{
    owner one(owned_class);
    ASSERT_TRUE(one.connect(event_manager()));
    testing::internal::CaptureStderr();
    own_plan().arm(ENOMEM, 1, false, call::epoll_ctl);
    EXPECT_TRUE(until([&] { return one.up(); }));
    EXPECT_EQ(own_plan().all_failed(), 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("the link cannot be watched: "), std::string::npos);
    EXPECT_EQ(one.disconnect(), 0u);
}

class each_faulty_call : public faulty_calls, public testing::WithParamInterface<failure> {
protected:
    /* The owner's life. Says everything anew as soon as it is told to, like any owner. Where calls go on
     * failing, one is enough to go on by. */
    void live(owner &one, const fault_plan &plan)
    {
        const auto settle = [&](const std::function<bool()> &more) {
            const int before = plan.all_failed();
            return until([&] {
                one.step(false);
                return (one.settled() && more()) || (GetParam().lasting && plan.all_failed() > before);
            });
        };
        const auto at_all = [] { return true; };
        ASSERT_TRUE(settle(at_all)) << "it is not told UP";
        one.create(12);
        one.update();
        ASSERT_TRUE(settle(at_all));
        one.remove();
        one.create(5);
        one.map_vlans(1100, 1200); /* three messages */
        ASSERT_TRUE(settle([&] { return one.knows_all_provisioned(); }))
            << "something provisioned is not told";
    }

    void expect_all_well(std::list<owner> &owners)
    {
        std::string text = "not settled";
        const bool same = until([&] {
            owners.front().step(false);
            if (owners.front().settled() && owners.front().knows_all_provisioned())
                text = difference(owners, *m_control);
            return text.empty();
        });
        ASSERT_TRUE(same) << text << m_daemon->program.err();
    }

    /* One owner's life with a failure from the `first` call on. Returns how many calls it has come to. */
    int fail_from(fault_plan &plan, int first, call only)
    {
        SCOPED_TRACE(name_of(GetParam()) + " at call " + std::to_string(first) +
                     (only != call::count_ ? std::string(" of ") + name_of(only) : ""));
        std::list<owner> owners;
        owners.emplace_back(owned_class);
        plan.arm(GetParam().error, first, GetParam().lasting, only);
        const bool connected = owners.front().connect(event_manager());
        if (connected)
            live(owners.front(), plan);
        const int calls = plan.calls_until(first);
        plan.disarm();
        m_all.add(plan);
        if (!connected) { /* the platform could not be set up, which is told at once */
            EXPECT_GT(plan.all_failed(), 0);
            return calls;
        }
        if (!HasFatalFailure())
            expect_all_well(owners);
        EXPECT_EQ(owners.front().disconnect(), 0u);
        owners.clear();
        EXPECT_TRUE(m_daemon->program.running()) << m_daemon->program.err();
        EXPECT_TRUE(eventually([&] { return difference(owners, *m_control).empty(); }));
        return calls;
    }

    /* The first call of each function. Then, once: the first call of all, the second, and so on; how they follow
     * each other is chance. Waiting, and reading what has come, which have no end, ten times. Lasting: what goes
     * through a link also in the middle of its life, in which so many messages are sent at the least. */
    void fail_each(fault_plan &plan, int sends, std::initializer_list<call> expected)
    {
        for (const call which : expected)
            if (can_fail(which, GetParam().error) && !HasFailure())
                fail_from(plan, 1, which);
        if (GetParam().lasting) {
            for (const auto &[which, first] : {std::pair(call::sendmsg, sends), {call::recvmsg, 4}}) {
                if (can_fail(which, GetParam().error) && !HasFailure()) {
                    EXPECT_EQ(fail_from(plan, first, which), first) << "not so many of " << name_of(which);
                }
            }
        } else {
            fail_in_turn([&](int first) { return fail_from(plan, first, call::count_); });
            for (const call which : {call::epoll_wait, call::read})
                for (int first = 2; can_fail(which, GetParam().error) && first <= 10 && !HasFailure();
                     ++first)
                    fail_from(plan, first, which);
        }
        EXPECT_EQ(m_all.missing(expected, GetParam().error), "") << "never failed";
    }

    injected m_all;
};

TEST_P(each_faulty_call, of_an_owner_lose_nothing)
{
    fail_each(own_plan(), 4,
              {call::socket, call::connect, call::sendmsg, call::recvmsg, call::getsockopt, call::setsockopt,
               call::epoll_wait, call::epoll_ctl, call::inotify_add_watch, call::read});
}

TEST_P(each_faulty_call, of_the_process_lose_nothing)
{
    fail_each(*m_daemon_plan, 2,
              {call::accept4, call::sendmsg, call::recvmsg, call::getsockopt, call::setsockopt,
               call::epoll_wait, call::epoll_ctl, call::read});
}

/* Lasting, EMFILE meets what ENOMEM meets. */
INSTANTIATE_TEST_SUITE_P(with, each_faulty_call, testing::ValuesIn(failures, std::end(failures) - 1),
                         [](const auto &of) { return name_of(of.param); });

} // namespace
