/*
 * Whom the client takes for the L2VPN process.
 */
#include "ipc/server_trust.h"

#include "temp_folder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
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

/* A folder of this user's, with another in it. */
class directory_given : public testing::Test {
protected:
    ~directory_given() override { std::filesystem::remove_all(outer); }

    void SetUp() override
    {
        allow(outer, 0755);
        ASSERT_EQ(mkdir(inner.c_str(), 0755), 0);
        allow(inner, 0755);
    }

    static void allow(const std::string &directory, mode_t mode)
    {
        EXPECT_EQ(chmod(directory.c_str(), mode), 0) << directory;
    }

    /* In root's folder it is root who gives; who is not root can make no such folder, and gives nothing. */
    static std::optional<uid_t> by_root(uid_t given_to)
    {
        return geteuid() == 0 ? std::optional(given_to) : std::nullopt;
    }

    const std::string outer = new_temp_folder();
    const std::string inner = outer + "/l2vpn";
};

TEST_F(directory_given, by_root_is_its_owners)
{
    EXPECT_EQ(directory_given_to(inner), by_root(0));
    allow(inner, 0775);
    EXPECT_EQ(directory_given_to(inner), by_root(0)) << "its owner has chosen the group";
    /* Refused to others than root, and where there is one user only. */
    const uid_t given_to = chown(inner.c_str(), 900, static_cast<gid_t>(-1)) == 0 ? 900 : 0;
    EXPECT_EQ(directory_given_to(inner), by_root(given_to));
}

TEST_F(directory_given, where_others_may_make_it_is_nobodys)
{
    for (const mode_t mode : {mode_t{01777}, mode_t{0777}, mode_t{0775}}) {
        allow(outer, mode);
        EXPECT_EQ(directory_given_to(inner), std::nullopt) << "anybody may have made it";
    }
    allow(outer, 0755);
    if (chown(outer.c_str(), 900, static_cast<gid_t>(-1)) == 0) {
        EXPECT_EQ(directory_given_to(inner), std::nullopt) << "that user may have made it";
    }
}

TEST_F(directory_given, that_anybody_may_write_to_is_nobodys)
{
    for (const mode_t mode : {mode_t{01777}, mode_t{0777}}) {
        allow(inner, mode);
        EXPECT_EQ(directory_given_to(inner), std::nullopt);
    }
}

TEST_F(directory_given, that_is_none_is_nobodys)
{
    EXPECT_EQ(directory_given_to(outer + "/missing"), std::nullopt);
    EXPECT_EQ(directory_given_to(inner + "/missing/l2vpn"), std::nullopt);
    const std::string link = outer + "/link";
    ASSERT_EQ(symlink(inner.c_str(), link.c_str()), 0);
    EXPECT_EQ(directory_given_to(link), std::nullopt);
}

} // namespace
