/*
 * l2vpnd from outside: owners that come and go, what it holds, what it sends.
 */
#include "daemon.h"
#include "fields.h"

using namespace process_test;
using l2vpnd::get32;

TEST_F(daemon_test, shows_an_owner_and_its_acs_byte_for_byte)
{
    start();
    raw_peer owner = peer(6, 0x01020304);
    ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    ASSERT_TRUE(owner.send(create(6, {0x11121314, 0x15161718}, 3, "port-")));
    ASSERT_TRUE(holds(2));

    const json clients = ask({"show", "clients"})["clients"];
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_EQ(clients[0]["node"], 0x01020304);
    EXPECT_EQ(clients[0]["class"], 6);
    EXPECT_EQ(clients[0]["pid"], getpid());
    EXPECT_EQ(clients[0]["uid"], getuid());
    EXPECT_EQ(clients[0]["joins"], 1);
    EXPECT_EQ(clients[0]["acs"], 2);
    EXPECT_EQ(clients[0]["messages"], 2);

    const json held = acs();
    ASSERT_EQ(held.size(), 2U);
    const json &ac = held[1];
    EXPECT_EQ(ac["node"], 0x01020304);
    EXPECT_EQ(ac["class"], 6);
    EXPECT_EQ(ac["handle"], 0x15161718);
    EXPECT_EQ(ac["name"], "port-353769240");
    EXPECT_EQ(ac["state"], "created");
    EXPECT_EQ(ac["xcid"], 0);
    EXPECT_EQ(ac["definition_raw"], l2vpnd::to_hex(definition("port-353769240")));
    EXPECT_EQ(ac["info_raw"], l2vpnd::to_hex(pattern(200, 0x18)));
    EXPECT_EQ(ac["info"]["words"], json({0x18191a1b, 0x1c1d1e1f, 0x20212223, 0x24252627}));
    EXPECT_FALSE(ask({"show", "acs"})["acs"][0].contains("info_raw"));
}

TEST_F(daemon_test, chooses_acs)
{
    start();
    raw_peer two = peer(2, 1);
    raw_peer three = peer(3, 2);
    ASSERT_TRUE(two.send(create(2, {1, 2, 3}, 3, "port1/")));
    ASSERT_TRUE(three.send(create(3, {1, 2}, 3, "ring2/")));
    ASSERT_TRUE(holds(5));
    const auto count = [this](std::vector<std::string> choice) {
        choice.insert(choice.begin(), {"show", "acs"});
        return ask(choice)["acs"].size();
    };
    EXPECT_EQ(count({"--class", "2"}), 3U);
    EXPECT_EQ(count({"--class", "4"}), 0U);
    EXPECT_EQ(count({"--node", "0x2"}), 2U);
    EXPECT_EQ(count({"--name", "port*"}), 3U);
    EXPECT_EQ(count({"--name", "?ing2/2"}), 1U);
    EXPECT_EQ(count({"--handle", "1", "--handle", "2"}), 4U);
    EXPECT_EQ(count({"--handle", "1", "--class", "3", "--state", "created"}), 1U);
    EXPECT_EQ(count({"--state", "provisioned"}), 0U);
    EXPECT_EQ(count({"--owner", "2"}), 2U);
}

TEST_F(daemon_test, shows_hostile_names_as_plain_text)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1}, 3, "\x1b[2J\"\\\n\xff")));
    ASSERT_TRUE(holds(1));
    EXPECT_EQ(acs()[0]["name"], "\\x1b[2J\"\\\\\\x0a\\xff1");
    const std::string table = ctl({"show", "acs"}).out;
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
}

TEST_F(daemon_test, withdraws_the_acs_of_an_owner_that_goes)
{
    start({"--verbose"});
    raw_peer stays = peer(3, 1);
    raw_peer goes = peer(3, 2);
    ASSERT_TRUE(stays.send(create(3, {1})));
    ASSERT_TRUE(holds(1))
        << "its end must not come after the beginning of the other's batch: one client, one batch";
    ASSERT_TRUE(goes.send(create(3, handles_from(1, 50))));
    ASSERT_TRUE(goes.send(create(3, handles_from(100, 50), 0x1)));
    ASSERT_TRUE(holds(101));
    goes.close();
    ASSERT_TRUE(holds(1));
    EXPECT_EQ(acs()[0]["node"], 1);
    EXPECT_EQ(totals()["acs"]["withdrawn"], 100);
    EXPECT_EQ(totals()["batches"]["abandoned"], 1);
    EXPECT_NE(m_daemon->err().find("100 ACs withdrawn"), std::string::npos);
}

TEST_F(daemon_test, shows_open_batches)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1, 2}, 0x1)));
    ASSERT_TRUE(owner.send(header(9, 1, 0x1).u16(5).u16(100).bytes()));
    ASSERT_TRUE(owner.send(create(3, {3}, 0x0)));
    ASSERT_TRUE(holds(3));
    const json open = ask({"show", "batches"})["batches"];
    ASSERT_EQ(open.size(), 2U);
    EXPECT_EQ(open[0]["type"], "CREATE");
    EXPECT_EQ(open[0]["messages"], 2);
    EXPECT_EQ(open[0]["records"], 3);
    EXPECT_EQ(open[1]["type"], "VID_MAP");
    EXPECT_EQ(acs()[0]["state"], "batched");
    ASSERT_TRUE(owner.send(create(3, {4}, 0x2)));
    ASSERT_TRUE(holds(4));
    EXPECT_EQ(ask({"show", "batches"})["batches"].size(), 1U);
    EXPECT_EQ(acs()[0]["state"], "created");
}

TEST_F(daemon_test, takes_updates_and_deletes)
{
    start();
    raw_peer owner = peer(11);
    ASSERT_TRUE(owner.send(create(11, {1, 2, 3})));
    ASSERT_TRUE(owner.send(update(11, {2, 9}, 0x61)));
    ASSERT_TRUE(owner.send(remove({1, 8})));
    ASSERT_TRUE(holds(2));
    EXPECT_EQ(acs()[0]["handle"], 2);
    EXPECT_EQ(acs()[0]["info_raw"], l2vpnd::to_hex(pattern(24, 0x61)));
    const json counted = totals()["acs"];
    EXPECT_EQ(counted["updated"], 1);
    EXPECT_EQ(counted["unknown_updates"], 1);
    EXPECT_EQ(counted["deleted"], 1);
    EXPECT_EQ(counted["unknown_deletes"], 1);
}

TEST_F(daemon_test, holds_spanning_trees)
{
    start();
    raw_peer owner = peer(4, 9);
    ASSERT_TRUE(owner.send(header(14, 1, 3).u32(0x01020304).u16(5).u16(0x0607).bytes()));
    ASSERT_TRUE(owner.send(header(11, 1, 3).raw(pattern(96, 0x21)).bytes()));
    octets protection = definition("ring-1");
    protection.resize(72);
    ASSERT_TRUE(owner.send(header(12, 99, 0).raw(protection).bytes()));
    builder map = header(9, 4094, 3);
    for (uint16_t vlan = 1; vlan <= 4094; vlan++) {
        map.u16(static_cast<uint16_t>(vlan % 3)).u16(vlan);
    }
    ASSERT_TRUE(owner.send(map.bytes()));
    ASSERT_TRUE(eventually([this] { return ask({"show", "mstp"})["summary"]["vlans"] == 4094; }));

    const json shown = ask({"show", "mstp", "--raw"});
    EXPECT_EQ(shown["summary"], json({{"roots", 1}, {"states", 1}, {"protections", 1}, {"vlans", 4094}}));
    const json &rows = shown["mstp"];
    ASSERT_EQ(rows.size(), 4097U);
    EXPECT_EQ(rows[0]["kind"], "root");
    EXPECT_EQ(rows[0]["raw"], "0102030400050607");
    EXPECT_EQ(rows[0]["msti"], 5);
    EXPECT_EQ(rows[1]["kind"], "state");
    EXPECT_EQ(rows[1]["raw"], l2vpnd::to_hex(pattern(96, 0x21)));
    EXPECT_EQ(rows[2]["kind"], "protection");
    EXPECT_EQ(rows[2]["name"], "ring-1");
    EXPECT_EQ(rows[3],
              json({{"owner", 1}, {"node", 9}, {"class", 4}, {"kind", "vlan"}, {"vlan", 1}, {"msti", 1}}));
    EXPECT_EQ(rows[4096]["vlan"], 4094);
    EXPECT_EQ(ask({"show", "mstp", "--kind", "root"})["mstp"].size(), 1U);
    EXPECT_NE(ctl({"show", "mstp", "--kind", "vlan"}).out.find("1-"), 0U);

    owner.close();
    ASSERT_TRUE(eventually([this] { return ask({"show", "mstp"})["mstp"].empty(); }));
}

TEST_F(daemon_test, provisions_new_acs_by_itself)
{
    start({"--auto-provision"});
    raw_peer owner = peer(11);
    ASSERT_TRUE(owner.send(create(11, {0x11121314}, 0x1)));
    ASSERT_TRUE(owner.send(create(11, {}, 0x2)));
    const std::optional<octets> message = owner.receive();
    ASSERT_TRUE(message);
    const octets info = pattern(24, 0x14);
    octets tail(info.begin() + 16, info.end());
    tail.resize(39);
    EXPECT_EQ(*message, header(7, 1, 0)
                            .u32(0x11121314)
                            .u32(1)
                            .u32(0x0a0b0c0d)
                            .u32(0x11121314)
                            .raw(octets(info.begin(), info.begin() + 16))
                            .raw(tail)
                            .bytes());
    ASSERT_TRUE(eventually([this] { return acs()[0]["state"] == "provisioned"; }));
    EXPECT_EQ(acs()[0]["xcid"], 1);
}

TEST_F(daemon_test, provisions_and_unprovisions_on_command)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {1, 2, 3}, 3, "eth")));
    ASSERT_TRUE(holds(3));
    EXPECT_EQ(ask({"provision", "--name", "eth[12]"}),
              json({{"matched", 2}, {"accepted", 2}, {"skipped", 0}, {"refused", 0}, {"waiting", 0}}));
    std::optional<octets> message = owner.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->size(), 16 + 2 * 32U);
    EXPECT_EQ(get32(message->data() + 4), 7U);
    EXPECT_EQ(ask({"show", "acs", "--state", "provisioned"})["acs"].size(), 2U);

    EXPECT_EQ(ask({"unprovision", "--all"}),
              json({{"matched", 3}, {"accepted", 2}, {"skipped", 1}, {"refused", 0}, {"waiting", 0}}));
    message = owner.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(*message, header(8, 2, 0).u32(1).u32(2).bytes());
    EXPECT_EQ(ask({"show", "acs", "--state", "created"})["acs"].size(), 3U);
}

TEST_F(daemon_test, never_provisions_a_class_without_layout)
{
    start({"--auto-provision"});
    raw_peer seven = peer(7);
    raw_peer three = peer(3);
    ASSERT_TRUE(seven.send(create(7, {1, 2})));
    ASSERT_TRUE(three.send(create(3, {1})));
    ASSERT_TRUE(holds(3));
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"provision", "--class", "7"}, {"provision", "--owner", "1"}}) {
        const system_test::result refused = ctl(command);
        EXPECT_EQ(refused.status, 1);
        EXPECT_TRUE(is_one_line(refused.err));
        EXPECT_NE(refused.err.find("class 7 cannot be provisioned"), std::string::npos) << refused.err;
    }
    const json mixed = ask({"provision", "--all"});
    EXPECT_EQ(mixed["accepted"], 1);
    EXPECT_EQ(mixed["refused"], 2);
    /* Whatever the process sent before this notice would come before it. */
    ask({"notify", "header", "--owner", "1"});
    const std::optional<octets> first = seven.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(get32(first->data() + 4), 15U);
    EXPECT_EQ(ask({"show", "clients"})["clients"][0]["sent"], 1);
}

TEST_F(daemon_test, sends_notices_on_command)
{
    start();
    raw_peer owner = peer(3, 1);
    raw_peer other = peer(4, 2);
    EXPECT_EQ(
        ask({"notify", "bulk", "--class", "3", "--flags", "0x100", "--record",
             "word=0x01020304,half=0x0506,octets=0708,words=0x090a0b0c:0x0d0e0f10:0x11121314:0x15161718,"
             "opaque=191a1b1c,word2=0x1d1e1f20",
             "--record", "half=9"})["sent"],
        1);
    EXPECT_EQ(owner.receive(),
              header(13, 2, 0x100).raw(pattern(32, 1)).u32(0).u16(9).u16(0).raw(octets(24)).bytes());
    ask({"notify", "header", "--node", "1", "--word2", "0x21222324", "--word3", "0x25262728"});
    EXPECT_EQ(owner.receive(), header(15, 0x21222324, 0x25262728).bytes());
    EXPECT_EQ(ask({"notify", "flags", "--all", "--flags", "0x80000000"})["sent"], 2);
    EXPECT_EQ(owner.receive(), header(13, 0, 0x80000002).bytes());
    EXPECT_EQ(other.receive(), header(13, 0, 0x80000002).bytes()) << "and nothing before";
}

TEST_F(daemon_test, serves_a_table_larger_than_one_step)
{
    start();
    raw_peer owner = peer(0);
    for (uint32_t part = 0; part < 200; part++) {
        ASSERT_TRUE(owner.send(create(0, handles_from(1 + part * 100, 100))));
    }
    ASSERT_TRUE(holds(20000));
    const json document = ask({"show", "acs"});
    EXPECT_EQ(document["summary"]["acs"], 20000);
    std::set<uint32_t> handles;
    for (const json &ac : document["acs"]) {
        handles.insert(ac["handle"].get<uint32_t>());
    }
    EXPECT_EQ(handles.size(), 20000U);
    EXPECT_EQ(document["acs"].size(), 20000U);
}
