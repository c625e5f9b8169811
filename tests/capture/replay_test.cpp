/*
 * l2vpnctl replay: the owners of a capture speak again, to a process of its own or to a running one.
 */
#include "replayed.h"

using namespace process_test;

namespace {

octets mstp(uint32_t type, uint32_t flags, const std::vector<octets> &records)
{
    builder message = header(type, static_cast<uint32_t>(records.size()), flags);
    for (const octets &record : records) {
        message.raw(record);
    }
    return message.bytes();
}

octets vlan(uint16_t msti, uint16_t id)
{
    return builder().u16(msti).u16(id).bytes();
}

octets by_handle(uint32_t handle, size_t size, uint8_t value)
{
    return builder().u32(handle).raw(octets(size - 4, value)).bytes();
}

octets protection(const std::string &name)
{
    octets bytes(name.begin(), name.end());
    bytes.resize(72, 0);
    return bytes;
}

} // namespace

TEST_F(replay, tables_are_the_same_after_everything_that_owners_say)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(8);
    const std::vector<octets> said = {
        header(0, 0, 0).bytes(),
        create(3, {0x11, 0x12, 0x13}, 1),
        create(3, {0x14}, 2),
        update(3, {0x12}, 9),
        remove({0x13}),
        header(99, 0, 0).bytes(), /* no message */
        create(3, {0x15, 0}, 3),  /* no handle */
        update(3, {0x99}, 1),     /* no such AC */
        mstp(9, 3, {vlan(1, 10), vlan(2, 20)}),
        mstp(9, 0, {vlan(3, 10)}),
        mstp(9, 1, {vlan(4, 40)}), /* of a batch that stays open */
        mstp(11, 3, {by_handle(0x11, 96, 1), by_handle(0x12, 96, 2)}),
        mstp(14, 3, {by_handle(0x11, 8, 1), by_handle(0x11, 8, 2)}),
        mstp(12, 0, {protection("east")}),
    };
    for (const octets &message : said) {
        ASSERT_TRUE(one.send(message));
    }
    ASSERT_TRUE(is_handled(said.size()));
    ASSERT_TRUE(other.send(create(8, {0x21, 0x22}, 1))); /* so is this one */
    ASSERT_TRUE(is_handled(said.size() + 1));
    ASSERT_EQ(ctl({"provision", "--handle", "0x11", "--handle", "0x12"}).status, 0);
    ASSERT_EQ(ctl({"unprovision", "--handle", "0x12"}).status, 0);
    ASSERT_TRUE(one.receive() && one.receive());
    const std::string shown = m_dir.write("acs.json", ctl({"show", "acs", "--raw", "--json"}).out);
    const std::string trees = m_dir.write("mstp.json", ctl({"show", "mstp", "--json"}).out);
    const std::string batches = m_dir.write("batches.json", ctl({"show", "batches", "--json"}).out);
    const std::string file = keep();

    expect_same(file, "19 records of 2 links replayed: 5 ACs, 7 spanning-tree records, 2 open batches\n");
    EXPECT_EQ(play({file, "--against", shown, "--against", trees, "--against", batches}).status, 0)
        << "what the process showed then is what the messages make again";
    const json document = told({file});
    EXPECT_EQ(document["same"], true);
    EXPECT_EQ(document["records"], 19);
    EXPECT_EQ(document["acs"], 5);
    EXPECT_EQ(document["lost"], 0);
    EXPECT_EQ(document["differences"], json::array());
    expect_same(ring(), "5 ACs, 7 spanning-tree records");
}

TEST_F(replay, the_first_message_after_which_tables_differ_is_found)
{
    start();
    raw_peer owner = peer(3);
    for (uint32_t handle = 0x11; handle < 0x19; handle++) {
        ASSERT_TRUE(owner.send(create(3, {handle})));
    }
    ASSERT_TRUE(owner.send(update(3, {0x11}, 7)));
    ASSERT_TRUE(is_handled(9));
    const std::string file = keep();
    const std::vector<std::string> narrow = {file, "--option", "max-acs=5", "--bisect"};
    const system_test::result done = play(narrow);
    EXPECT_EQ(done.status, 1) << done.err;
    EXPECT_EQ(done.err, "");
    EXPECT_THAT(done.out, HasSubstr("AC 0x00000016 of class 3, node 7 is missing\n"));
    EXPECT_THAT(done.out, HasSubstr("\n3 differences\n"));
    const std::string shown = monitor({"--read", file}).out;
    std::istringstream lines(shown);
    std::string line;
    for (int i = 0; i <= 6; i++) { /* UP, and the sixth CREATE */
        ASSERT_TRUE(std::getline(lines, line));
    }
    EXPECT_THAT(done.out, HasSubstr("a record that makes one, number 6:\n" + line + "\n"));
    const json document = told(narrow, 1);
    EXPECT_EQ(document["same"], false);
    EXPECT_EQ(document["first"]["number"], 6);
    EXPECT_EQ(document["steady"], true);
    EXPECT_EQ(document["first"]["records"][0]["handle"], 0x16);
    EXPECT_EQ(document["differences"].size(), 3U);
    EXPECT_EQ(document["differences"][0]["table"], "acs");
    EXPECT_EQ(document["differences"][0]["expected"]["handle"], 0x16);
    EXPECT_EQ(document["differences"][0]["found"], nullptr);
    EXPECT_FALSE(told({file, "--bisect"}).contains("first"));
}

TEST_F(replay, a_message_that_the_process_dies_of_is_found)
{
    start();
    raw_peer owner = peer(3);
    raw_peer other = peer(4);
    ASSERT_TRUE(owner.send(create(3, {0x11, 0xdead})));
    ASSERT_TRUE(is_handled(1));
    ASSERT_TRUE(other.send(create(4, {0x21})));
    ASSERT_TRUE(is_handled(2));
    ASSERT_TRUE(owner.send(remove({0xdead})));
    ASSERT_TRUE(is_handled(3));
    ASSERT_TRUE(other.send(create(4, {0x22})));
    ASSERT_TRUE(owner.send(remove({0xdead})));
    ASSERT_TRUE(is_handled(5));
    const std::string file = keep();
    const std::vector<std::string> fragile = {file, "--program", system_test::binary("dying_l2vpnd"),
                                              "--bisect"};
    const system_test::result done = play(fragile);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.err, "");
    std::istringstream lines(monitor({"--read", file, "--type", "delete"}).out);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(done.out, "7 records were to be replayed\n"
                        "l2vpnd was ended by signal 9\n"
                        "1 difference\n"
                        "a record that makes one, number 4:\n" +
                            line + "\n");
    const json document = told(fragile, 1);
    EXPECT_EQ(document["same"], false);
    EXPECT_EQ(document["first"]["number"], 4);
    EXPECT_EQ(document["first"]["type"], "DELETE");
    EXPECT_EQ(document["steady"], true);
    EXPECT_EQ(document["differences"].size(), 1U);
    EXPECT_EQ(document["differences"][0]["text"], "l2vpnd was ended by signal 9");
    for (const char *unknown : {"links", "acs", "mstp", "batches"}) {
        EXPECT_TRUE(document.contains(unknown) && document[unknown].is_null()) << unknown;
    }
    EXPECT_EQ(play({file, "--program", system_test::binary("dying_l2vpnd"), "--count", "4"}).status, 0)
        << "up to there it lives, and its tables are the same";
}

TEST_F(replay, every_kind_of_difference_has_its_words)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11, 0x12})));
    ASSERT_TRUE(owner.send(create(3, {0x13}, 1)));
    ASSERT_TRUE(is_handled(2));
    const std::string file = keep();
    /* ACs that are complete are provisioned by this one, and were not. */
    const system_test::result state = play({file, "--option", "auto-provision", "--bisect"});
    EXPECT_EQ(state.status, 1);
    EXPECT_THAT(state.out,
                HasSubstr("AC 0x00000011 of class 3, node 7: state is \"provisioned\", not \"created\"\n"));
    EXPECT_THAT(state.out, HasSubstr("number 1:\n"));
    EXPECT_THAT(state.out, testing::Not(HasSubstr("0x00000013")));

    const std::string before = m_dir.write("acs.json", ctl({"show", "acs", "--raw", "--json"}).out);
    ASSERT_TRUE(owner.send(update(3, {0x12}, 0x77)));
    ASSERT_TRUE(owner.send(remove({0x11})));
    ASSERT_TRUE(owner.send(create(3, {0x14}, 0)));
    ASSERT_TRUE(is_handled(5));
    const system_test::result later = play({keep("later.pcapng"), "--against", before});
    EXPECT_EQ(later.status, 1);
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000011 of class 3, node 7 is missing\n"));
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000012 of class 3, node 7: info."));
    EXPECT_THAT(later.out, HasSubstr("AC 0x00000014 of class 3, node 7 is there, and should not be\n"));
}

/* Whose an AC is is decided by whoever created it last: one link's message too early, and it is another's. */
TEST_F(replay, messages_of_all_links_keep_their_order)
{
    start({"--capture-size", "4096"});
    raw_peer one = raw_peer::of_another_process(socket_path(), 3);
    raw_peer other = raw_peer::of_another_process(socket_path(), 3);
    constexpr uint32_t rounds = 100;
    for (uint32_t i = 0; i < rounds; i++) {
        for (raw_peer *owner : {&one, &other}) {
            ASSERT_TRUE(owner->send(create(3, {0x100 + i, 0x101 + i})));
            ASSERT_TRUE(eventually(
                [&] { return totals()["received"]["CREATE"] == 2 * i + (owner == &one ? 1 : 2); }));
        }
    }
    ASSERT_TRUE(one.send(create(3, {0x100, 0x110, 0x120})));
    ASSERT_TRUE(is_handled(2 * rounds + 1));
    const std::string file = keep();
    expect_same(file, "203 records of 2 links replayed: 101 ACs, ");
    const std::string shown = m_dir.write("acs.json", ctl({"show", "acs", "--json"}).out);
    EXPECT_EQ(play({file, "--against", shown}).status, 0);
    EXPECT_THAT(system_test::read_file(shown), HasSubstr("\"owner\":1"));
}

TEST_F(replay, an_older_link_takes_nothing_from_a_newer_one_of_its_client)
{
    start();
    raw_peer older = peer(3);
    raw_peer newer = peer(3);
    ASSERT_TRUE(newer.send(create(3, {0x100, 0x101})));
    ASSERT_TRUE(is_handled(1));
    ASSERT_TRUE(older.send(create(3, {0x101, 0x102})));
    ASSERT_TRUE(is_handled(2));
    EXPECT_EQ(totals()["acs"]["outdated"], 1);
    expect_same(keep(), "4 records of 2 links replayed: 3 ACs, ");
}

TEST_F(replay, a_message_of_two_captures_is_played_once)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(is_handled(1));
    const std::string first = keep("first.pcapng");
    ASSERT_TRUE(owner.send(create(3, {0x12})));
    ASSERT_TRUE(is_handled(2));
    const json both = told({keep("second.pcapng"), first});
    EXPECT_EQ(both["records"], 3);
    EXPECT_EQ(both["acs"], 2);
    EXPECT_EQ(both["lost"], 0);
}

/* What ends a batch ends it on all links of the client, and on no other's. */
TEST_F(replay, clients_are_told_apart)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(4);
    ASSERT_TRUE(one.send(create(3, {0x11}, 1)));
    ASSERT_TRUE(is_handled(1));
    ASSERT_TRUE(other.send(create(4, {0x12}, 2)));
    ASSERT_TRUE(is_handled(2));
    const std::string file = keep();
    expect_same(file, "2 links replayed: 2 ACs, 0 spanning-tree records, 0 open batches\n");
    /* The link that began is another client's: its first record, and its CREATE. */
    const std::string link_up("\0\1\2\0\1\0\0\100", 8);
    std::string content = system_test::read_file(file);
    for (const std::string &head : {link_up, message_to_process}) {
        content.replace(content.find(head) + pid_in_head, 4, "\1\1\1\1");
    }
    const std::string strange = m_dir.write("strange.pcapng", content);
    expect_same(strange, "2 links replayed: 2 ACs, 0 spanning-tree records, 1 open batch\n");
    EXPECT_EQ(told({strange})["acs"], 2);
}

TEST_F(replay, links_that_end_take_what_they_said_with_them)
{
    start();
    raw_peer one = peer(3);
    ASSERT_TRUE(one.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    one.close();
    ASSERT_TRUE(holds(0));
    raw_peer other = peer(3);
    ASSERT_TRUE(other.send(create(3, {0x12})));
    ASSERT_TRUE(holds(1));
    const std::string file = keep();
    expect_same(file, "5 records of 2 links replayed: 1 AC, ");
    EXPECT_EQ(told({file, "--count", "2"})["acs"], 1);
    EXPECT_EQ(told({file, "--count", "3"})["acs"], 0);
}

TEST_F(replay, what_was_refused_is_a_difference)
{
    start();
    const raw_peer one = peer(3);
    const raw_peer other = peer(4);
    const std::string file = keep();
    const system_test::result done = play({file, "--option", "max-owners=1", "--bisect"});
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.out, HasSubstr("owner 2 (class 4, node 7) is refused: "));
    EXPECT_THAT(done.out, HasSubstr("number 1:\n"));
}

TEST_F(replay, a_running_process_gets_what_was_said_and_keeps_its_own)
{
    start();
    std::string file;
    {
        raw_peer owner = peer(3);
        ASSERT_TRUE(owner.send(create(3, {0x11, 0x12})));
        ASSERT_TRUE(holds(2));
        file = keep();
        expect_refused({file, "--running"}, 4, "the running process has owner 1 (class 3, node 7) already");
    }
    ASSERT_TRUE(holds(0));
    raw_peer mine = peer(4);
    ASSERT_TRUE(mine.send(create(4, {0x21})));
    ASSERT_TRUE(holds(1));
    const system_test::result done = play({file, "--running"});
    EXPECT_EQ(done.status, 0) << done.err << done.out;
    EXPECT_THAT(done.out, HasSubstr("2 records of 1 link replayed: 2 ACs, "));
    EXPECT_THAT(done.out, HasSubstr(same));
    EXPECT_EQ(totals()["received"]["CREATE"], 3) << "it was this process";
    ASSERT_TRUE(holds(1));
    EXPECT_EQ(acs()[0]["handle"], 0x21);
    stop();
    expect_refused({file, "--running"}, 3, "cannot reach l2vpnd at ");
}
