// What the owner makes of its options, and what it prints for people and programs.
#include "owner_input.h"

#include <nlohmann/json.hpp>

using namespace system_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST_F(owner_input, names_what_cannot_be_compared)
{
    const std::string owner = system_test::binary("l2vpn-owner");
    const std::string inventory = dir_.write("inventory.csv", header + "a,3,1,mtu=64\n");
    const std::string scenario = dir_.write("scenario.conf", "class 3\nroot handle=1 msti=1\n");
    for (const char *content : {"", "{]", "[]", "17", "{\"acs\":[{}]}", "{\"mstp\":[{\"kind\":7}]}"}) {
        const std::string held = dir_.write("held.json", content);
        const result acs = system_test::run(owner, {"-i", inventory, "--compare", held});
        EXPECT_EQ(acs.status, 2) << content;
        EXPECT_EQ(acs.out, "");
        EXPECT_THAT(acs.err, StartsWith("l2vpn-owner: " + held + ": is not what 'l2vpnctl show acs "));
        EXPECT_EQ(std::count(acs.err.begin(), acs.err.end(), '\n'), 1) << acs.err;
        const result mstp =
            system_test::run(owner, {"-i", inventory, "--mstp", scenario, "--compare-mstp", held});
        EXPECT_EQ(mstp.status, 2) << content;
        EXPECT_THAT(mstp.err, StartsWith("l2vpn-owner: " + held + ": is not what 'l2vpnctl show mstp "));
        EXPECT_EQ(std::count(mstp.err.begin(), mstp.err.end(), '\n'), 1) << mstp.err;
    }
    const result none = system_test::run(owner, {"-i", inventory, "--compare", dir_.file("none")});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "l2vpn-owner: " + dir_.file("none") + ": No such file or directory\n");
    const result folder = system_test::run(owner, {"-i", inventory, "--compare", dir_.path()});
    EXPECT_EQ(folder.status, 2);
    EXPECT_EQ(folder.err, "l2vpn-owner: " + dir_.path() + ": is a directory, not a file\n");
}

TEST_F(owner_input, lists_the_fields)
{
    const result got = system_test::run(system_test::binary("l2vpn-owner"), {"--fields"});
    EXPECT_EQ(got.status, 0);
    EXPECT_THAT(got.out, StartsWith("FIELD "));
    EXPECT_THAT(got.out,
                HasSubstr("\nmtu*          all      64 to 65535                  largest frame, in bytes\n"));
    EXPECT_THAT(got.out, HasSubstr("\nvlan*         0,1,16   1 to 4094                    VLAN\n"));
    EXPECT_THAT(got.out, HasSubstr("\nsystem*       7        16 hexadecimal digits        system id\n"));
}

TEST_F(owner_input, prints_documents_for_programs)
{
    const std::string owner = system_test::binary("l2vpn-owner");
    const std::string inventory = dir_.write("inventory.csv", header + "b,3,2,mtu=64\na,3,1,mtu=64\n");
    const auto told = [&](std::vector<std::string> arguments, int status) {
        arguments.emplace_back("--json");
        const result got = system_test::run(owner, arguments);
        EXPECT_EQ(got.status, status) << got.err;
        return nlohmann::json::parse(got.out, nullptr, false);
    };
    const nlohmann::json fields = told({"--fields"}, 0);
    const auto vlan =
        std::ranges::find(fields["fields"], "vlan", [](const auto &row) { return row["field"]; });
    ASSERT_NE(vlan, fields["fields"].end());
    EXPECT_EQ((*vlan)["classes"], nlohmann::json({0, 1, 16}));
    EXPECT_EQ((*vlan)["required"], nlohmann::json({0, 1, 16}));
    EXPECT_EQ((*vlan)["kind"], "number");
    EXPECT_EQ((*vlan)["max"], 4094);

    nlohmann::json held = told({"-i", inventory, "--print-expected"}, 0);
    ASSERT_EQ(held["acs"].size(), 2U);
    EXPECT_EQ(held["acs"][0]["name"], "a");
    EXPECT_EQ(held["acs"][0]["handle"], 1);
    EXPECT_EQ(held["acs"][1]["definition_raw"].get<std::string>().size(), 2U * 616);
    const std::string shown = dir_.write("held.json", held.dump());
    EXPECT_EQ(
        told({"-i", inventory, "--compare", shown}, 0),
        nlohmann::json::parse(R"({"same":true,"compared":[{"table":"acs","same":true,"differences":[]}]})"));
    held["acs"].erase(1);
    dir_.write("held.json", held.dump());
    EXPECT_EQ(told({"-i", inventory, "--compare", shown}, 1),
              nlohmann::json::parse(R"({"same":false,"compared":[{"table":"acs","same":false,"differences":[)"
                                    R"("class 3 handle 2 b: the process does not hold it"]}]})"));
}

struct bad_option {
    std::vector<std::string> arguments;
    const char *complaint;
};

class bad_options : public owner_input, public testing::WithParamInterface<bad_option> {};

TEST_P(bad_options, give_one_clear_line)
{
    const result got = system_test::run(system_test::binary("l2vpn-owner"), GetParam().arguments);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_THAT(got.err, StartsWith("l2vpn-owner: "));
    EXPECT_THAT(got.err, HasSubstr(GetParam().complaint));
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
}

INSTANTIATE_TEST_SUITE_P(each, bad_options,
                         testing::Values(bad_option{{}, "--inventory is required"},
                                         bad_option{{"-i", "x", "--colour"}, "--colour"},
                                         bad_option{{"-i", "x", "--mtu", "15"}, "--mtu"},
                                         bad_option{{"-i", "x", "--mtu", "many"}, "--mtu"},
                                         bad_option{{"-i", "x", "--once", "--timeout", "0"}, "--timeout"},
                                         bad_option{{"-i", "x", "--once", "--timeout", "086401"},
                                                    "--timeout"},
                                         bad_option{{"-i", "x", "--json"}, "--json"},
                                         bad_option{{"-i", "x", "--mtu", "1\n2"}, "--mtu"},
                                         bad_option{{"-i", "x", "--col\nour"}, "--col our"},
                                         bad_option{{"-i", "x", "--timeout", "3"}, "--once"},
                                         bad_option{{"-i", "x", "--compare", "y", "--once"}, "--compare"},
                                         bad_option{{"-i", "x", "--compare-mstp", "y"}, "--mstp"}));

TEST_F(owner_input, refuses_a_bad_mtu_of_the_environment_unless_the_option_gives_another)
{
    const std::string owner = system_test::binary("l2vpn-owner");
    const std::string inventory = dir_.write("inventory.csv", header + "a,3,1,mtu=64\n");
    for (const char *bad : {"15", "1048577", "many", "-1", "16 ", "0x"}) {
        const std::string variable = "L2VPN_MTU=" + std::string(bad);
        const result got = system_test::run(owner, {"-i", inventory, "--print-expected"}, {variable});
        EXPECT_EQ(got.status, 2) << bad;
        EXPECT_THAT(got.err, StartsWith("l2vpn-owner: L2VPN_MTU: '" + std::string(bad) + "' is "));
        EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
        const result told =
            system_test::run(owner, {"-i", inventory, "--print-expected", "--mtu", "2000"}, {variable});
        EXPECT_EQ(told.status, 0) << told.err;
    }
    for (const char *good : {"", "16", "1048576", "0x1000"}) {
        const std::string variable = "L2VPN_MTU=" + std::string(good);
        const result got = system_test::run(owner, {"-i", inventory, "--print-expected"}, {variable});
        EXPECT_EQ(got.status, 0) << good << got.err;
    }
}

} // namespace
