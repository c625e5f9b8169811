/*
 * What else happens to processes that live long: an owner dies half-way through its inventory, somebody stops
 * reading, the socket's file is taken away. Everybody else goes on as if nothing were, and who was hit comes
 * back to what is intended.
 */
#include "fleet_test.h"

#include <algorithm>
#include <filesystem>

using namespace kill_test;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t inventory_class = 3;
constexpr int inventory_size = 3000;

class in_trouble : public fleet_test {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(start());
        m_fleet.change(true);
    }

    json ask(const std::string &request)
    {
        m_control->send(request + "\n");
        return m_control->answer()["result"];
    }

    uint64_t counted(const char *group, const char *what)
    {
        return ask(R"({"verb":"show counters"})")[group][what].get<uint64_t>();
    }

    uint64_t inventory_held()
    {
        return ask(R"({"verb":"show acs","args":{"class":3}})")["acs"].get<uint64_t>();
    }

    std::vector<std::string> owner_command(std::vector<std::string> before)
    {
        if (!fs::exists(m_dir.file("inventory.csv"))) {
            std::string lines = "name,class,handle,mtu\n";
            for (int handle = 1; handle <= inventory_size; ++handle)
                lines += "port-" + std::to_string(handle) + ",3," + std::to_string(handle) + ",1500\n";
            m_dir.write("inventory.csv", lines);
        }
        before.insert(before.end(), {"-i", m_dir.file("inventory.csv"), "--runtime-dir", m_dir.path()});
        return before;
    }

    /* Nobody's ACs but those of the owners of this process, and no batch that goes on without its owner. */
    void expect_all_withdrawn()
    {
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
        EXPECT_TRUE(eventually([&] { return ask(R"({"verb":"show batches"})")["open"] == 0; }))
            << "a batch goes on without its owner";
        m_fleet.change(true);
    }

    /* How often each owner was told DOWN. */
    std::vector<uint32_t> downs()
    {
        std::vector<uint32_t> all;
        for (const owner &each : m_fleet.owners())
            all.push_back(each.downs());
        return all;
    }
    bool all_went_down_since(const std::vector<uint32_t> &before)
    {
        return eventually([&] { return std::ranges::equal(before, downs(), std::less()); });
    }
};

TEST_F(in_trouble, an_owner_killed_in_mid_bulk_leaves_nothing_behind)
{
    /* Its first two messages open the link and join; some 30 carry the inventory. */
    for (int message = 1; message <= 31; message += 3) {
        SCOPED_TRACE("message " + std::to_string(message));
        const auto killed = system_test::run(
            L2VPN_KILL_AT_CALL,
            owner_command({std::to_string(message), "sendmsg", binary("l2vpn-owner"), "--once"}));
        ASSERT_EQ(killed.status, 0) << killed.out << killed.err;
        ASSERT_NO_FATAL_FAILURE(expect_all_withdrawn());
    }
    EXPECT_GT(counted("acs", "withdrawn"), 0u);
    EXPECT_GT(counted("batches", "abandoned"), 0u) << "no bulk was under way when its owner died";
    child whole(binary("l2vpn-owner"), owner_command({}));
    EXPECT_TRUE(eventually([&] { return inventory_held() == inventory_size; })) << whole.err();
    ASSERT_NO_FATAL_FAILURE(expect_what_is_intended({inventory_class}));
}

TEST_F(in_trouble, an_owner_killed_at_random_instants_leaves_nothing_behind)
{
    /* From its start until all is held, and half as long again. */
    const auto since = std::chrono::steady_clock::now();
    {
        child whole(binary("l2vpn-owner"), owner_command({}));
        ASSERT_TRUE(eventually([&] { return inventory_held() == inventory_size; })) << whole.err();
    }
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(
        (std::chrono::steady_clock::now() - since) * 3 / 2);
    ASSERT_NO_FATAL_FAILURE(expect_all_withdrawn());

    /* One that has certainly handed something over: chance may spare all of the others. */
    const uint64_t withdrawn = counted("acs", "withdrawn");
    {
        child victim(binary("l2vpn-owner"), owner_command({}));
        ASSERT_TRUE(eventually([&] { return inventory_held() > 0; })) << victim.err();
        victim.send_signal(SIGKILL);
        ASSERT_EQ(victim.wait(), -SIGKILL) << victim.err();
        ASSERT_NO_FATAL_FAILURE(expect_all_withdrawn());
    }
    EXPECT_GT(counted("acs", "withdrawn"), withdrawn);

    for (unsigned long kill = 0; kill < kills() / 10; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill) + ", L2VPN_KILL_SEED=" + std::to_string(seed()));
        child victim(binary("l2vpn-owner"), owner_command({}));
        let_pass(span);
        victim.send_signal(SIGKILL);
        ASSERT_EQ(victim.wait(), -SIGKILL) << victim.err();
        ASSERT_NO_FATAL_FAILURE(expect_all_withdrawn());
    }
}

/* Whoever still has a message for it waits for so long and no longer, and what was lost is said anew. */
TEST_F(in_trouble, a_process_that_stops_reading_gets_everything_when_it_goes_on)
{
    for (int stop = 0; stop < 2; ++stop) {
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
        m_fleet.change(true);
        const auto before = downs();
        m_daemon->send_signal(SIGSTOP);
        const bool told = eventually([&] {
            for (owner &each : m_fleet.owners())
                each.map_vlans();
            return std::ranges::equal(before, downs(), std::less());
        });
        m_daemon->send_signal(SIGCONT);
        ASSERT_TRUE(told) << "an owner goes on sending to a process that reads nothing";
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
    }
}

TEST_F(in_trouble, an_owner_that_stops_reading_disturbs_nobody)
{
    child lazy(binary("l2vpn-owner"), owner_command({}));
    ASSERT_TRUE(eventually([&] { return inventory_held() == inventory_size; })) << lazy.err();
    lazy.send_signal(SIGSTOP);
    /* Until its socket, and what the process keeps for it, are full. */
    ASSERT_TRUE(eventually([&] {
        const json told = ask(R"({"verb":"provision","args":{"class":3}})");
        ask(R"({"verb":"unprovision","args":{"class":3}})");
        return told["waiting"] > 0;
    }));
    m_fleet.change(true);
    ASSERT_NO_FATAL_FAILURE(expect_what_is_intended({inventory_class})) << "the others go on";
    EXPECT_EQ(inventory_held(), inventory_size);
    lazy.send_signal(SIGCONT);
    EXPECT_TRUE(eventually([&] {
        return ask(R"({"verb":"show acs","args":{"class":3,"state":"created"}})")["acs"] == inventory_size;
    }));
    lazy.send_signal(SIGTERM);
    EXPECT_EQ(lazy.wait(), 0) << lazy.err();
    ASSERT_NO_FATAL_FAILURE(expect_all_withdrawn());
}

/* Whoever removed them, another process can take the place; the owners move when theirs has ended. */
TEST_F(in_trouble, files_removed_and_made_anew_by_another_process_are_found)
{
    for (const int signal : {SIGKILL, SIGTERM}) {
        SCOPED_TRACE(strsignal(signal));
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
        m_fleet.change(true);
        const std::unique_ptr<child> first = std::move(m_daemon);
        for (const char *name : {"L2VPN.sock", "L2VPN.sock.lock", "L2VPN.ctl"})
            EXPECT_TRUE(fs::remove(m_dir.file(name))) << name;
        ASSERT_NO_FATAL_FAILURE(start());
        const auto before = downs();
        first->send_signal(signal);
        EXPECT_EQ(first->wait(), signal == SIGTERM ? 0 : -signal) << first->err();
        ASSERT_TRUE(all_went_down_since(before));
        ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
        for (const char *name : {"L2VPN.sock", "L2VPN.sock.lock", "L2VPN.ctl"})
            EXPECT_TRUE(fs::exists(m_dir.file(name))) << name << " of the second process is gone";
    }
}

TEST_F(in_trouble, a_directory_removed_and_made_anew_is_found)
{
    ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
    m_fleet.change(true);
    kill_it();
    fs::remove_all(m_dir.path());
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_NO_FATAL_FAILURE(expect_what_is_intended());
}

} // namespace
