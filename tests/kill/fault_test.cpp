/*
 * An owner connects, hands over, changes, deletes, maps VLANs and is told what was provisioned; in each run one
 * socket call fails, the next one in each, in the owner's process or in l2vpnd, until there is no such call.
 * Whatever happened, the process then holds what the owner intends, once, and the owner knows what was
 * provisioned; and l2vpnd lives.
 */
#include "faults.h"
#include "fleet_test.h"

#include <cerrno>
#include <cstring>

using namespace kill_test;
using std::chrono::steady_clock;

namespace {

constexpr uint32_t owned_class = 2;

class faulty_calls : public testing::TestWithParam<int> {
protected:
    static void SetUpTestSuite()
    {
        s_dir = new system_test::temp_dir;
        configure(s_dir->path());
    }
    static void TearDownTestSuite() { delete std::exchange(s_dir, nullptr); }

    void SetUp() override
    {
        const std::string plan = s_dir->file("plan");
        m_daemon_plan = map_plan(plan.c_str());
        m_daemon = std::make_unique<child>(
            L2VPN_FAULTY_DAEMON, std::vector<std::string>{"--runtime-dir", s_dir->path(), "--auto-provision"},
            std::vector<std::string>{std::string(plan_variable) + "=" + plan});
        ASSERT_TRUE(m_daemon->says("l2vpnd: ready on ")) << m_daemon->err();
        m_control = std::make_unique<process_test::raw_control>(s_dir->file("L2VPN.ctl"));
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

    /* The owner's life. Says everything anew as soon as it is told to, like any owner. */
    void live(owner &one)
    {
        const auto settle = [&] {
            return until([&] {
                one.step(false);
                return one.settled();
            });
        };
        ASSERT_TRUE(settle()) << "it is not told UP";
        one.create(30);
        one.update();
        ASSERT_TRUE(settle());
        one.remove();
        one.create(5);
        one.map_vlans();
        ASSERT_TRUE(settle());
        ASSERT_TRUE(until([&] {
            one.step(false);
            return one.settled() && one.knows_all_provisioned();
        })) << "something provisioned is not told";
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
        ASSERT_TRUE(same) << text << m_daemon->err();
    }

    /* Fails the first call, the second, and so on. */
    void fail_each(fault_plan &plan)
    {
        int calls = 0;
        for (bool reached = true; reached; ++calls) {
            SCOPED_TRACE(std::string(strerror(GetParam())) + " at call " + std::to_string(calls + 1));
            std::list<owner> owners;
            owners.emplace_back(owned_class);
            plan.arm(GetParam(), calls + 1);
            if (!owners.front().connect(event_manager())) {
                plan.disarm(); /* the platform could not be set up, which is told at once */
                ASSERT_TRUE(plan.fired);
                continue;
            }
            live(owners.front());
            plan.disarm();
            reached = plan.fired;
            ASSERT_FALSE(HasFatalFailure());
            ASSERT_NO_FATAL_FAILURE(expect_all_well(owners));
            ASSERT_EQ(owners.front().disconnect(), 0u);
            owners.clear();
            ASSERT_TRUE(m_daemon->running()) << m_daemon->err();
            ASSERT_TRUE(eventually([&] { return difference(owners, *m_control).empty(); }));
        }
        RecordProperty("calls", calls - 1);
        EXPECT_GT(calls, 10) << "the owner's life has more calls than these";
    }

    static system_test::temp_dir *s_dir;
    std::unique_ptr<child> m_daemon;
    std::unique_ptr<process_test::raw_control> m_control;
    fault_plan *m_daemon_plan = nullptr;
};

system_test::temp_dir *faulty_calls::s_dir;

TEST_P(faulty_calls, of_an_owner_lose_nothing)
{
    fail_each(own_plan());
}

TEST_P(faulty_calls, of_the_process_lose_nothing)
{
    fail_each(*m_daemon_plan);
}

INSTANTIATE_TEST_SUITE_P(each, faulty_calls, testing::Values(EINTR, EAGAIN, EPIPE, ENOBUFS),
                         [](const auto &of) { return std::string(strerrorname_np(of.param)); });

} // namespace
