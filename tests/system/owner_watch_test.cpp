// The owner beside a real L2VPN process: what it makes of changes of its inventory.
#include "owner_life.h"

using namespace system_test;
using testing::HasSubstr;

namespace {

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

} // namespace
