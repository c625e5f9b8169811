/*
 * Whom the client takes for the L2VPN process.
 */
#include "ipc/server_trust.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace l2vpn::ipc;

TEST(server_trust, is_for_root_and_the_own_user)
{
    EXPECT_TRUE(server_is_trusted(0, 1000, std::nullopt));
    EXPECT_TRUE(server_is_trusted(1000, 1000, std::nullopt));
    EXPECT_FALSE(server_is_trusted(1001, 1000, std::nullopt));
    EXPECT_FALSE(server_is_trusted(1001, 0, std::nullopt)) << "not even for root";
}

TEST(server_trust, is_for_the_user_to_whom_root_gave_the_directory)
{
    EXPECT_TRUE(server_is_trusted(900, 1000, 900));
    EXPECT_FALSE(server_is_trusted(901, 1000, 900));
    EXPECT_FALSE(server_is_trusted(1001, 1000, 0));
}

TEST(server_trust, tells_a_directory_of_roots_from_one_that_anybody_may_make)
{
    EXPECT_EQ(directory_given_to("/usr"), std::optional<uid_t>(0));
    EXPECT_EQ(directory_given_to("/usr/bin"), std::optional<uid_t>(0));
    EXPECT_EQ(directory_given_to("/tmp"), std::nullopt) << "anybody may write to it";
    EXPECT_EQ(directory_given_to("/usr/there-is-no-such-directory"), std::nullopt);
    char made[] = "/tmp/l2vpn-trust-XXXXXX";
    ASSERT_NE(mkdtemp(made), nullptr);
    EXPECT_EQ(directory_given_to(made), std::nullopt) << "anybody may have made it";
    rmdir(made);
}

} // namespace
