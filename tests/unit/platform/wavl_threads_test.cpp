#include "wavl_support.h"

#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {

using namespace wavl_test;

constexpr int thread_count = 4;

/* Every thread inserts, finds and deletes nodes of its own, among everybody else's. */
TEST(wavl_threads, calls_on_one_tree_are_atomic)
{
    constexpr int rounds = 3000;
    constexpr int per_thread = 64;
    wavl_tree_t tree{};
    ASSERT_EQ(wavl_init(&tree, 1, key_of, compare), EOK);
    std::vector<item> pool(thread_count * per_thread);
    for (std::size_t index = 0; index < pool.size(); ++index) {
        pool[index].key = static_cast<int>(index);
    }
    std::atomic<int> surprises{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&, thread] {
            std::mt19937 random(static_cast<unsigned>(thread));
            std::vector<bool> inside(per_thread, false);
            for (int round = 0; round < rounds; ++round) {
                const std::size_t mine = random() % per_thread;
                item &chosen = pool[mine * thread_count + static_cast<std::size_t>(thread)];
                const wavl_node_t *found = wavl_search(&tree, &chosen.node, 0);
                surprises += found != (inside[mine] ? &chosen.node : nullptr) ? 1 : 0;
                if (inside[mine]) {
                    wavl_delete(&tree, &chosen.node);
                } else {
                    surprises += wavl_insert(&tree, &chosen.node) != &chosen.node ? 1 : 0;
                }
                inside[mine] = !inside[mine];
            }
            for (std::size_t mine = 0; mine < per_thread; ++mine) {
                if (!inside[mine]) {
                    wavl_insert(&tree, &pool[mine * thread_count + static_cast<std::size_t>(thread)].node);
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(surprises.load(), 0);
    std::vector<int> keys;
    EXPECT_EQ(check(tree, keys), "");
    EXPECT_EQ(keys.size(), pool.size());
}

/* Of all threads that insert one key, one succeeds; of all that delete its node, none does harm. */
TEST(wavl_threads, one_insert_of_a_key_wins)
{
    for (int round = 0; round < 200; ++round) {
        wavl_tree_t tree{};
        ASSERT_EQ(wavl_init(&tree, 1, key_of, compare), EOK);
        std::vector<item> rivals(thread_count);
        std::atomic<int> winners{0};
        std::vector<std::thread> threads;
        for (item &rival : rivals) {
            threads.emplace_back([&] { winners += wavl_insert(&tree, &rival.node) != nullptr ? 1 : 0; });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        ASSERT_EQ(winners.load(), 1);
        ASSERT_EQ(tree.size, 1U);
    }
}

/* A tree may be initialised while others already ask it: they find nothing, or what was inserted. */
TEST(wavl_threads, initialising_races_with_use)
{
    for (int round = 0; round < 200; ++round) {
        wavl_tree_t tree{};
        item any{.key = 3};
        std::atomic<int> inserted{0};
        std::vector<std::thread> threads;
        threads.emplace_back([&] { inserted += wavl_insert(&tree, &any.node) != nullptr ? 1 : 0; });
        threads.emplace_back([&] { static_cast<void>(wavl_search(&tree, &any.node, 0)); });
        threads.emplace_back([&] { EXPECT_EQ(wavl_init(&tree, 1, key_of, compare), EOK); });
        for (std::thread &thread : threads) {
            thread.join();
        }
        ASSERT_EQ(tree.size, static_cast<std::uint64_t>(inserted.load()));
    }
}

} // namespace
