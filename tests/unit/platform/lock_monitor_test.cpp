#include <platform/config.h>
#include <platform/lock_monitor.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<platform_lock_site_t> all_sites()
{
    std::vector<platform_lock_site_t> sites(256);
    const std::size_t count = platform_lock_sites(sites.data(), sites.size());
    EXPECT_LE(count, 128U);
    sites.resize(count);
    return sites;
}

platform_lock_site_t site_of(const std::string &function, std::uint32_t line)
{
    for (const platform_lock_site_t &site : all_sites()) {
        if (site.function == function && site.line == line) {
            return site;
        }
    }
    return {};
}

pthread_mutex_t any_mutex = PTHREAD_MUTEX_INITIALIZER;

TEST(lock_monitor, a_wait_is_counted_and_timed)
{
    ptd_set_mutex_block(&any_mutex, "waits_once", 10);
    EXPECT_EQ(site_of("waits_once", 10).waiting, 1U);
    EXPECT_EQ(site_of("waits_once", 10).count, 0U);
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(3)) {
    }
    ptd_unset_mutex_block();
    const platform_lock_site_t site = site_of("waits_once", 10);
    EXPECT_EQ(site.waiting, 0U);
    EXPECT_EQ(site.count, 1U);
    EXPECT_GE(site.total_ns, 3'000'000U);
    EXPECT_EQ(site.longest_ns, site.total_ns);
}

TEST(lock_monitor, places_are_told_apart_by_function_and_line)
{
    for (const std::uint32_t line : {1U, 2U, 2U}) {
        ptd_set_mutex_block(&any_mutex, "two_lines", line);
        ptd_unset_mutex_block();
    }
    // The same name at another address is the same function.
    const std::string copy = "two_lines";
    ptd_set_mutex_block(&any_mutex, copy.c_str(), 1);
    ptd_unset_mutex_block();
    EXPECT_EQ(site_of("two_lines", 1).count, 2U);
    EXPECT_EQ(site_of("two_lines", 2).count, 2U);
}

TEST(lock_monitor, a_second_announcement_replaces_the_first)
{
    ptd_set_mutex_block(&any_mutex, "replaced", 1);
    ptd_set_mutex_block(&any_mutex, "replacing", 1);
    ptd_unset_mutex_block();
    ptd_unset_mutex_block();
    EXPECT_EQ(site_of("replaced", 1).count, 0U);
    EXPECT_EQ(site_of("replaced", 1).waiting, 0U);
    EXPECT_EQ(site_of("replacing", 1).count, 1U);
}

TEST(lock_monitor, withdrawing_without_an_announcement_does_nothing)
{
    const std::size_t before = platform_lock_sites(nullptr, 0);
    ptd_unset_mutex_block();
    EXPECT_EQ(platform_lock_sites(nullptr, 0), before);
}

TEST(lock_monitor, odd_arguments_are_counted_too)
{
    ptd_set_mutex_block(nullptr, nullptr, 0);
    ptd_unset_mutex_block();
    const std::string long_name(500, 'x');
    ptd_set_mutex_block(&any_mutex, long_name.c_str(), 1);
    ptd_unset_mutex_block();
    EXPECT_EQ(site_of("?", 0).count, 1U);
    EXPECT_EQ(site_of(long_name.substr(0, sizeof platform_lock_site_t::function - 1), 1).count, 1U);
}

TEST(lock_monitor, only_as_many_places_are_written_as_there_is_room_for)
{
    ptd_set_mutex_block(&any_mutex, "first", 1);
    ptd_unset_mutex_block();
    ptd_set_mutex_block(&any_mutex, "second", 1);
    ptd_unset_mutex_block();
    std::vector<platform_lock_site_t> sites(2);
    sites[1].line = 4711;
    EXPECT_GE(platform_lock_sites(sites.data(), 1), 2U);
    EXPECT_EQ(sites[1].line, 4711U);
}

TEST(lock_monitor, waits_of_many_threads_all_count)
{
    constexpr int thread_count = 4;
    constexpr int waits = 2000;
    pthread_mutex_t contended = PTHREAD_MUTEX_INITIALIZER;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&] {
            for (int wait = 0; wait < waits; ++wait) {
                ptd_set_mutex_block(&contended, "many_threads", 5);
                pthread_mutex_lock(&contended);
                ptd_unset_mutex_block();
                pthread_mutex_unlock(&contended);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(site_of("many_threads", 5).count, static_cast<std::uint64_t>(thread_count * waits));
    EXPECT_EQ(site_of("many_threads", 5).waiting, 0U);
}

/* Last in this file: it fills the table. */
TEST(lock_monitor, more_places_than_there_are_rows_share_one)
{
    for (std::uint32_t line = 0; line < 300; ++line) {
        ptd_set_mutex_block(&any_mutex, "many_places", line);
        ptd_unset_mutex_block();
    }
    const auto sites = all_sites();
    EXPECT_EQ(sites.size(), 128U);
    std::uint64_t counted = 0;
    for (const platform_lock_site_t &site : sites) {
        const std::string function = site.function;
        counted += function == "many_places" || function == "(other places)" ? site.count : 0;
    }
    EXPECT_EQ(counted, 300U);
    EXPECT_EQ(std::ranges::count_if(
                  sites, [](const auto &site) { return std::string(site.function) == "(other places)"; }),
              1);
}

} // namespace
