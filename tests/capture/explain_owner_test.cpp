/*
 * l2vpnctl explain where owners record, too: what left them, and what they were told.
 */
#include "explained.h"

#include <filesystem>

using namespace process_test;

/* An owner does not answer, whatever its callback returns: that is said, and what it got. */
TEST_F(explained, a_callback_that_refuses_is_not_known_to_the_process)
{
    start({"--auto-provision"});
    system_test::child owner(system_test::binary("refusing_owner"), {},
                             {"L2VPN_RUNTIME_DIR=" + m_dir.path(), "L2VPN_CAPTURE=on"});
    ASSERT_TRUE(owner.says("refused\n")) << owner.err();
    const json told = document({"refused"});
    EXPECT_EQ(verdict(told), "provisioned");
    EXPECT_TRUE(has_note(told, "provisioned:no-answer"));
    EXPECT_EQ(codes(told), "link-up created provisioned");
    EXPECT_EQ(codes(told, "owner"), "link-up sent received");
    EXPECT_EQ(step(told, "received")["type"], "PROV");
    EXPECT_EQ(step(told, "created")["pid"], step(told, "sent")["pid"]);
    EXPECT_EQ(told["searched"].size(), 2U) << "the ring beside the process's own";
    owner.send_signal(SIGKILL);
    ASSERT_EQ(owner.wait(), -SIGKILL);
    ASSERT_TRUE(holds(0));
    const json gone = document({"0x1000"});
    EXPECT_EQ(verdict(gone), "not-held:withdrawn");
    EXPECT_EQ(codes(gone), "link-up created provisioned withdrawn");
}

TEST_F(explained, an_owner_s_ring_alone_tells_what_it_sent)
{
    start({"--capture-size", "4096"}); /* all that the owner sends */
    const std::string path = m_dir.file("elsewhere");
    const system_test::result done =
        system_test::run(system_test::binary("l2vpn-owner"),
                         {"-i", L2VPN_EXAMPLES "/inventory.csv", "-r", m_dir.path(), "--once"},
                         {"L2VPN_CAPTURE=" + path, "L2VPN_CAPTURE_SIZE=1024", "L2VPN_CAPTURE_SNAP=32"});
    ASSERT_EQ(done.status, 0) << done.err;
    const json first = rows({"--read", path, "--type", "CREATE"})[0];
    const uint32_t handle = first["records"][0]["handle"];
    const json told = document({std::to_string(handle), "--class", first["class"].dump(), "--read", path});
    EXPECT_EQ(verdict(told), "not-known:owner-only");
    EXPECT_EQ(codes(told, "owner"), "link-up sent link-down");
    EXPECT_TRUE(has_note(told, "history:cut")) << "an owner's ring keeps the beginning of each message";
    EXPECT_TRUE(told["now"].is_null());
    EXPECT_TRUE(eventually(
        [&] { /* the process notices the owner's end later than the owner */
              const json whole = document({std::to_string(handle), "--class", first["class"].dump()});
              return verdict(whole) == "not-held:withdrawn";
        }))
        << "the process knows more";
}

/* Where pids begin anew, a process that was started again has set the ring of the one before it aside. */
TEST_F(explained, rings_that_were_set_aside_are_read_too)
{
    namespace fs = std::filesystem;
    const std::string path = make_history();
    kill_daemon();
    const auto searched = [&] { return document({"0x11"})["searched"].size(); };
    EXPECT_EQ(searched(), 1U);
    fs::rename(path, path + ".2");
    EXPECT_EQ(searched(), 1U);
    fs::copy_file(path + ".2", path + ".1");
    EXPECT_EQ(searched(), 2U);
    for (const char *other : {".a1B2c3", ".1.gz", ".0"}) {
        fs::copy_file(path + ".2", path + other);
    }
    fs::copy_file(path + ".2", m_dir.file("note.1"));
    EXPECT_EQ(searched(), 2U) << "nothing else";
}

TEST_F(explained, more_rings_than_files_may_be_open_are_said)
{
    namespace fs = std::filesystem;
    const std::string path = make_history();
    constexpr int many = 100;
    for (int i = 0; i < many; i++) {
        fs::copy_file(path, m_dir.file("other-" + std::to_string(i) + ".ring"));
    }
    const auto with_limits = [&](const std::string &limits) {
        const system_test::result done =
            system_test::run("/bin/bash", {"-c", limits + " && exec " + system_test::binary("l2vpnctl") +
                                                     " explain 0x11 --json --runtime-dir " + m_dir.path()});
        EXPECT_EQ(done.status, 0) << done.err;
        return json::parse(done.out);
    };
    const auto unreadable = [](const json &told) {
        EXPECT_TRUE(has_note(told, "recording:unreadable"));
        return told.at("notes").at(0).value("text", "");
    };
    const json raised = with_limits("ulimit -Sn 64");
    EXPECT_EQ(raised["searched"].size(), many + 1U) << "as many as can be";
    EXPECT_FALSE(has_note(raised, "recording:unreadable"));
    const json limited = with_limits("ulimit -n 64");
    EXPECT_THAT(unreadable(limited), HasSubstr(".ring and 68 others: "));
    EXPECT_EQ(limited["searched"].size(), 32U);
    EXPECT_FALSE(limited["now"].is_null()) << "what the process holds is told all the same";
    const json but_one = with_limits("ulimit -n 132");
    EXPECT_THAT(unreadable(but_one), HasSubstr(".ring: "));
    EXPECT_EQ(but_one["searched"].size(), 100U);
}

/* As an owner has it that may not write to the process's folder. */
TEST_F(explained, a_ring_elsewhere_is_read_beside_the_process)
{
    start({"--auto-provision"});
    const std::string path = m_dir.file("elsewhere");
    system_test::child owner(system_test::binary("refusing_owner"), {},
                             {"L2VPN_RUNTIME_DIR=" + m_dir.path(), "L2VPN_CAPTURE=" + path});
    ASSERT_TRUE(owner.says("refused\n")) << owner.err();
    const json process_alone = document({"refused"});
    EXPECT_EQ(process_alone["searched"].size(), 1U);
    EXPECT_EQ(codes(process_alone, "owner"), "");
    const json both = document({"refused", "--also", path});
    EXPECT_EQ(verdict(both), "provisioned");
    EXPECT_FALSE(both["now"].is_null());
    EXPECT_EQ(codes(both), "link-up created provisioned");
    EXPECT_EQ(codes(both, "owner"), "link-up sent received");
    EXPECT_EQ(both["searched"].size(), 2U);
    EXPECT_EQ(document({"refused", "--also", path, "--also", path})["searched"].size(), 2U) << "once each";

    const std::string none = m_dir.file("none");
    expect_one_line(explain({"refused", "--also", none}), 1, none + ": No such file or directory");
    const std::string text = m_dir.write("text", "text");
    expect_one_line(explain({"refused", "--also", text}), 1, text + ": ");
    const std::string other = m_dir.write("other.ring", "text");
    expect_one_line(explain({"refused", "--also", other}), 1, "other.ring: ");
    EXPECT_TRUE(has_note(document({"refused"}), "recording:unreadable"))
        << "which is there, but is not named";
    std::filesystem::remove(other);
    expect_one_line(explain({"refused", "--also", path, "--read", path}), 2, "--also");
    m_daemon->send_signal(SIGKILL);
    ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    EXPECT_TRUE(eventually([&] {
        return codes(document({"refused", "--also", path}), "owner") == "link-up sent received link-down";
    })) << "and where there is no process";
}
