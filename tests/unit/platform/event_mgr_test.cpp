#include <platform/event_loop.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <thread>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class event_manager : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(evm, nullptr); }
    void TearDown() override { event_mgr_free(evm); }

    /* Attaches a handler that appends `code` to `seen`. */
    void attach(int code)
    {
        ASSERT_LT(static_cast<std::size_t>(code), std::size(contexts));
        ASSERT_EQ(event_async_attach_event(
                      evm, code,
                      [](event_context_t *context, void *arg) {
                          static_cast<event_manager *>(arg)->seen.push_back(context->code);
                      },
                      this, &contexts[code]),
                  0);
    }

    [[nodiscard]] bool readable() const
    {
        pollfd descriptor{.fd = event_mgr_fd(evm), .events = POLLIN, .revents = 0};
        return ::poll(&descriptor, 1, 0) == 1;
    }

    event_mgr_p evm = event_mgr_new();
    event_context_t contexts[8]{};
    std::vector<int> seen;
};

TEST_F(event_manager, every_post_calls_the_handler_once_in_order)
{
    attach(1);
    attach(2);
    for (const int code : {1, 2, 2, 1, 1}) {
        ASSERT_EQ(event_async_post(evm, code), 0);
    }
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 5);
    EXPECT_THAT(seen, ElementsAre(1, 2, 2, 1, 1));
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
}

TEST_F(event_manager, the_attach_fills_the_context_in)
{
    attach(3);
    EXPECT_EQ(contexts[3].evm, evm);
    EXPECT_EQ(contexts[3].code, 3);
    EXPECT_EQ(contexts[3].arg, this);
}

TEST_F(event_manager, a_second_attach_replaces_the_handler)
{
    attach(1);
    int calls = 0;
    event_context_t other{};
    ASSERT_EQ(event_async_attach_event(
                  evm, 1, [](event_context_t *, void *arg) { ++*static_cast<int *>(arg); }, &calls, &other),
              0);
    event_async_post(evm, 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(event_manager, a_code_without_a_handler_is_dropped)
{
    attach(1);
    event_async_post(evm, 7);
    event_async_post(evm, 1);
    event_async_post(evm, -1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_THAT(seen, ElementsAre(1));
    EXPECT_FALSE(readable());
}

TEST_F(event_manager, its_descriptor_is_readable_exactly_while_there_is_work)
{
    attach(1);
    EXPECT_FALSE(readable());
    event_async_post(evm, 1);
    event_async_post(evm, 1);
    EXPECT_TRUE(readable());
    event_mgr_dispatch(evm, 0);
    EXPECT_FALSE(readable());
}

/* What a handler posts is delivered too, and cannot keep one dispatch going for ever. */
TEST_F(event_manager, a_code_that_posts_itself_does_not_lock_the_dispatch_in)
{
    event_context_t context{};
    ASSERT_EQ(event_async_attach_event(
                  evm, 1, [](event_context_t *self, void *) { event_async_post(self->evm, self->code); },
                  nullptr, &context),
              0);
    event_async_post(evm, 1);
    for (int round = 0; round < 10; ++round) {
        EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
        EXPECT_TRUE(readable());
    }
}

TEST_F(event_manager, null_arguments_are_refused)
{
    event_context_t context{};
    const auto handler = [](event_context_t *, void *) {};
    errno = 0;
    EXPECT_LT(event_async_attach_event(nullptr, 1, handler, nullptr, &context), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(event_async_attach_event(evm, 1, nullptr, nullptr, &context), 0);
    EXPECT_LT(event_async_attach_event(evm, 1, handler, nullptr, nullptr), 0);
    errno = 0;
    EXPECT_LT(event_async_post(nullptr, 1), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(event_mgr_dispatch(nullptr, 0), 0);
    EXPECT_LT(event_mgr_run(nullptr), 0);
    EXPECT_LT(event_mgr_fd(nullptr), 0);
    event_mgr_stop(nullptr);
    event_mgr_free(nullptr);
}

TEST_F(event_manager, a_dispatch_waits_no_longer_than_asked)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(event_mgr_dispatch(evm, 20), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
}

TEST_F(event_manager, a_dispatch_from_a_handler_is_refused)
{
    event_context_t context{};
    int inner = 0;
    ASSERT_EQ(event_async_attach_event(
                  evm, 1,
                  [](event_context_t *self, void *arg) {
                      *static_cast<int *>(arg) = event_mgr_dispatch(self->evm, 0) < 0 ? errno : -1;
                  },
                  &inner, &context),
              0);
    event_async_post(evm, 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(inner, EBUSY);
}

TEST_F(event_manager, a_signal_ends_the_wait_with_0)
{
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> over{false};
    const pthread_t waiting = ::pthread_self();
    // One signal could come before the wait begins, so they go on until it has ended.
    std::thread sender([&] {
        while (!over) {
            ::pthread_kill(waiting, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_EQ(event_mgr_dispatch(evm, -1), 0);
    over = true;
    sender.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(event_manager, stop_ends_the_run_after_the_handler_in_progress)
{
    event_context_t context{};
    attach(2);
    ASSERT_EQ(
        event_async_attach_event(
            evm, 1, [](event_context_t *self, void *) { event_mgr_stop(self->evm); }, nullptr, &context),
        0);
    event_async_post(evm, 2);
    event_async_post(evm, 1);
    event_async_post(evm, 2);
    EXPECT_EQ(event_mgr_run(evm), 0);
    EXPECT_THAT(seen, ElementsAre(2));
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1) << "what waited behind the stop must not be lost";
    EXPECT_THAT(seen, ElementsAre(2, 2));
}

TEST_F(event_manager, a_stop_before_the_run_is_not_lost)
{
    event_mgr_stop(evm);
    EXPECT_EQ(event_mgr_run(evm), 0);
    attach(1);
    event_async_post(evm, 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1) << "the stop is used up";
}

TEST_F(event_manager, a_stop_from_a_signal_handler_ends_the_run)
{
    static event_mgr_p stopped;
    stopped = evm;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { event_mgr_stop(stopped); };
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    const pthread_t running = ::pthread_self();
    std::thread sender([&] { ::pthread_kill(running, SIGUSR1); });
    EXPECT_EQ(event_mgr_run(evm), 0);
    sender.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(event_manager, it_can_be_run_again)
{
    for (int round = 0; round < 3; ++round) {
        std::thread stopper([&] { event_mgr_stop(evm); });
        EXPECT_EQ(event_mgr_run(evm), 0);
        stopper.join();
    }
}

} // namespace
