// What tests of the owner's input share.
#ifndef TESTS_SYSTEM_OWNER_INPUT_H
#define TESTS_SYSTEM_OWNER_INPUT_H

#include "child.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace system_test {

inline const std::string header = "name,class,handle,fields\n";

class owner_input : public testing::Test {
protected:
    result read(const std::string &content)
    {
        path_ = dir_.write("inventory.csv", content);
        return system_test::run(system_test::binary("l2vpn-owner"), {"-i", path_, "--print-expected"});
    }

    // The one fault of an inventory that has a header and these lines.
    std::string fault_of(const std::string &lines)
    {
        const result got = read(header + lines);
        EXPECT_EQ(got.status, 2);
        EXPECT_EQ(got.out, "");
        EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
        const std::string place = path_ + ":";
        EXPECT_THAT(got.err, testing::StartsWith(place));
        return got.err.substr(std::min(place.size(), got.err.size()));
    }

    temp_dir dir_;
    std::string path_;
};

} // namespace system_test

#endif
