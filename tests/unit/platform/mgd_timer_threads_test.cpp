#include "timer_support.h"

#include <array>
#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace timer_test;

/* A handler that does what the contract's user does: fetch, read, stop, call. */
class timer_threads : public timer_test::timers {
protected:
    void on_expiry() override
    {
        ++events;
        while (mgd_timer_leaf_t *leaf = mgd_timer_tree_first_expired(tree)) {
            // Another thread may free the leaf right here; it stays readable.
            const mgd_timer_fn_t function = mgd_timer_leaf_get_context(leaf);
            void *mine = mgd_timer_leaf_get_addl_context(leaf, 0);
            mgd_timer_leaf_stop(leaf);
            unreadable += function == nullptr || mine != this ? 1 : 0;
            ++expired;
        }
    }

    std::atomic<int> expired{0};
    std::atomic<int> unreadable{0};
};

/* All leaves started from many threads expire, each once. */
TEST_F(timer_threads, no_expiry_is_lost)
{
    constexpr int thread_count = 4;
    constexpr int per_thread = 500;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&] {
            for (int number = 0; number < per_thread; ++number) {
                mgd_timer_leaf_t *leaf = mgd_timer_leaf_new(tree, parent, nullptr, nothing);
                mgd_timer_leaf_set_addl_context(leaf, 0, this);
                start(leaf, std::chrono::microseconds(number % 7 * 100));
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (expired < thread_count * per_thread && std::chrono::steady_clock::now() < end) {
        event_mgr_dispatch(evm, 100);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(expired.load(), thread_count * per_thread);
    EXPECT_EQ(unreadable.load(), 0);
}

/* Leaves are made, started, stopped and freed, twice, by several threads while they expire. */
TEST_F(timer_threads, leaves_are_freed_while_they_expire)
{
    constexpr int thread_count = 3;
    constexpr int rounds = 1500;
    std::atomic<int> running{thread_count};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                std::array<mgd_timer_leaf_t *, 8> leaves{};
                for (mgd_timer_leaf_t *&leaf : leaves) {
                    leaf = mgd_timer_leaf_new(tree, parent, nullptr, nothing);
                    mgd_timer_leaf_set_addl_context(leaf, 0, this);
                    start(leaf, 0ns);
                }
                mgd_timer_leaf_stop(leaves[0]);
                start(leaves[1], 1us);
                std::this_thread::yield();
                for (mgd_timer_leaf_t *leaf : leaves) {
                    static_cast<void>(mgd_timer_leaf_running(leaf));
                    mgd_timer_leaf_free(leaf);
                    mgd_timer_leaf_free(leaf);
                    start(leaf, 0ns);
                }
            }
            if (--running == 0) {
                event_mgr_stop(evm);
            }
        });
    }
    EXPECT_EQ(event_mgr_run(evm), 0);
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unreadable.load(), 0);
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
}

/* A tree may be freed on one thread while its clock is being handled on another. */
TEST_F(timer_threads, trees_come_and_go_while_dispatching)
{
    std::atomic<int> leaves_left{0};
    std::thread other([&] {
        for (int round = 0; round < 1000; ++round) {
            mgd_timer_tree_t *passing = mgd_timer_tree_new(&context, 1);
            mgd_timer_leaf_t *leaf = mgd_timer_leaf_new(passing, parent, nullptr, nothing);
            start(leaf, 0ns);
            std::this_thread::yield();
            mgd_timer_tree_free(passing);
            leaves_left += mgd_timer_leaf_running(leaf);
        }
        event_mgr_stop(evm);
    });
    EXPECT_EQ(event_mgr_run(evm), 0);
    other.join();
    EXPECT_EQ(leaves_left.load(), 0);
}

} // namespace
