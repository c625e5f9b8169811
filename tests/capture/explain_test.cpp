/*
 * l2vpnctl explain: one AC from its owner's message to its provisioning, told by the process and by recordings.
 */
#include "explained.h"

#include <filesystem>
#include <fstream>

using namespace process_test;
namespace fs = std::filesystem;

TEST_F(explained, a_batch_that_stays_open_is_told_with_its_message)
{
    start({"--auto-provision"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    ASSERT_TRUE(owner.send(create(3, {0x11, 0x12, 0x13}, 0x1)));
    ASSERT_TRUE(holds(3));
    const json told = document({"0x12"});
    EXPECT_EQ(verdict(told), "not-provisioned:batch-open");
    EXPECT_EQ(told["ac"], json({{"node", 7}, {"class", 3}, {"handle", 0x12}, {"name", "ac18"}}));
    EXPECT_EQ(codes(told), "link-up created");
    const json created = step(told, "created");
    EXPECT_EQ(created["type"], "CREATE");
    EXPECT_EQ(created["index"], 1);
    EXPECT_EQ(created["count"], 3);
    EXPECT_EQ(created["batch"], "opens");
    EXPECT_EQ(created["message"], 2) << "behind the JOIN";
    EXPECT_EQ(created["owner"], 1);
    EXPECT_EQ(created["class"], 3);
    EXPECT_EQ(created["fault"], false);
    EXPECT_EQ(told["now"]["state"], "batched");
    EXPECT_EQ(told["now"]["message"], 2) << "what the process has kept";
    EXPECT_GE(told["now"]["created"].get<int64_t>(), told["now"]["batch"]["since"].get<int64_t>());
    EXPECT_EQ(told["now"]["batch"]["records"], 3);
    EXPECT_TRUE(told["last_error"].is_null());
    EXPECT_EQ(document({"ac18"})["steps"], told["steps"]) << "by its name as well";

    const std::string text = explain({"0x12"}).out;
    EXPECT_EQ(text.rfind("AC 0x00000012 \"ac18\", class 3, node 0x00000007\n"
                         "not provisioned: its CREATE batch is still open (not-provisioned:batch-open)\n",
                         0),
              0U)
        << text;
    EXPECT_THAT(
        text, HasSubstr("created          CREATE, AC 2 of 3, message 2 of the link, which opens a batch\n"));
    EXPECT_THAT(text, HasSubstr("now: owner 1 has it, batched; created "));
    EXPECT_THAT(text, HasSubstr("last error: none\n"));
    EXPECT_THAT(text, HasSubstr(", 0 earlier records overwritten, 0 lost\n"));

    ASSERT_TRUE(owner.send(create(3, {0x14}, 0x2)));
    ASSERT_TRUE(owner.receive());
    const json later = document({"0x12"});
    EXPECT_EQ(verdict(later), "provisioned");
    EXPECT_EQ(codes(later), "link-up created batch-closed provisioned");
    EXPECT_EQ(later["now"]["asked_by"], "automatic");
    EXPECT_TRUE(has_note(later, "provisioned:no-answer"));
}

TEST_F(explained, whoever_asked_is_told)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    const json untold = document({"0x11"});
    EXPECT_EQ(verdict(untold), "not-provisioned:automatic-off");
    EXPECT_EQ(step(untold, "created")["batch"], "whole");
    EXPECT_EQ(untold["now"]["asked_by"], "nobody");

    EXPECT_EQ(ctl({"provision", "--all"}).status, 0);
    ASSERT_TRUE(owner.receive());
    EXPECT_EQ(verdict(document({"0x11"})), "provisioned");
    EXPECT_EQ(document({"0x11"})["now"]["asked_by"], "operator");

    EXPECT_EQ(ctl({"unprovision", "--all"}).status, 0);
    ASSERT_TRUE(owner.receive());
    const json undone = document({"0x11"});
    EXPECT_EQ(verdict(undone), "not-provisioned:unprovisioned");
    EXPECT_EQ(codes(undone), "link-up created provisioned unprovisioned");

    ASSERT_TRUE(owner.send(update(3, {0x11, 0x99}, 5)));
    ASSERT_TRUE(owner.send(create(3, {0x11}, 0x0)));
    ASSERT_TRUE(has_received("CREATE", 2));
    const json anew = document({"0x11"});
    EXPECT_EQ(verdict(anew), "not-provisioned:automatic-off") << "it is as good as new";
    EXPECT_EQ(codes(anew), "link-up created provisioned unprovisioned updated created-anew");
    EXPECT_EQ(step(anew, "created-anew")["batch"], "alone");
    EXPECT_EQ(anew["now"]["message"], 3);
}

TEST_F(explained, a_class_without_layout_is_never_provisioned)
{
    start({"--auto-provision"});
    raw_peer owner = peer(7);
    ASSERT_TRUE(owner.send(create(7, {0x11})));
    ASSERT_TRUE(holds(1));
    EXPECT_EQ(verdict(document({"0x11"})), "not-provisioned:no-layout");
    kill_daemon();
    EXPECT_EQ(verdict(document({"0x11"})), "not-provisioned:no-layout");
}

TEST_F(explained, a_malformed_message_that_named_it_is_said_to_be_dropped)
{
    start();
    raw_peer owner = peer(3);
    octets cut = create(3, {0x11, 0x12});
    cut.pop_back();
    ASSERT_TRUE(owner.send(cut));
    ASSERT_TRUE(has_dropped("length", 1));
    const json told = document({"0x12"});
    EXPECT_EQ(verdict(told), "not-held:dropped");
    EXPECT_EQ(codes(told), "link-up dropped:length");
    EXPECT_EQ(told["last_error"]["code"], "dropped:length");
    EXPECT_EQ(told["last_error"]["text"], "length and header do not agree");
    EXPECT_EQ(verdict(document({"ac18"})), "not-held:dropped") << "by its name as well";
    ASSERT_TRUE(owner.send(create(3, {0x21, 0})));
    ASSERT_TRUE(has_dropped("handle", 1));
    EXPECT_EQ(codes(document({"0x21"})), "link-up dropped:handle");
    EXPECT_THAT(explain({"0x21"}).out, HasSubstr("last error: "));
}

TEST_F(explained, what_found_no_room_in_the_table_is_not_held)
{
    start({"--max-acs", "1"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11, 0x12})));
    ASSERT_TRUE(has_dropped("limit", 1));
    const json told = document({"0x12"});
    EXPECT_EQ(verdict(told), "not-held:not-taken");
    EXPECT_TRUE(has_note(told, "process:dropped"));
    EXPECT_EQ(codes(told), "link-up created");
}

TEST_F(explained, a_process_that_was_killed_is_explained_from_its_ring)
{
    start({"--auto-provision"});
    raw_peer one = peer(3);
    raw_peer other = peer(4);
    ASSERT_TRUE(one.send(create(3, {0x11})));
    ASSERT_TRUE(one.receive());
    ASSERT_TRUE(other.send(create(4, {0x12}, 0x1)));
    ASSERT_TRUE(holds(2));
    const std::string path = ring();
    kill_daemon();
    const json told = document({"0x11"});
    EXPECT_EQ(verdict(told), "provisioned");
    EXPECT_EQ(codes(told), "link-up created provisioned");
    EXPECT_TRUE(has_note(told, "process:not-running"));
    EXPECT_EQ(verdict(document({"0x12"})), "not-provisioned:batch-open");
    const json given = document({"ac18", "--read", path});
    EXPECT_EQ(verdict(given), "not-provisioned:batch-open");
    EXPECT_FALSE(has_note(given, "process:not-running")) << "it was not asked";

    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", path}).status, 0);
    EXPECT_EQ(codes(document({"0x11", "--read", file})), "link-up created provisioned");

    fs::remove(path);
    expect_one_line(explain({"0x11"}), 3, "no ring is there to be read");
}

TEST_F(explained, a_process_that_was_started_again_knows_nothing_of_it)
{
    start();
    std::optional<raw_peer> owner(peer(3));
    ASSERT_TRUE(owner->send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    kill_daemon();
    start();
    raw_peer stranger = peer(3);
    ASSERT_TRUE(stranger.send(create(3, {0x12})));
    ASSERT_TRUE(holds(1));
    const json told = document({"0x11"});
    EXPECT_EQ(verdict(told), "not-held:not-anew");
    EXPECT_EQ(told["searched"].size(), 2U) << "the ring of the one that was killed, too";
}

/* The ring of a process that was killed stays, and is no reason to ask which one is meant. */
TEST_F(explained, the_one_that_is_held_is_meant)
{
    start();
    {
        raw_peer gone = peer(4);
        ASSERT_TRUE(gone.send(create(4, {0x11})));
        ASSERT_TRUE(holds(1));
        kill_daemon();
    }
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    const json told = document({"0x11"});
    EXPECT_EQ(told["ac"]["class"], 3);
    EXPECT_EQ(verdict(told), "not-provisioned:automatic-off");
    EXPECT_TRUE(has_note(told, "others:recorded"));
    EXPECT_TRUE(has_note(told, "history:owner-not-recorded")) << "it keeps no ring";
    EXPECT_EQ(verdict(document({"0x11", "--class", "4"})), "not-held:not-anew");
}

/* Only where everything since its beginning is there, it is known that a process was not told. */
TEST_F(explained, a_process_without_ring_is_not_said_to_know_nothing_of_it)
{
    start();
    {
        raw_peer gone = peer(3);
        ASSERT_TRUE(gone.send(create(3, {0x11})));
        ASSERT_TRUE(holds(1));
        kill_daemon();
    }
    start({"--capture", "off"});
    EXPECT_EQ(verdict(document({"0x11"})), "not-held:not-recorded");
}

/* Links of two processes in one file have the same numbers, and are others. */
TEST_F(explained, two_processes_in_one_file_are_two)
{
    const std::string file = m_dir.file("both.pcapng");
    for (const uint32_t handle : {0x11U, 0x12U}) {
        start();
        raw_peer owner = peer(3);
        ASSERT_TRUE(owner.send(create(3, {handle})));
        ASSERT_TRUE(holds(1));
        ASSERT_TRUE(owner.send(update(3, {0x11}, 9)));
        ASSERT_TRUE(has_received("UPDATE", 1));
        const std::string path = ring();
        kill_daemon();
        const std::string part = m_dir.file("part.pcapng");
        ASSERT_EQ(ctl({"capture", "-w", part, "--force", "--from-ring", path}).status, 0);
        std::ofstream(file, std::ios::app | std::ios::binary)
            << std::ifstream(part, std::ios::binary).rdbuf();
        fs::remove(path);
    }
    EXPECT_EQ(codes(document({"0x11", "--read", file})), "link-up created updated link-up update-ignored");
}

TEST_F(explained, the_same_handle_and_the_same_name_are_told_apart)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(4);
    raw_peer far = peer(3, 8);
    for (raw_peer *owner : {&one, &far}) {
        ASSERT_TRUE(owner->send(create(3, {0x11})));
    }
    ASSERT_TRUE(other.send(create(4, {0x11, 0x17})));
    ASSERT_TRUE(holds(4));
    const json told = document({"0x11"}, 6);
    EXPECT_EQ(verdict(told), "ambiguous");
    EXPECT_EQ(told["candidates"].size(), 3U);
    const system_test::result said = explain({"ac17"});
    EXPECT_EQ(said.status, 6);
    EXPECT_TRUE(is_one_line(said.err));
    EXPECT_THAT(said.err, HasSubstr("'ac17' is 3 ACs"));
    EXPECT_THAT(said.out, HasSubstr("AC 0x00000011 \"ac17\", class 4, node 0x00000007, owner 2\n"));
    EXPECT_EQ(document({"0x11", "--class", "4"})["now"]["owner"], 2);
    EXPECT_EQ(document({"ac17", "--owner", "3"})["ac"]["node"], 8);
    EXPECT_EQ(document({"ac17", "--node", "7", "--class", "3"})["now"]["owner"], 1);
}

TEST_F(explained, an_unknown_ac_is_told_with_what_was_searched)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    const system_test::result said = explain({"0x99"});
    EXPECT_EQ(said.status, 5);
    EXPECT_TRUE(is_one_line(said.err));
    EXPECT_EQ(said.out, "");
    EXPECT_THAT(said.err, HasSubstr("no AC '0x99' in l2vpnd, nor in 1 messages of l2vpnd-"));
    EXPECT_THAT(said.err, HasSubstr("(0 earlier records overwritten, 0 lost, 0 cut, 0 links refused)"));
    const json told = document({"nobody"}, 5);
    EXPECT_EQ(verdict(told), "unknown");
    EXPECT_EQ(told["searched"][0]["messages"], 1);
    EXPECT_EQ(told["searched"][0]["path"], ring());
    expect_one_line(explain({"0x11", "--read", m_dir.file("none")}), 1, "none: No such file");
    expect_one_line(explain({}), 2, "ac is required");
    expect_one_line(explain({"0x11", "--class", "18"}), 2, "18");
    expect_one_line(explain({"caf\xe9"}), 2, "not UTF-8");
    EXPECT_EQ(verdict(document({"caf\xe9", "--read", ring()}, 5)), "unknown");
}

/* The ring takes some 200 messages; what the process holds is older. */
TEST_F(explained, a_beginning_that_is_overwritten_is_not_invented)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    constexpr uint64_t joins = 600;
    for (uint64_t i = 0; i < joins; i++) {
        ASSERT_TRUE(owner.send(header(0, 0, 0).bytes()));
    }
    ASSERT_TRUE(has_received("JOIN", joins));
    const json told = document({"ac17"});
    EXPECT_EQ(verdict(told), "not-provisioned:automatic-off") << "the process knows";
    EXPECT_EQ(codes(told), "");
    EXPECT_TRUE(has_note(told, "history:overwritten"));
    EXPECT_GT(told["searched"][0]["overwritten"], 300);
    EXPECT_EQ(told["now"]["message"], 1);
    ASSERT_TRUE(owner.send(update(3, {0x11}, 9)));
    ASSERT_TRUE(has_received("UPDATE", 1));
    EXPECT_EQ(codes(document({"0x11"})), "updated");
    kill_daemon();
    const json dead = document({"0x11"});
    EXPECT_EQ(verdict(dead), "not-provisioned:not-told");
    EXPECT_TRUE(has_note(dead, "history:overwritten"));
    EXPECT_EQ(explain({"ac17"}).status, 5) << "its name is overwritten, too";
}

TEST_F(explained, without_a_ring_the_process_still_tells)
{
    start({"--capture", "off"});
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11}, 0x1)));
    ASSERT_TRUE(holds(1));
    const json told = document({"ac17"});
    EXPECT_EQ(verdict(told), "not-provisioned:batch-open");
    EXPECT_TRUE(has_note(told, "history:none"));
    expect_one_line(explain({"0x99"}), 5, "no AC '0x99' in l2vpnd, and nothing is recorded");
}
