/*
 * Owners that do not behave: what they send is counted and dropped, the daemon lives, others are not disturbed.
 */
#include "daemon.h"

#include <random>
#include <sys/resource.h>

using namespace process_test;
using l2vpnd::get32;

namespace {

/* Room for many sockets in this process too. */
void raise_descriptor_limit(rlim_t wanted)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = wanted;
        ASSERT_LE(wanted, limit.rlim_max) << "this test needs more descriptors than it may have";
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
}

} // namespace

TEST_F(daemon_test, counts_every_kind_of_malformed_message)
{
    start();
    raw_peer good = peer(3, 1);
    raw_peer nine = peer(9);
    raw_peer bad = peer(3, 2);
    ASSERT_TRUE(good.send(create(3, {1, 2})));
    const struct {
        octets message;
        const char *reason;
    } rows[] = {
        {builder().u32(0x03000000).u32(2).u32(0).u32(0).bytes(), "mark"},
        {header(4, 0, 0).bytes(), "type"},
        {header(0x02000000, 0, 0).bytes(), "type"},
        {header(17, 0, 0).bytes(), "type"},
        {header(7, 0, 0).bytes(), "direction"},
        {header(15, 0, 0).bytes(), "direction"},
        {header(0, 0, 0).u32(0).bytes(), "length"},
        {header(2, 0xFFFFFFFF, 3).bytes(), "length"},
        {header(6, 0x40000000, 0x30).bytes(), "length"},
        {create(8, {1}), "length"},
        {create(3, {0}), "handle"},
        {remove({1, 0xFFFFFFFF}), "handle"},
        {header(12, 0, 0).bytes(), "length"},
    };
    std::map<std::string, uint64_t> expected;
    for (const auto &row : rows) {
        ASSERT_TRUE(bad.send(row.message));
        expected[row.reason]++;
    }
    ASSERT_TRUE(nine.send(create(9, {1})));
    expected["layout"]++;
    for (const auto &[reason, count] : expected) {
        EXPECT_TRUE(has_dropped(reason.c_str(), count)) << reason;
    }
    ASSERT_TRUE(good.send(create(3, {3})));
    ASSERT_TRUE(bad.send(create(3, {1})));
    ASSERT_TRUE(holds(4)) << "the links are still good, also that of the offender";
    EXPECT_NE(m_daemon->err().find("message of 16 bytes dropped: wrong mark in the header: "
                                   "03000000000000020000000000000000"),
              std::string::npos);
}

TEST_F(daemon_test, ends_the_link_of_a_peer_that_breaks_the_protocol)
{
    start();
    raw_peer good = peer(3);
    ASSERT_TRUE(good.send(create(3, {1})));
    raw_peer garbage(socket_path());
    ASSERT_TRUE(garbage.send(pattern(500, 1)));
    EXPECT_TRUE(garbage.ended());
    raw_peer another_version(socket_path());
    EXPECT_EQ(another_version.greet(3, 7, 65536, 99), static_cast<uint32_t>(EPROTONOSUPPORT));
    raw_peer short_message = peer(3, 2);
    ASSERT_TRUE(short_message.send(pattern(15, 1)));
    EXPECT_TRUE(short_message.ended());
    raw_peer long_message(socket_path(), 3, 3, 100);
    ASSERT_TRUE(long_message.send(pattern(101, 1)));
    EXPECT_TRUE(long_message.ended());
    ASSERT_TRUE(good.send(create(3, {2})));
    EXPECT_TRUE(holds(2));
}

TEST_F(daemon_test, takes_no_harm_from_messages_that_are_replayed)
{
    start();
    raw_peer other = peer(6);
    ASSERT_TRUE(other.send(create(6, {1})));
    raw_peer owner = peer(3);
    const octets creation = create(3, {1, 2}), change = update(3, {1}, 9), removal = remove({1});
    for (const octets &message : {creation, creation, change, removal, removal, change}) {
        ASSERT_TRUE(owner.send(message));
    }
    const auto counted = [this](const char *what, uint64_t count) {
        return eventually([&] { return totals()["acs"][what] == count; });
    };
    EXPECT_TRUE(counted("replaced", 2)) << "a creation that comes again is a creation";
    EXPECT_TRUE(counted("unknown_deletes", 1));
    EXPECT_TRUE(counted("unknown_updates", 1));
    {
        raw_peer stranger = peer(3); /* of the same class and node */
        ASSERT_TRUE(stranger.send(removal));
        ASSERT_TRUE(stranger.send(remove({2})));
        EXPECT_TRUE(counted("unknown_deletes", 3)) << "what is another's is left alone";
    }
    ASSERT_TRUE(
        owner.send(builder()
                       .raw({'L', '2', 'V', 'L', 0, 1, 0, 1, 0, 0, 0, 3, 0, 0, 0, 7, 0, 1, 0, 0, 0, 0, 0, 0})
                       .bytes()));
    EXPECT_TRUE(has_dropped("mark", 1)) << "a greeting opens a link once";
    EXPECT_TRUE(holds(2));
    ASSERT_TRUE(owner.send(create(3, {3})));
    ASSERT_TRUE(other.send(create(6, {2})));
    EXPECT_TRUE(holds(4)) << "all links are good";
    const std::string log = m_daemon->err();
    EXPECT_NE(log.find("update of AC 0x00000001, which it does not have"), std::string::npos) << log;
    EXPECT_NE(log.find("delete of AC 0x00000001, which it does not have"), std::string::npos) << log;
}

TEST_F(daemon_test, survives_messages_of_random_bytes)
{
    start();
    raw_peer good = peer(3, 1);
    raw_peer bad = peer(6, 2);
    std::mt19937 engine(7);
    const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
    for (int i = 0; i < 3000; i++) {
        octets message = header(random() % 18, random() % 4, random()).bytes();
        message.resize(16 + random() % 1000);
        std::generate(message.begin() + 16, message.end(), [&] { return static_cast<uint8_t>(random()); });
        ASSERT_TRUE(bad.send(message));
    }
    ASSERT_TRUE(eventually([this] {
        const json row = ask({"show", "clients"})["clients"][1];
        return row["messages"].get<int>() + row["dropped"].get<int>() == 3000;
    })) << "all of it was read";
    ASSERT_TRUE(good.send(create(3, {1})));
    EXPECT_TRUE(eventually([this] { return ask({"show", "acs", "--node", "1"})["acs"].size() == 1; }));
}

TEST_F(daemon_test, lets_no_flood_drown_an_owner_or_the_log)
{
    start();
    raw_peer flooder = peer(3, 1);
    raw_peer good = peer(3, 2);
    const octets junk = header(99, 0, 0).bytes();
    uint64_t sent = 0;
    for (uint32_t handle = 1; handle <= 20; handle++) {
        for (int i = 0; i < 1000; i++) {
            sent += flooder.try_send(junk) ? 1 : 0;
        }
        ASSERT_TRUE(good.send(create(3, {handle})));
    }
    EXPECT_TRUE(holds(20));
    EXPECT_GT(sent, 100U);
    EXPECT_TRUE(has_dropped("type", sent));
    const std::string log = m_daemon->err();
    EXPECT_LT(std::count(log.begin(), log.end(), '\n'), 1000);
    EXPECT_EQ(totals()["log"]["lost"], 0);
}

TEST_F(daemon_test, waits_for_an_owner_that_does_not_read)
{
    start({"--auto-provision"});
    raw_peer silent = peer(8, 1);
    raw_peer good = peer(3, 2);
    constexpr uint32_t acs_in_all = 20 * 300;
    for (uint32_t part = 0; part < 300; part++) {
        ASSERT_TRUE(silent.send(create(8, handles_from(1 + part * 20, 20))));
    }
    ASSERT_TRUE(holds(acs_in_all));
    ASSERT_TRUE(good.send(create(3, {1})));
    const std::optional<octets> quick = good.receive();
    ASSERT_TRUE(quick);
    EXPECT_EQ(get32(quick->data() + 4), 7U) << "the other owner is served at once";
    const json clients = ask({"show", "clients"})["clients"];
    EXPECT_GT(clients[0]["waiting"], acs_in_all / 2) << "little of it is in queues";
    EXPECT_EQ(clients[1]["waiting"], 0);

    uint32_t provisioned = 0;
    while (provisioned < acs_in_all) {
        const std::optional<octets> message = silent.receive();
        ASSERT_TRUE(message && !message->empty()) << provisioned;
        ASSERT_EQ(get32(message->data() + 4), 7U);
        ASSERT_EQ(get32(message->data() + 16), provisioned + 1) << "in order, none missing";
        provisioned += get32(message->data() + 8);
    }
    EXPECT_TRUE(eventually([this] { return ask({"show", "clients"})["clients"][0]["waiting"] == 0; }));
}

TEST_F(daemon_test, serves_a_thousand_owners_at_once)
{
    raise_descriptor_limit(1500);
    start();
    std::vector<raw_peer> owners;
    for (uint32_t i = 0; i < 1000; i++) {
        const uint32_t class_id = i % 15 == 9 ? 10 : i % 15;
        owners.push_back(peer(class_id, 1 + i));
        ASSERT_TRUE(owners.back().send(create(class_id, {1, 2, 3})));
    }
    ASSERT_TRUE(holds(3000));
    EXPECT_EQ(ask({"show", "clients"})["clients"].size(), 1000U);
    EXPECT_EQ(ask({"notify", "flags", "--all"})["sent"], 1000);
    EXPECT_EQ(owners[999].receive(), header(13, 0, 2).bytes());
    while (owners.size() > 500) {
        owners.pop_back();
    }
    EXPECT_TRUE(holds(1500));
    owners.clear();
    EXPECT_TRUE(holds(0));
    EXPECT_EQ(stop(), 0);
}

TEST_F(daemon_test, keeps_its_limits)
{
    start({"--max-acs", "10", "--max-mstp", "2"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, handles_from(1, 8))));
    ASSERT_TRUE(owner.send(create(3, handles_from(100, 3))));
    ASSERT_TRUE(owner.send(header(14, 3, 3).raw(pattern(24, 1)).bytes()));
    ASSERT_TRUE(has_dropped("limit", 2));
    EXPECT_TRUE(holds(8));
    EXPECT_EQ(ask({"status"})["mstp_records"], 0);
    ASSERT_TRUE(owner.send(create(3, handles_from(100, 2))));
    EXPECT_TRUE(holds(10));
}

TEST_F(daemon_test, serves_owners_while_an_operator_does_not_read)
{
    start();
    raw_peer owner = peer(0);
    for (uint32_t part = 0; part < 50; part++) {
        ASSERT_TRUE(owner.send(create(0, handles_from(1 + part * 100, 100))));
    }
    ASSERT_TRUE(holds(5000));
    raw_control lazy(control_path());
    lazy.send("{\"verb\":\"show acs\",\"args\":{\"raw\":true}}\n");
    ASSERT_TRUE(lazy.line().contains("rows")) << "the answer has begun, and now stands";
    ASSERT_TRUE(owner.send(create(0, {100000})));
    EXPECT_TRUE(holds(5001));
    json rows = json::array();
    EXPECT_EQ(lazy.answer(&rows)["ok"], true);
    EXPECT_GT(rows.size(), 4000U);
}
