#include "node_internal.h"
#include "temp_folder.h"

#include <platform/node.h>

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using l2vpn::platform_posix::node_id_of;
using l2vpn::platform_posix::node_id_of_machine;

class machine_identity : public ::testing::Test {
protected:
    void TearDown() override
    {
        ::unlink(path().c_str());
        ::rmdir(directory.c_str());
    }

    [[nodiscard]] std::string path() const { return directory + "/machine-id"; }

    qerrno id_of(const std::string &text, std::uint32_t &id) const
    {
        std::ofstream(path()) << text;
        return node_id_of_machine(path().c_str(), id);
    }

    const std::string directory = new_temp_folder();
};

TEST_F(machine_identity, gives_the_same_id_every_time)
{
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(id_of("0123456789abcdef0123456789abcdef\n", first), EOK);
    ASSERT_EQ(id_of("0123456789abcdef0123456789abcdef", second), EOK);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, NODEID_INVALID);
}

TEST_F(machine_identity, another_machine_has_another_id)
{
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(id_of("0123456789abcdef0123456789abcdef\n", first), EOK);
    ASSERT_EQ(id_of("0123456789abcdef0123456789abcdee\n", second), EOK);
    EXPECT_NE(first, second);
}

TEST_F(machine_identity, a_file_without_an_identity_gives_none)
{
    std::uint32_t id = 77;
    EXPECT_EQ(id_of("", id), static_cast<qerrno>(ENODATA));
    EXPECT_EQ(id_of("uninitialized\n", id), static_cast<qerrno>(ENODATA));
    EXPECT_EQ(id_of("0123456789abcdef0123456789abcde\n", id), static_cast<qerrno>(ENODATA));
    EXPECT_EQ(id_of("0123456789abcdeg0123456789abcdef\n", id), static_cast<qerrno>(ENODATA));
    EXPECT_EQ(id, 77U) << "nothing may be written on failure";
}

TEST_F(machine_identity, a_file_that_cannot_be_read_says_why)
{
    std::uint32_t id = 77;
    EXPECT_EQ(node_id_of_machine(path().c_str(), id), static_cast<qerrno>(ENOENT));
    EXPECT_EQ(node_id_of_machine(directory.c_str(), id), static_cast<qerrno>(EISDIR));
    EXPECT_EQ(id, 77U);
}

TEST_F(machine_identity, without_one_the_host_name_takes_its_place)
{
    std::uint32_t missing = 0;
    std::uint32_t empty = 0;
    std::uint32_t other = 0;
    ASSERT_EQ(node_id_of(path().c_str(), "pe1", missing), EOK);
    std::ofstream(path()).close();
    ASSERT_EQ(node_id_of(path().c_str(), "pe1", empty), EOK);
    ASSERT_EQ(node_id_of(path().c_str(), "pe2", other), EOK);
    EXPECT_EQ(missing, empty) << "the same at every start";
    EXPECT_NE(missing, other);
    EXPECT_NE(missing, NODEID_INVALID);
}

TEST_F(machine_identity, counts_for_more_than_the_host_name)
{
    std::uint32_t of_machine = 0;
    std::uint32_t id = 0;
    ASSERT_EQ(id_of("0123456789abcdef0123456789abcdef\n", of_machine), EOK);
    ASSERT_EQ(node_id_of(path().c_str(), "pe1", id), EOK);
    EXPECT_EQ(id, of_machine);
}

TEST_F(machine_identity, without_a_host_name_or_not_readable_fails)
{
    std::uint32_t id = 77;
    EXPECT_EQ(node_id_of(path().c_str(), "", id), static_cast<qerrno>(ENOENT));
    EXPECT_EQ(node_id_of(directory.c_str(), "pe1", id), static_cast<qerrno>(EISDIR))
        << "another process may be able to read it";
    EXPECT_EQ(id, 77U);
}

TEST_F(machine_identity, of_a_host_name_is_never_the_invalid_id)
{
    std::uint32_t id = 0;
    // Its hash is 0xFFFFFFFF.
    ASSERT_EQ(node_id_of(path().c_str(), "23koe7a", id), EOK);
    EXPECT_EQ(id, NODEID_INVALID - 1);
}

} // namespace
