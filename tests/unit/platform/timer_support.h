#ifndef TESTS_PLATFORM_TIMER_SUPPORT_H
#define TESTS_PLATFORM_TIMER_SUPPORT_H

#include <platform/event_loop.h>
#include <platform/mgd_timer.h>

#include <chrono>
#include <gtest/gtest.h>

namespace timer_test {

using namespace std::chrono_literals;

inline constexpr int expiry_code = 128;

inline timespec span_of(std::chrono::nanoseconds length)
{
    return {.tv_sec = static_cast<time_t>(length / 1s), .tv_nsec = static_cast<long>(length % 1s / 1ns)};
}

inline void start(mgd_timer_leaf_t *leaf, std::chrono::nanoseconds length)
{
    const timespec duration = span_of(length);
    mgd_timer_leaf_start(leaf, &duration);
}

inline void nothing(mgd_timer_leaf_t *) {}

/* An event manager and a tree whose expiry event calls on_expiry(). */
class timers : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(event_async_attach_event(
                      evm, expiry_code,
                      [](event_context_t *, void *arg) { static_cast<timers *>(arg)->on_expiry(); }, this,
                      &context),
                  0);
        tree = mgd_timer_tree_new(&context, 1);
        ASSERT_NE(tree, nullptr);
        parent = mgd_timer_parent_new(tree, nullptr);
        ASSERT_NE(parent, nullptr);
    }
    void TearDown() override
    {
        mgd_timer_parent_free(parent);
        mgd_timer_tree_free(tree);
        event_mgr_free(evm);
    }

    virtual void on_expiry() { ++events; }

    [[nodiscard]] mgd_timer_leaf_t *new_leaf(mgd_timer_fn_t function = nothing)
    {
        mgd_timer_leaf_t *leaf = mgd_timer_leaf_new(tree, parent, nullptr, function);
        EXPECT_NE(leaf, nullptr);
        return leaf;
    }

    /* Dispatches until an expiry event has come. Bounded by a count: the clock may be held. */
    void wait_for_event()
    {
        const int before = events;
        for (int pass = 0; pass < 50 && events == before; ++pass) {
            event_mgr_dispatch(evm, 1000);
        }
        ASSERT_GT(events, before) << "no expiry event came";
    }

    event_mgr_p evm = event_mgr_new();
    event_context_t context{};
    mgd_timer_tree_t *tree = nullptr;
    mgd_timer_parent_t *parent = nullptr;
    int events = 0;
};

} // namespace timer_test

#endif
