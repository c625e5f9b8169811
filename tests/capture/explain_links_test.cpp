/*
 * l2vpnctl explain: over which of several links an AC was created, and what the others and their ends do to it.
 */
#include "explained.h"

using namespace process_test;

TEST_F(explained, a_deleted_ac_is_gone_and_a_delete_by_another_owner_is_ignored)
{
    start();
    raw_peer one = peer(3);
    raw_peer other = peer(3);
    ASSERT_TRUE(one.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    ASSERT_TRUE(other.send(remove({0x11})));
    ASSERT_TRUE(has_received("DELETE", 1));
    const json kept = document({"0x11"});
    EXPECT_EQ(codes(kept), "link-up link-up created delete-ignored");
    EXPECT_EQ(kept["last_error"]["code"], "delete-ignored");
    ASSERT_TRUE(other.send(create(3, {0x11})));
    ASSERT_TRUE(has_received("CREATE", 2));
    EXPECT_EQ(step(document({"0x11"}), "taken-over")["owner"], 2);
    ASSERT_TRUE(other.send(remove({0x11})));
    ASSERT_TRUE(holds(0));
    const json gone = document({"0x11"});
    EXPECT_EQ(verdict(gone), "not-held:deleted");
    EXPECT_TRUE(gone["now"].is_null());
}

TEST_F(explained, a_create_that_is_read_late_from_an_older_link_is_told_as_ignored)
{
    start();
    raw_peer older = peer(3);
    raw_peer newer = peer(3);
    ASSERT_TRUE(newer.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    ASSERT_TRUE(older.send(create(3, {0x10, 0x11})));
    ASSERT_TRUE(has_received("CREATE", 2));
    EXPECT_EQ(totals()["acs"]["outdated"], 1) << "the process has left it alone, too";
    const json told = document({"0x11"});
    EXPECT_EQ(told["now"]["owner"], 2);
    EXPECT_EQ(codes(told), "link-up link-up created create-ignored");
    const json ignored = step(told, "create-ignored");
    EXPECT_EQ(ignored["owner"], 1);
    EXPECT_EQ(ignored["index"], 1);
    EXPECT_EQ(ignored["fault"], false);
    EXPECT_EQ(ignored["text"], "its client has said it since over a newer link");
    EXPECT_TRUE(told["last_error"].is_null());
    EXPECT_THAT(explain({"0x11"}).out,
                HasSubstr("create-ignored   CREATE, AC 2 of 2, message 1 of the link, a batch of its own: "
                          "its client has said it since over a newer link\n"));
    kill_daemon();
    EXPECT_EQ(verdict(document({"0x11"})), "not-provisioned:not-told") << "held, as far as it is recorded";
}

TEST_F(explained, an_owner_that_ends_in_mid_bulk_takes_its_acs_along)
{
    start({"--auto-provision"});
    std::optional<raw_peer> owner(peer(3));
    ASSERT_TRUE(owner->send(create(3, {0x11, 0x12}, 0x1)));
    ASSERT_TRUE(owner->send(create(3, {0x13}, 0x0)));
    ASSERT_TRUE(holds(3));
    owner.reset();
    ASSERT_TRUE(holds(0));
    const json told = document({"0x13"});
    EXPECT_EQ(verdict(told), "not-held:withdrawn");
    EXPECT_EQ(codes(told), "link-up created withdrawn");
    EXPECT_EQ(step(told, "created")["batch"], "inside");
}
