/*
 * The platform when the kernel gives nothing and there is no memory: each call it makes fails in turn.
 */
#include "failing/calls.h"
#include "timer_support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <platform/event_loop.h>
#include <platform/mgd_timer.h>
#include <platform/wavl.h>

namespace {

using namespace failing;
using timer_test::start;
using namespace std::chrono_literals;

constexpr unsigned most_calls = 100;

/* Calls `attempt(at)` with at = 1, 2, ... until it says that there were not that many calls; how many were. */
template <typename Attempt>
unsigned at_every_call(const Attempt &attempt)
{
    unsigned at = 1;
    while (at <= most_calls && attempt(at)) {
        ++at;
    }
    EXPECT_LE(at, most_calls);
    return at - 1;
}

TEST(event_mgr_failures, a_new_one_fails_with_the_cause_and_leaves_nothing)
{
    const size_t before = open_descriptors();
    const unsigned calls = at_every_call([&](unsigned at) {
        event_mgr_p evm = nullptr;
        int cause = 0;
        const failure what = fail_at(at, [&] {
            evm = event_mgr_new();
            cause = errno;
        });
        EXPECT_EQ(evm == nullptr, !what.call.empty());
        if (evm == nullptr) {
            EXPECT_EQ(cause, what.cause) << text_of(what);
        }
        event_mgr_free(evm);
        EXPECT_EQ(open_descriptors(), before) << text_of(what);
        return !what.call.empty();
    });
    EXPECT_GE(calls, 4U) << "memory, an epoll descriptor, one to be woken by, and its place in the set";
}

struct events : testing::Test {
    events() : evm(event_mgr_new()) {}
    ~events() override { event_mgr_free(evm); }

    static void count(event_context_t *, void *arg) { ++*static_cast<int *>(arg); }
    static void ready(event_fd_watch_t *, int, uint32_t, void *arg) { ++*static_cast<int *>(arg); }

    event_mgr_p evm;
    event_context_t context{};
    int called = 0;
};

TEST_F(events, an_attach_or_a_post_that_fails_has_done_nothing)
{
    const auto attach = [&] { return event_async_attach_event(evm, 7, count, &called, &context); };
    const unsigned calls = at_every_call([&](unsigned at) {
        int result = 0;
        int cause = 0;
        const failure what = fail_at(at, [&] {
            result = attach();
            cause = errno;
        });
        EXPECT_EQ(result < 0, !what.call.empty());
        if (result < 0) {
            EXPECT_EQ(cause, ENOMEM);
            EXPECT_EQ(event_async_post(evm, 7), 0);
            EXPECT_EQ(event_mgr_dispatch(evm, 0), 0) << "nothing is attached";
        }
        return result < 0;
    });
    EXPECT_GT(calls, 0U);
    /* Posts take memory now and then. */
    unsigned posted = 0;
    unsigned failed = 0;
    for (int round = 0; round < 1000 && failed == 0; ++round) {
        int cause = 0;
        (void)fail_call(allocation, ENOMEM, [&] {
            const int result = event_async_post(evm, 7);
            cause = errno;
            (result < 0 ? failed : posted) += 1;
        });
        if (failed > 0) {
            EXPECT_EQ(cause, ENOMEM);
        }
    }
    EXPECT_EQ(failed, 1U);
    while (event_mgr_dispatch(evm, 0) > 0) {
    }
    EXPECT_EQ(called, static_cast<int>(posted));
}

TEST_F(events, a_watch_that_fails_can_be_had_later)
{
    const unsigned calls = at_every_call([&](unsigned at) {
        event_fd_watch_t *watch = nullptr;
        int cause = 0;
        event_mgr_p other = event_mgr_new();
        event_async_post(other, 1); /* readable */
        const failure what = fail_at(at, [&] {
            watch = event_fd_watch(evm, event_mgr_fd(other), EVENT_FD_READ, ready, &called);
            cause = errno;
        });
        EXPECT_EQ(watch == nullptr, !what.call.empty());
        const bool failed = watch == nullptr;
        called = 0;
        if (failed) {
            EXPECT_EQ(cause, what.cause) << text_of(what);
            EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
            watch = event_fd_watch(evm, event_mgr_fd(other), EVENT_FD_READ, ready, &called);
        }
        EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
        EXPECT_EQ(called, 1);
        event_fd_unwatch(watch);
        event_mgr_free(other);
        return failed;
    });
    EXPECT_GE(calls, 3U) << "the watch, its place in the table, and that in the set";
}

TEST_F(events, a_wait_that_is_interrupted_ends_with_0_and_one_that_fails_with_the_cause)
{
    int result = 0;
    int cause = 0;
    const auto dispatch = [&] {
        result = event_mgr_dispatch(evm, 0);
        cause = errno;
    };
    EXPECT_EQ(fail_call("epoll_wait", EINTR, dispatch).cause, EINTR);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fail_call("epoll_wait", EINVAL, dispatch).cause, EINVAL);
    EXPECT_LT(result, 0);
    EXPECT_EQ(cause, EINVAL);
    EXPECT_EQ(fail_call("epoll_wait", EINVAL,
                        [&] {
                            result = event_mgr_run(evm);
                            cause = errno;
                        })
                  .cause,
              EINVAL);
    EXPECT_LT(result, 0);
    EXPECT_EQ(cause, EINVAL);
}

struct timer_failures : timer_test::timers {};

TEST_F(timer_failures, what_cannot_be_made_is_null_and_leaves_nothing)
{
    const size_t before = open_descriptors();
    const unsigned calls = at_every_call([&](unsigned at) {
        mgd_timer_tree_t *made = nullptr;
        const failure what = fail_at(at, [&] { made = mgd_timer_tree_new(&context, 1); });
        EXPECT_EQ(made == nullptr, !what.call.empty());
        mgd_timer_tree_free(made);
        EXPECT_EQ(open_descriptors(), before) << text_of(what);
        return made == nullptr;
    });
    EXPECT_GE(calls, 4U) << "the tree, its clock, its place among the others, and the watch of the clock";

    mgd_timer_parent_t *group = nullptr;
    EXPECT_EQ(fail_at(1, [&] { group = mgd_timer_parent_new(tree, nullptr); }).call, allocation);
    EXPECT_EQ(group, nullptr);

    EXPECT_GT(at_every_call([&](unsigned at) {
                  mgd_timer_leaf_t *leaf = nullptr;
                  const failure what = fail_at(
                      at, [&] { leaf = mgd_timer_leaf_new(tree, parent, nullptr, timer_test::nothing); });
                  EXPECT_EQ(leaf == nullptr, !what.call.empty());
                  mgd_timer_leaf_free(leaf);
                  return leaf == nullptr;
              }),
              0U);
}

/* Whatever fails on the way, the expiry is announced. */
TEST_F(timer_failures, an_expiry_is_announced_though_its_post_fails)
{
    mgd_timer_leaf_t *leaf = new_leaf();
    unsigned failed = 0;
    for (int round = 0; round < 1000 && failed == 0; ++round) {
        events = 0;
        start(leaf, 1ns);
        if (!fail_call(allocation, ENOMEM, [&] { event_mgr_dispatch(evm, 1000); }).call.empty()) {
            ++failed;
            EXPECT_EQ(events, 0);
            wait_for_event();
        }
        EXPECT_EQ(mgd_timer_tree_first_expired(tree), leaf);
        mgd_timer_leaf_stop(leaf);
    }
    EXPECT_EQ(failed, 1U);
}

TEST(tree_failures, a_tree_without_a_lock_is_none)
{
    wavl_tree_t tree{};
    wavl_node_t node{};
    const auto key = [](const wavl_node_t *of) -> const void * { return of; };
    const auto compare = [](const void *first, const void *second) {
        return first == second ? WAVL_EQUAL : first < second ? WAVL_SMALLER : WAVL_LARGER;
    };
    qerrno status = EOK;
    EXPECT_EQ(fail_at(1, [&] { status = wavl_init(&tree, 1, key, compare); }).call, "pthread_mutex_init");
    EXPECT_EQ(status, qerrno{ENOMEM});
    EXPECT_EQ(wavl_insert(&tree, &node), nullptr);
    ASSERT_EQ(wavl_init(&tree, 1, key, compare), qerrno{EOK});
    EXPECT_EQ(wavl_insert(&tree, &node), &node);
}

} // namespace
