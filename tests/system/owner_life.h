// What tests of the owner beside a real L2VPN process share.
#ifndef TESTS_SYSTEM_OWNER_LIFE_H
#define TESTS_SYSTEM_OWNER_LIFE_H

#include "child.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

namespace system_test {

inline std::string line_of(const std::string &name, int class_id, int handle, const std::string &fields)
{
    return name + "," + std::to_string(class_id) + "," + std::to_string(handle) + ",mtu=1500," + fields +
           "\n";
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

inline const std::string two_classes = "name,class,handle,fields\n" + line_of("a", 3, 1, "speed=10") +
                                       line_of("b", 3, 2, "speed=10,pw=7") + line_of("c", 0, 1, "vlan=5");

} // namespace system_test

#endif
