#include <platform/config.h>
#include <platform/platform.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

TEST(service_path, needs_a_name_and_room)
{
    char path[108];
    EXPECT_EQ(platform_service_path(nullptr, path, sizeof path), qerrno{EINVAL});
    EXPECT_EQ(platform_service_path("name", nullptr, sizeof path), qerrno{EINVAL});
    ASSERT_EQ(platform_service_path("name", path, sizeof path), qerrno{EOK});
    const std::string whole = path;
    EXPECT_TRUE(whole.ends_with("/name.sock")) << whole;
    EXPECT_EQ(platform_service_path("name", path, whole.size()), qerrno{ENAMETOOLONG});
    EXPECT_EQ(platform_service_path("name", path, whole.size() + 1), qerrno{EOK});
    EXPECT_EQ(path, whole);
}

TEST(status_text, says_what_the_number_means)
{
    EXPECT_STREQ(qerr_strerror(EOK), "Success");
    EXPECT_STREQ(qerr_strerror(EINVAL), "Invalid argument");
    EXPECT_STREQ(qerr_strerror(EDEADLK), "Resource deadlock avoided");
}

TEST(status_text, an_unknown_number_comes_out_as_itself)
{
    EXPECT_STREQ(qerr_strerror(4095), "Unknown error 4095");
    EXPECT_STREQ(qerr_strerror(0xFFFFFFFF), "Unknown error 4294967295");
}

TEST(status_text, a_text_belongs_to_its_thread)
{
    const char *mine = qerr_strerror(5000);
    std::thread([] { EXPECT_STREQ(qerr_strerror(6000), "Unknown error 6000"); }).join();
    EXPECT_STREQ(mine, "Unknown error 5000");
}

TEST(named_memory, is_zeroed_and_released_with_free)
{
    constexpr std::size_t size = 24 * 100;
    auto *bytes = static_cast<unsigned char *>(calloc_named(100, 24, "test"));
    ASSERT_NE(bytes, nullptr);
    const std::vector<unsigned char> zeros(size, 0);
    EXPECT_EQ(std::memcmp(bytes, zeros.data(), size), 0);
    std::memset(bytes, 0xFF, size);
    std::free(bytes);
}

TEST(named_memory, a_product_that_does_not_fit_gives_null)
{
    // Hidden from the compiler, which knows calloc()'s limits too.
    volatile std::size_t huge = std::numeric_limits<std::size_t>::max() / 2 + 1;
    EXPECT_EQ(calloc_named(huge, 2, "test"), nullptr);
    EXPECT_EQ(calloc_named(2, huge, "test"), nullptr);
}

TEST(named_memory, no_bytes_are_an_address_all_the_same)
{
    for (void *bytes :
         {calloc_named(0, 8, "test"), calloc_named(8, 0, "test"), calloc_named(0, 0, nullptr)}) {
        EXPECT_NE(bytes, nullptr);
        std::free(bytes);
    }
}

TEST(sanitizer, takes_every_handle_but_0_and_all_ones)
{
    std::vector<l2vpn_ac_data_entry_t> entries{
        {1, 0},
        {2, 0},
        {3, 0},
    };
    EXPECT_EQ(l2vpn_ac_data_sanitize(0, entries.data(), nullptr, nullptr, 3), EOK);
    for (const std::uint32_t bad : {0U, 0xFFFFFFFFU}) {
        for (auto &entry : entries) {
            const std::uint32_t good = std::exchange(entry.ifh, bad);
            EXPECT_EQ(l2vpn_ac_data_sanitize(4, entries.data(), nullptr, nullptr, 3),
                      static_cast<qerrno>(EINVAL));
            entry.ifh = good;
        }
    }
    entries[2].ifh = 0;
    EXPECT_EQ(l2vpn_ac_data_sanitize(4, entries.data(), nullptr, nullptr, 2), EOK)
        << "what lies behind the count is nobody's business";
}

TEST(sanitizer, an_empty_request_is_right_with_entries_and_without)
{
    const l2vpn_ac_data_entry_t unread{0, 0};
    EXPECT_EQ(l2vpn_ac_data_sanitize(4, &unread, nullptr, nullptr, 0), EOK);
    EXPECT_EQ(l2vpn_ac_data_sanitize(4, nullptr, nullptr, nullptr, 0), EOK);
    EXPECT_EQ(l2vpn_ac_data_sanitize(4, nullptr, nullptr, nullptr, 1), static_cast<qerrno>(EINVAL));
}

TEST(node_id, needs_somewhere_to_write)
{
    EXPECT_EQ(platform_get_my_nodeid(nullptr), static_cast<qerrno>(EINVAL));
}

} // namespace
