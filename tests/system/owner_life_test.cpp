// The owner beside a real L2VPN process: what it hands over, and what it makes of failures.
#include "owner_life.h"

#include <nlohmann/json.hpp>

using namespace system_test;
using testing::HasSubstr;

namespace {

std::string many_of_class_3(int count)
{
    std::string lines = "name,class,handle,mtu\n";
    for (int handle = 1; handle <= count; ++handle)
        lines += "port-" + std::to_string(handle) + ",3," + std::to_string(handle) + ",1500\n";
    return lines;
}

TEST_F(owner_life, waits_for_the_process_and_creates_everything_when_it_comes)
{
    write(two_classes);
    start_owner();
    ASSERT_TRUE(owner_->says("3 ACs in 2 classes, for the L2VPN process at " + dir_.path())) << owner_->err();
    start_process();
    ASSERT_TRUE(owner_->says("all 3 ACs created")) << owner_->out();
    EXPECT_THAT(owner_->out(), HasSubstr("class 3: UP\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 3: created 2 ACs in 1 request, 1 message\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 0: created 1 AC in 1 request, 1 message\n"));
    EXPECT_TRUE(holds_inventory());
}

TEST_F(owner_life, creates_everything_anew_after_each_restart)
{
    write(two_classes);
    start_process();
    start_owner();
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    std::string seen = "all 3 ACs created\n";
    for (int round = 0; round < 3; ++round) {
        kill_process();
        ASSERT_TRUE(eventually([&] {
            const std::string out = owner_->out();
            const std::string since = out.substr(out.rfind("all 3 ACs created"));
            return since.find("class 0: DOWN") != std::string::npos &&
                   since.find("class 3: DOWN") != std::string::npos;
        })) << owner_->out();
        const std::size_t before = owner_->out().size();
        start_process();
        ASSERT_TRUE(eventually([&] {
            return owner_->out().find("all 3 ACs created", before) != std::string::npos;
        })) << owner_->out();
        EXPECT_TRUE(holds_inventory());
    }
    EXPECT_TRUE(owner_->running());
}

TEST_F(owner_life, compares_both_tables_with_what_a_process_that_was_started_again_holds)
{
    write(two_classes);
    const std::string scenario = dir_.write("mstp.conf", "class 0\n"
                                                         "root handle=1 msti=0 priority=8000\n"
                                                         "vlans msti=0 1-99\n"
                                                         "protect name=ring tail=0a000001 number=1\n");
    const auto held = [this](const std::string &table) {
        return dir_.write(table + ".json", ctl({"show", table, "--json", "--raw"}).out);
    };
    const auto compare = [&] {
        compared_ =
            system_test::run(binary("l2vpn-owner"), {"-i", inventory(), "--compare", held("acs"), "--mstp",
                                                     scenario, "--compare-mstp", held("mstp"), "--json"});
        return nlohmann::json::parse(compared_.out, nullptr, false);
    };
    const auto same =
        nlohmann::json::parse(R"({"same":true,"compared":[{"table":"acs","same":true,"differences":[]},)"
                              R"({"table":"mstp","same":true,"differences":[]}]})");
    start_process();
    start_owner({"--mstp", scenario});
    EXPECT_TRUE(eventually([&] { return compare() == same; })) << compared_.out << compared_.err;
    kill_process();
    start_process();
    EXPECT_TRUE(eventually([&] { return compare() == same; })) << compared_.out << compared_.err;

    /* A process that was told nothing holds neither. */
    owner_->send_signal(SIGTERM);
    EXPECT_EQ(owner_->wait(), 0) << owner_->err();
    kill_process();
    start_process();
    const nlohmann::json differs = compare();
    EXPECT_EQ(compared_.status, 1) << compared_.err;
    for (const nlohmann::json &table : differs["compared"]) {
        EXPECT_EQ(table["same"], false) << table;
    }
    EXPECT_EQ(differs["compared"].size(), 2U);
}

TEST_F(owner_life, survives_a_process_that_dies_in_the_middle_of_a_large_inventory)
{
    write(many_of_class_3(8000));
    start_process();
    start_owner();
    ASSERT_TRUE(owner_->says("class 3: UP"));
    kill_process();
    ASSERT_TRUE(owner_->says("class 3: DOWN")) << owner_->out();
    const std::size_t before = owner_->out().size();
    start_process();
    ASSERT_TRUE(eventually([&] {
        return owner_->out().find("all 8000 ACs created", before) != std::string::npos;
    })) << owner_->out()
        << owner_->err();
    EXPECT_TRUE(holds_inventory());
}

TEST_F(owner_life, sends_a_large_inventory_as_one_batch_of_several_requests)
{
    write(many_of_class_3(3000));
    start_process();
    start_owner();
    ASSERT_TRUE(owner_->says("class 3: created 3000 ACs in 3 requests, 30 messages\n")) << owner_->out();
    EXPECT_TRUE(holds_inventory());
    EXPECT_THAT(ctl({"show", "counters", "--json"}).out, HasSubstr(R"("opened":1,"closed":1,"reopened":0)"));
}

TEST_F(owner_life, disconnects_on_a_signal)
{
    write(two_classes);
    start_process();
    start_owner();
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    owner_->send_signal(SIGTERM);
    EXPECT_EQ(owner_->wait(), 0);
    EXPECT_THAT(owner_->out(), testing::EndsWith("disconnecting\n"));
    EXPECT_EQ(owner_->err(), "");
    EXPECT_TRUE(eventually([this] {
        return ctl({"show", "clients"}).out.find("0 clients") != std::string::npos;
    }));
}

TEST_F(owner_life, ends_with_once_when_everything_was_created)
{
    write(two_classes);
    start_process();
    start_owner({"--once"});
    EXPECT_EQ(owner_->wait(), 0);
    EXPECT_THAT(owner_->out(), testing::EndsWith("all 3 ACs created\n"));
}

TEST_F(owner_life, gives_up_with_once_when_no_process_comes)
{
    write(two_classes);
    start_owner({"--once", "--timeout", "1"});
    EXPECT_EQ(owner_->wait(), 1);
    EXPECT_EQ(owner_->err(),
              "l2vpn-owner: not everything was created within 1 s; still to do: class 0 (down), "
              "3 (down)\n");
}

// Owner, process and tools read the variable alike: what is no absolute path is told, and does not count.
TEST_F(owner_life, takes_a_relative_directory_of_the_environment_as_the_process_does)
{
    write(two_classes);
    const std::vector<std::string> relative{"L2VPN_RUNTIME_DIR=here"};
    // With an MTU that no process agrees to, should one run there.
    const child owner(binary("l2vpn-owner"), {"-i", inventory(), "--mtu", "1048576"}, relative);
    const std::string warning = "l2vpn: L2VPN_RUNTIME_DIR=here: not an absolute path; using ";
    ASSERT_TRUE(owner.says("for the L2VPN process at ")) << owner.err();
    EXPECT_THAT(owner.err(), testing::StartsWith(warning));
    const result tool = system_test::run(binary("l2vpnctl"), {"status"}, relative);
    EXPECT_THAT(tool.err, testing::StartsWith(warning));
    const std::string used = tool.err.substr(warning.size(), tool.err.find('\n') - warning.size());
    EXPECT_THAT(owner.err(), HasSubstr(warning + used + "\n"));
    EXPECT_THAT(owner.out(), HasSubstr(" at " + used + "/"));
}

TEST_F(owner_life, refuses_an_mtu_without_room_for_one_ac)
{
    write("name,class,handle,fields\n" + line_of("svc", 8, 1, "profile=gold"));
    start_owner({"--mtu", "2991"});
    EXPECT_EQ(owner_->wait(), 1);
    EXPECT_EQ(owner_->err(),
              "l2vpn-owner: class 8: an MTU of 2991 has no room for an AC, which takes 2992\n");
}

TEST_F(owner_life, tells_what_to_look_at_when_the_process_takes_less_a_message)
{
    write("name,class,handle,fields\n" + line_of("svc", 8, 1, "profile=gold"));
    start_process({"--mtu", "2000"});
    const std::vector<std::string> arguments{"-i", inventory(), "--runtime-dir", dir_.path()};
    owner_ = std::make_unique<child>(binary("l2vpn-owner"), arguments,
                                     std::vector<std::string>{"L2VPN_LOG=stderr"});
    EXPECT_TRUE(eventually([this] {
        return owner_->err().find("the server takes 2000 bytes a message, this process sends 65536: "
                                  "set L2VPN_MTU to what the server takes\n") != std::string::npos;
    })) << owner_->err();
    EXPECT_THAT(owner_->out(), testing::Not(HasSubstr("UP")));
}

TEST_F(owner_life, refuses_a_runtime_directory_that_no_socket_fits)
{
    write(two_classes);
    const result got = system_test::run(
        binary("l2vpn-owner"), {"-i", inventory(), "--runtime-dir", "/tmp/" + std::string(120, 'x')});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, "l2vpn-owner: no path for the process's socket in /tmp/" + std::string(120, 'x') +
                           ": File name too long\n");
}

TEST_F(owner_life, shows_what_the_process_sends)
{
    write(two_classes);
    start_process();
    start_owner({"--verbose"});
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    ASSERT_TRUE(holds_inventory());
    ASSERT_EQ(ctl({"provision", "--class", "0"}).status, 0);
    EXPECT_TRUE(owner_->says("class 0: provisioned 1 AC, with the information that was given\n"))
        << owner_->out();
    EXPECT_TRUE(owner_->says("  c: cross-connect 1, node ")) << owner_->out();
    EXPECT_TRUE(owner_->says(", information 0 0 0 0, VLAN 5\n")) << owner_->out();
    ASSERT_EQ(ctl({"unprovision", "--class", "0"}).status, 0);
    EXPECT_TRUE(owner_->says("class 0: unprovisioned 1 AC\n  c\n")) << owner_->out();
    ASSERT_EQ(ctl({"notify", "flags", "--class", "3", "--flags", "0x10"}).status, 0);
    EXPECT_TRUE(owner_->says("class 3: notice, flags 0x00000012\n")) << owner_->out();
    ASSERT_EQ(ctl({"notify", "bulk", "--class", "3", "--record", "word=2,half=513"}).status, 0);
    EXPECT_TRUE(owner_->says("class 3: notice of 1 record, flags 0x00000000\n  b: 513\n")) << owner_->out();
    ASSERT_EQ(
        ctl({"notify", "header", "--class", "3", "--word2", "0x01020304", "--word3", "0x05060708"}).status,
        0);
    EXPECT_TRUE(owner_->says("class 3: notice 0x01020304, flags 0x05060708\n")) << owner_->out();
}

TEST_F(owner_life, tells_what_differs_from_the_inventory)
{
    write(two_classes);
    start_process();
    start_owner();
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    ASSERT_TRUE(holds_inventory());
    write("name,class,handle,fields\n" + line_of("a", 3, 1, "speed=11") +
          line_of("b", 3, 2, "speed=10,pw=8") + line_of("d", 3, 4, ""));
    const std::string held = dir_.write("held.json", ctl({"show", "acs", "--json", "--raw"}).out);
    const result got = system_test::run(binary("l2vpn-owner"), {"-i", inventory(), "--compare", held});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, "class 3 handle 1 a: definition byte 75 is 0a instead of 0b\n"
                       "class 3 handle 2 b: information byte 7 is 07 instead of 08\n"
                       "class 3 handle 4 d: the process does not hold it\n"
                       "class 0 handle 1 c: the process holds it, the inventory does not\n");
}

TEST_F(owner_life, shows_progress_on_a_terminal_only)
{
    write(many_of_class_3(5000));
    start_process();
    const std::string command =
        binary("l2vpn-owner") + " --once -i " + inventory() + " --runtime-dir " + dir_.path();
    const result terminal =
        system_test::run("/usr/bin/script", {"-qec", command, "/dev/null"}, {"SHELL=/bin/sh"});
    EXPECT_EQ(terminal.status, 0) << terminal.out;
    EXPECT_THAT(terminal.out, HasSubstr("of 5000\r"));
    EXPECT_THAT(terminal.out, HasSubstr("all 5000 ACs created"));
    const result pipe = system_test::run("/bin/sh", {"-c", command + " | cat"});
    EXPECT_EQ(pipe.status, 0);
    EXPECT_THAT(pipe.out, testing::Not(HasSubstr("of 5000")));
    EXPECT_THAT(pipe.out, HasSubstr("all 5000 ACs created"));
}

} // namespace
