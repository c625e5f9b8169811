/*
 * The process is killed, again and again, at instants that nothing chooses and at every so many system calls,
 * while its owners create, update, delete and map VLANs. It keeps nothing over its end; what the next one holds
 * is what the owners say anew, and that must be all of what they intend and nothing else.
 */
#include "fleet_test.h"

using namespace kill_test;
using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

class process_killed : public fleet_test {
protected:
    /* Starts it; from its first instruction until it holds everything takes `m_span`. */
    void start_and_compare()
    {
        const auto since = steady_clock::now();
        ASSERT_NO_FATAL_FAILURE(start());
        m_fleet.change(false);
        ASSERT_TRUE(eventually([&] { return m_fleet.settled(); })) << m_daemon->err();
        m_span = std::chrono::duration_cast<microseconds>(steady_clock::now() - since);
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
        m_fleet.change(true);
    }

    void expect_something_was_intended()
    {
        for (owner &each : m_fleet.owners())
            EXPECT_FALSE(each.intends().acs.empty()) << "class " << each.class_id();
        EXPECT_FALSE(m_fleet.owners().front().intends().vlans.empty());
    }

    microseconds m_span{0};
};

TEST_F(process_killed, at_random_instants)
{
    ASSERT_NO_FATAL_FAILURE(start_and_compare());
    for (unsigned long kill = 0; kill < kills(); kill += 2) {
        SCOPED_TRACE("kill " + std::to_string(kill) + ", L2VPN_KILL_SEED=" + std::to_string(seed()));
        /* Anywhere in its work, */
        let_pass(m_span / 2);
        kill_it();
        /* anywhere from its start on, */
        {
            child victim(binary("l2vpnd"), daemon_arguments());
            let_pass(m_span);
            victim.send_signal(SIGKILL);
            ASSERT_EQ(victim.wait(), -SIGKILL) << victim.err();
        }
        ASSERT_NO_FATAL_FAILURE(start_and_compare());
    }
    expect_something_was_intended();
}

/* From its first call on, and from the first behind the line that says that it is ready, when owners come. */
TEST_F(process_killed, at_every_nth_system_call)
{
    constexpr unsigned long calls = 650;
    const unsigned long kills_a_kind = kills() / 8;
    const unsigned long stride = std::max(calls / kills_a_kind, 1UL);
    ASSERT_NO_FATAL_FAILURE(start_and_compare());
    for (unsigned long kill = 0; kill < kills_a_kind; ++kill) {
        for (const std::string kind : {"all", "behind-output"}) {
            const unsigned long call = kill * stride + 1 + m_random() % stride;
            SCOPED_TRACE("call " + std::to_string(call) + " of " + kind +
                         ", L2VPN_KILL_SEED=" + std::to_string(seed()));
            kill_it();
            std::vector<std::string> arguments = {std::to_string(call), kind, binary("l2vpnd")};
            const std::vector<std::string> of_daemon = daemon_arguments();
            arguments.insert(arguments.end(), of_daemon.begin(), of_daemon.end());
            const system_test::result killed = system_test::run(L2VPN_KILL_AT_CALL, arguments);
            ASSERT_EQ(killed.status, 0) << killed.err;
            EXPECT_TRUE(kind == "all" || killed.out.starts_with("l2vpnd: ready on ")) << killed.out;
            ASSERT_NO_FATAL_FAILURE(start_and_compare());
        }
    }
    expect_something_was_intended();
}

} // namespace
