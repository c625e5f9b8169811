// What the owner makes of an MSTP scenario: every fault named with its place.
#include "child.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using system_test::result;

struct bad_scenario {
    const char *content;
    const char *fault;
};

class bad_scenarios : public testing::TestWithParam<bad_scenario> {
protected:
    system_test::temp_dir dir_;
};

TEST_P(bad_scenarios, are_named_with_place_and_reason)
{
    const std::string inventory = dir_.write("i.csv", "name,class,handle,mtu\na,3,1,64\n");
    const std::string scenario = dir_.write("mstp.conf", GetParam().content);
    const result got =
        system_test::run(system_test::binary("l2vpn-owner"), {"-i", inventory, "--mstp", scenario});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err, scenario + GetParam().fault + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    each, bad_scenarios,
    testing::Values(
        bad_scenario{"", ": says no class; it needs a line 'class NUMBER'"},
        bad_scenario{"class 3\n# and no more\n", ": says nothing but its class"},
        bad_scenario{"vlans msti=1 1-4\n", ": says no class; it needs a line 'class NUMBER'"},
        bad_scenario{"class 15\n", ":1: class: '15' is a class that no owner can use"},
        bad_scenario{"class 3\nclass 3\n", ":2: class: is given twice"},
        bad_scenario{"class 3 4\n", ":1:9: '4' does not belong to 'class'"},
        bad_scenario{"class 3\ntree 1\n", ":2:1: 'tree' is none of class, root, port, vlans and protect"},
        bad_scenario{"class 3\nroot msti=1\n", ":2: handle: is missing; 'root' needs it"},
        bad_scenario{"class 3\nroot handle=0 msti=1\n", ":2:6: handle: '0' is out of range, 1 to 4294967294"},
        bad_scenario{"class 3\nroot handle=1 msti=4095\n", ":2:15: msti: '4095' is out of range, 0 to 4094"},
        bad_scenario{"class 3\nroot handle=1 msti=1 cost=2\n", ":2:22: 'cost=2' does not belong to 'root'"},
        bad_scenario{"class 3\nroot handle=1 msti=1 priority=80\n",
                     ":2:22: priority: '80' is not 4 hexadecimal digits"},
        bad_scenario{"class 3\nport handle=1 msti=1 state=off\n", ":2:22: state: 'off' is no state"},
        bad_scenario{"class 3\nport handle=1 msti=1\n", ":2: state: is missing; 'port' needs it"},
        bad_scenario{"class 3\nvlans msti=1\n", ":2: vlans: are missing, as in 1-99,200"},
        bad_scenario{"class 3\nvlans msti=1 0-9\n", ":2:14: vlans: '0' is out of range, 1 to 4094"},
        bad_scenario{"class 3\nvlans msti=1 1,4095\n", ":2:16: vlans: '4095' is out of range, 1 to 4094"},
        bad_scenario{"class 3\nvlans msti=1 9-8\n", ":2:14: vlans: '9-8' goes backwards"},
        bad_scenario{"class 3\nvlans msti=1 1-\n",
                     ":2:14: vlans: '' is no number (decimal, or hexadecimal after 0x)"},
        bad_scenario{"class 3\nvlans msti=1 1-5\nvlans msti=2 5\n", ":3:14: vlans: 5 is in line 2 already"},
        bad_scenario{"class 3\nprotect number=1\n", ":2: name: is missing; 'protect' needs it"},
        bad_scenario{"class 3\nprotect name=\n", ":2:9: name: is empty"}));

TEST(mstp_input, names_a_file_that_cannot_be_read)
{
    const system_test::temp_dir dir;
    const std::string inventory = dir.write("i.csv", "name,class,handle,mtu\na,3,1,64\n");
    const result got = system_test::run(system_test::binary("l2vpn-owner"),
                                        {"-i", inventory, "--mstp", dir.file("none.conf")});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.err, dir.file("none.conf") + ": No such file or directory\n");
}

TEST(mstp_input, wants_an_interface_of_the_class)
{
    const system_test::temp_dir dir;
    const std::string inventory = dir.write("i.csv", "name,class,handle,mtu\na,3,1,64\n");
    const std::string scenario = dir.write("mstp.conf", "class 4\nvlans msti=1 1-4\n");
    const result got = system_test::run(system_test::binary("l2vpn-owner"),
                                        {"-i", inventory, "--mstp", scenario, "--runtime-dir", dir.path()});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.err, "l2vpn-owner: " + scenario + ": the inventory has no interface of class 4\n");
}

} // namespace
