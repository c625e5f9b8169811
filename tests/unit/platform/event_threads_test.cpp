#include <platform/event_loop.h>

#include <array>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/* Codes posted from many threads are all delivered, each once. */
TEST(event_threads, no_post_is_lost_and_none_comes_twice)
{
    constexpr int thread_count = 4;
    constexpr int posts = 5000;
    event_mgr_p evm = event_mgr_new();
    ASSERT_NE(evm, nullptr);
    struct tally {
        event_mgr_p evm;
        int left = thread_count * posts;
        int calls = 0;
    } all{.evm = evm};
    std::array<event_context_t, thread_count> contexts{};
    for (int code = 0; code < thread_count; ++code) {
        ASSERT_EQ(event_async_attach_event(
                      evm, code,
                      [](event_context_t *, void *arg) {
                          auto &tallied = *static_cast<tally *>(arg);
                          ++tallied.calls;
                          if (--tallied.left == 0) {
                              event_mgr_stop(tallied.evm);
                          }
                      },
                      &all, &contexts[static_cast<std::size_t>(code)]),
                  0);
    }
    std::vector<std::thread> threads;
    for (int code = 0; code < thread_count; ++code) {
        threads.emplace_back([evm, code] {
            for (int post = 0; post < posts; ++post) {
                EXPECT_EQ(event_async_post(evm, code), 0);
            }
        });
    }
    EXPECT_EQ(event_mgr_run(evm), 0);
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
    EXPECT_EQ(all.calls, thread_count * posts);
    event_mgr_free(evm);
}

/* Handlers are attached and replaced while codes come in. */
TEST(event_threads, attaching_while_dispatching)
{
    event_mgr_p evm = event_mgr_new();
    ASSERT_NE(evm, nullptr);
    std::atomic<int> calls{0};
    std::array<event_context_t, 2000> contexts{};
    std::thread other([&] {
        for (event_context_t &context : contexts) {
            EXPECT_EQ(event_async_attach_event(
                          evm, 1,
                          [](event_context_t *, void *arg) { ++*static_cast<std::atomic<int> *>(arg); },
                          &calls, &context),
                      0);
            EXPECT_EQ(event_async_post(evm, 1), 0);
        }
        event_mgr_stop(evm);
    });
    EXPECT_EQ(event_mgr_run(evm), 0);
    other.join();
    event_mgr_dispatch(evm, 0);
    EXPECT_EQ(calls.load(), static_cast<int>(contexts.size()));
    event_mgr_free(evm);
}

/* Other threads watch, change and unwatch descriptors that are always readable while the handlers run. Each
 * watch's argument lives as long as the test: the promise about the end of calls is for the dispatching
 * thread. */
TEST(event_threads, watches_come_and_go_while_dispatching)
{
    constexpr int thread_count = 3;
    constexpr int rounds = 1000;
    event_mgr_p evm = event_mgr_new();
    ASSERT_NE(evm, nullptr);
    std::atomic<int> running{thread_count};
    std::array<std::atomic<int>, thread_count> calls{}; // of each thread's watches
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&, &called = calls[static_cast<std::size_t>(thread)]] {
            const int fd = ::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
            for (int round = 0; round < rounds; ++round) {
                event_fd_watch_t *watch = event_fd_watch(
                    evm, fd, EVENT_FD_READ,
                    [](event_fd_watch_t *self, int, std::uint32_t, void *arg) {
                        ++*static_cast<std::atomic<int> *>(arg);
                        event_fd_modify(self, EVENT_FD_READ); // may have been ended meanwhile
                    },
                    &called);
                EXPECT_NE(watch, nullptr);
                const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
                do {
                    std::this_thread::yield(); // the last stays until a handler has run
                } while (round == rounds - 1 && called == 0 && std::chrono::steady_clock::now() < until);
                event_fd_modify(watch, round % 2 == 0 ? 0 : EVENT_FD_READ);
                event_fd_unwatch(watch);
            }
            ::close(fd);
            if (--running == 0) {
                event_mgr_stop(evm);
            }
        });
    }
    EXPECT_EQ(event_mgr_run(evm), 0);
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
    for (const std::atomic<int> &called : calls) {
        EXPECT_GT(called.load(), 0);
    }
    event_mgr_free(evm);
}

} // namespace
