// The owner beside a real L2VPN process: what it hands over, and what it makes of changes and failures.
#include "child.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace {

using system_test::binary;
using system_test::child;
using system_test::eventually;
using system_test::result;
using testing::HasSubstr;

std::string line_of(const std::string &name, int class_id, int handle, const std::string &fields)
{
    return name + "," + std::to_string(class_id) + "," + std::to_string(handle) + ",mtu=1500," + fields +
           "\n";
}

std::string many_of_class_3(int count)
{
    std::string lines = "name,class,handle,mtu\n";
    for (int handle = 1; handle <= count; ++handle)
        lines += "port-" + std::to_string(handle) + ",3," + std::to_string(handle) + ",1500\n";
    return lines;
}

class owner_life : public testing::Test {
protected:
    void write(const std::string &content)
    {
        const std::string fresh = dir_.write("inventory.new", content);
        std::filesystem::rename(fresh, inventory());
    }

    std::string inventory() const { return dir_.file("inventory.csv"); }

    void start_process(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> arguments{"--runtime-dir", dir_.path(), "--capture-size", "64"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        process_ = std::make_unique<child>(binary("l2vpnd"), arguments);
        ASSERT_TRUE(process_->says("ready on")) << process_->err();
    }

    void kill_process()
    {
        process_->send_signal(SIGKILL);
        EXPECT_EQ(process_->wait(), -SIGKILL);
    }

    void start_owner(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> arguments{"-i", inventory(), "--runtime-dir", dir_.path()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        owner_ = std::make_unique<child>(binary("l2vpn-owner"), arguments);
    }

    result ctl(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"--runtime-dir", dir_.path()});
        return system_test::run(binary("l2vpnctl"), arguments);
    }

    // Whether the process comes to hold exactly the inventory.
    bool holds_inventory()
    {
        const bool same = eventually([this] {
            const std::string held = dir_.write("held.json", ctl({"show", "acs", "--json", "--raw"}).out);
            compared_ = system_test::run(binary("l2vpn-owner"), {"-i", inventory(), "--compare", held});
            return compared_.status == 0;
        });
        EXPECT_TRUE(same) << compared_.out << compared_.err << owner_->out() << owner_->err();
        return same;
    }

    system_test::temp_dir dir_;
    std::unique_ptr<child> process_;
    std::unique_ptr<child> owner_;
    result compared_;
};

const std::string two_classes = "name,class,handle,fields\n" + line_of("a", 3, 1, "speed=10") +
                                line_of("b", 3, 2, "speed=10,pw=7") + line_of("c", 0, 1, "vlan=5");

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

TEST_F(owner_life, sends_only_what_changed_in_the_inventory)
{
    write(two_classes);
    start_process();
    start_owner({"--watch"});
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    // a: other information; b: other definition; c: gone; d: new, of a new class.
    write("name,class,handle,fields\n" + line_of("a", 3, 1, "speed=10,pw=9") +
          line_of("b", 3, 2, "speed=20,pw=7") + line_of("d", 11, 1, "circuit=1,tunnel=2"));
    ASSERT_TRUE(owner_->says("inventory changed: 1 to create, 1 to update, 1 to replace, 1 to delete\n"))
        << owner_->out() << owner_->err();
    ASSERT_TRUE(owner_->says("class 11: created 1 AC"));
    EXPECT_TRUE(holds_inventory());
    EXPECT_THAT(owner_->out(), HasSubstr("class 0: deleted 1 AC in 1 request, 1 message\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 3: deleted 1 AC in 1 request, 1 message\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 3: created 1 AC in 1 request, 1 message\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 3: updated 1 AC in 1 request, 1 message\n"));
    EXPECT_THAT(owner_->out(), HasSubstr("class 11: created 1 AC in 1 request, 1 message\n"));
}

TEST_F(owner_life, sends_a_change_that_came_while_the_process_was_away)
{
    write(two_classes);
    start_process();
    start_owner({"--watch"});
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    kill_process();
    ASSERT_TRUE(owner_->says("class 0: DOWN"));
    ASSERT_TRUE(owner_->says("class 3: DOWN"));
    write("name,class,handle,fields\n" + line_of("a", 3, 1, "speed=11"));
    ASSERT_TRUE(owner_->says("inventory changed: 0 to create, 0 to update, 1 to replace, 2 to delete\n"));
    start_process();
    ASSERT_TRUE(owner_->says("all 1 AC created")) << owner_->out();
    EXPECT_TRUE(holds_inventory());
}

TEST_F(owner_life, keeps_what_was_sent_when_the_inventory_is_written_with_a_fault)
{
    write(two_classes);
    start_process();
    start_owner({"--watch"});
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    write("name,class,handle,fields\n" + line_of("a", 3, 0, ""));
    ASSERT_TRUE(eventually([this] { return owner_->err().find("out of range") != std::string::npos; }));
    EXPECT_EQ(owner_->err(), "l2vpn-owner: the inventory was written with faults; what was sent stays\n" +
                                 inventory() + ":2:5: handle: '0' is out of range, 1 to 4294967294\n");
    write(two_classes + line_of("d", 3, 9, ""));
    ASSERT_TRUE(owner_->says("all 4 ACs created"));
    EXPECT_TRUE(holds_inventory());
}

// The connect of a class with less information makes the library's messages too long for the class before it.
TEST_F(owner_life, keeps_large_classes_within_the_mtu_when_a_small_one_connects_later)
{
    const auto class_8 = [](int count) {
        std::string lines;
        for (int handle = 1; handle <= count; ++handle)
            lines += line_of("svc" + std::to_string(handle), 8, handle, "profile=gold");
        return lines;
    };
    const std::string header = "name,class,handle,fields\n";
    write(header + class_8(20));
    start_process();
    start_owner({"--watch", "--mtu", "16384"});
    ASSERT_TRUE(owner_->says("class 8: created 20 ACs in 1 request, 4 messages\n")) << owner_->out();
    write(header + class_8(20) + line_of("small", 3, 1, ""));
    ASSERT_TRUE(owner_->says("all 21 ACs created"));
    write(header + class_8(50) + line_of("small", 3, 1, ""));
    ASSERT_TRUE(owner_->says("class 8: created 30 ACs in 6 requests, 6 messages\n")) << owner_->out();
    EXPECT_TRUE(holds_inventory());
    EXPECT_THAT(owner_->out(), testing::Not(HasSubstr("DOWN")));
}

TEST_F(owner_life, keeps_what_was_sent_when_a_new_class_has_no_room)
{
    write(two_classes);
    start_process();
    start_owner({"--watch", "--mtu", "2000"});
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    write(two_classes + line_of("svc", 8, 1, "profile=gold"));
    ASSERT_TRUE(
        eventually([this] { return owner_->err().find("what was sent stays") != std::string::npos; }));
    EXPECT_EQ(owner_->err(),
              "l2vpn-owner: class 8: an MTU of 2000 has no room for an AC, which takes 2992\n"
              "l2vpn-owner: the inventory was written with what no message holds; what was sent stays\n");
    write(two_classes);
    EXPECT_TRUE(holds_inventory());
    EXPECT_TRUE(owner_->running());
}

TEST_F(owner_life, goes_on_without_a_new_class_that_cannot_connect_and_tries_again)
{
    write(two_classes);
    start_process();
    const std::vector<std::string> arguments{"-i", inventory(), "--runtime-dir", dir_.path(), "--watch"};
    owner_ = std::make_unique<child>(binary("owner_without_class_11"), arguments);
    ASSERT_TRUE(owner_->says("all 3 ACs created"));
    write(two_classes + line_of("d", 11, 1, "circuit=1,tunnel=2") + line_of("e", 3, 3, "speed=10"));
    ASSERT_TRUE(owner_->says("class 3: created 1 AC in 1 request")) << owner_->out();
    ASSERT_TRUE(owner_->says("all 5 ACs created")) << owner_->out() << owner_->err();
    EXPECT_EQ(owner_->err(), "l2vpn-owner: class 11: cannot connect: Cannot allocate memory\n");
    EXPECT_TRUE(holds_inventory());
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
