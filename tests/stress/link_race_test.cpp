/*
 * The library on the real platform, over real links: its functions, and what comes from the links and the
 * clock, overlapping on many threads. As the contract wants it, clients are connected on the event manager's
 * thread; everything else is called from anywhere. Nothing here depends on who wins; a loser's data race or
 * use after free is the sanitizers' to find.
 *
 * A second of the retry timer is a millisecond here, so that timers expire all the time.
 */
#include "link_race.h"

#include <barrier>
#include <dlfcn.h>
#include <map>
#include <poll.h>

using namespace race_test;

namespace {

std::atomic<uint64_t> s_timer_starts = 0;
std::atomic<bool> s_waits_for_room = false;

template <typename Function>
Function behind(Function, const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

#pragma GCC visibility push(default)

/* In the platform's place. */
void mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *duration)
{
    constexpr long a_millisecond = 1'000'000;
    constexpr time_t longest = 100; /* to be waited for by a test */
    const timespec sooner = {.tv_sec = 0, .tv_nsec = std::min(duration->tv_sec, longest) * a_millisecond};
    ++s_timer_starts;
    behind(mgd_timer_leaf_start, "mgd_timer_leaf_start")(leaf, &sooner);
}

/* In the C library's place, so that a test knows when a request waits for room. */
extern "C" int noticed_poll(pollfd *, nfds_t, int) __asm__("poll");
int noticed_poll(pollfd *fds, nfds_t count, int timeout_ms)
{
    s_waits_for_room = s_waits_for_room || (count == 1 && fds->events == POLLOUT);
    return behind(noticed_poll, "poll")(fds, count, timeout_ms);
}

#pragma GCC visibility pop

namespace {

/* With a link that is up, one that is just being opened, and one that is ended by the process meanwhile. */
TEST_F(link_race, disconnect_against_requests_on_the_same_handle)
{
    constexpr int rounds = 60;
    constexpr uint32_t threads_a_round = 3;
    for (int round = 0; round < rounds; ++round) {
        process->ends_links_after = round % 3 == 2 ? 20 : 0;
        if (round % 3 == 0)
            connect(some_class);
        else
            connect_up(some_class);
        const l2vpn_ac_client_hd_t hd = of(some_class).hd;
        std::barrier start(threads_a_round + 1);
        std::vector<std::thread> threads;
        for (uint32_t thread = 0; thread < threads_a_round; ++thread) {
            threads.emplace_back([&, thread] {
                requests mine(some_class, thread, acs_a_request);
                const requests before = mine;
                start.arrive_and_wait();
                /* While it is being disconnected all kinds of failures may be; then there is no such client. */
                for (uint32_t which = thread, kinds_left = requests::kinds; kinds_left > 0; ++which) {
                    const bool was_gone = of(some_class).gone;
                    const qerrno rc = mine.make(which, hd);
                    EXPECT_TRUE(was_gone ? rc == requests::not_found(which) : plausible(rc, which)) << rc;
                    kinds_left -= was_gone ? 1 : 0;
                    std::this_thread::yield(); /* the lock is not a fair one */
                }
                EXPECT_TRUE(mine == before);
            });
        }
        start.arrive_and_wait();
        for (int yields = 0; yields < round % 7; ++yields)
            std::this_thread::yield();
        EXPECT_EQ(disconnect(some_class), 0u);
        for (std::thread &each : threads)
            each.join();
    }
    EXPECT_GT(process->messages(), 0u);
}

/* A request stands in the middle of a send, its client's context in its hands, when it is disconnected. */
TEST_F(link_race, a_request_that_waits_for_room_is_released_by_a_disconnect)
{
    for (int round = 0; round < 10; ++round) {
        connect_up(some_class);
        const uint64_t downs = of(some_class).downs;
        s_waits_for_room = false;
        std::thread requesting;
        process->while_it_reads_nothing([&] {
            requesting = std::thread([&, hd = of(some_class).hd.load()] {
                requests mine(some_class, 0, acs_a_request);
                const requests before = mine;
                qerrno rc = EOK;
                while (rc == EOK)
                    rc = mine.make(0, hd);
                EXPECT_EQ(rc, ENOENT) << "there is no such client";
                EXPECT_TRUE(mine == before);
            });
            EXPECT_TRUE(eventually([] { return s_waits_for_room.load(); }));
            EXPECT_EQ(disconnect(some_class), 0u);
            requesting.join();
        });
        EXPECT_GT(of(some_class).downs, downs) << "the failed send was taken over";
    }
}

TEST_F(link_race, disconnect_against_events_and_messages)
{
    constexpr int rounds = 60;
    process->ends_links_after = 8;
    for (const uint32_t class_id : classes) {
        of(class_id).on_message = [](l2vpn_ac_client_hd_t) { std::this_thread::yield(); };
        of(class_id).on_status = [](l2vpn_ac_client_hd_t, uint32_t) { std::this_thread::yield(); };
    }
    std::vector<std::thread> threads;
    for (const uint32_t class_id : classes) {
        threads.emplace_back([&, class_id] {
            requests mine(class_id, 0, acs_a_request);
            for (int round = 0; round < rounds; ++round) {
                const uint64_t told = of(class_id).calls;
                connect_up(class_id);
                for (uint32_t which = 0; which < 6; ++which)
                    EXPECT_TRUE(plausible(mine.make(which, of(class_id).hd), which));
                if (round % 3 == 0) {
                    EXPECT_TRUE(eventually([&] { return of(class_id).calls > told; }));
                }
                EXPECT_EQ(disconnect(class_id), 0u);
            }
        });
    }
    for (std::thread &each : threads)
        each.join();
}

/* The process is not there: the timers of joining clients expire and are started anew all the time. */
TEST_F(link_race, disconnect_against_expiring_timers)
{
    constexpr int rounds = 40;
    process->stop();
    for (int round = 0; round < rounds; ++round) {
        for (const uint32_t class_id : classes)
            connect(class_id);
        const uint64_t starts = s_timer_starts;
        ASSERT_TRUE(eventually([&] { return s_timer_starts > starts + static_cast<uint64_t>(round % 5); }));
        std::vector<std::thread> threads;
        for (const uint32_t class_id : classes)
            threads.emplace_back([&, class_id] { EXPECT_EQ(disconnect(class_id), 0u); });
        for (std::thread &each : threads)
            each.join();
    }
}

/*
 * All of it: two threads a class make requests, and so do the callbacks; one a class disconnects and connects
 * anew, as do callbacks; the process ends links, goes away and comes back, and the timers of who could not send
 * run. In the end, as after every DOWN, each client is told UP when the process is there, and it is heard.
 */
TEST_F(link_race, everything_at_once)
{
    constexpr int lives = 150;
    constexpr uint32_t requesters_a_class = 2;
    process->ends_links_after = 300;
    for (const uint32_t class_id : classes) {
        owner &self = of(class_id);
        self.on_message = [&self, class_id](l2vpn_ac_client_hd_t hd) {
            const auto call = static_cast<uint32_t>(self.calls);
            if (call % 4 == 0) {
                EXPECT_TRUE(plausible(requests(class_id, 80, 2).make(call / 4, hd), call / 4));
            }
            if (call % 50 == 0) {
                EXPECT_EQ(l2vpn_ac_process_disconnect(hd), qerrno{EDEADLK}) << "it is in a callback";
            }
        };
        self.on_status = [&self, class_id](l2vpn_ac_client_hd_t hd, uint32_t status) {
            if (status == L2VPN_AC_STATUS_UP) { /* one that failed in a DOWN would be told DOWN */
                EXPECT_TRUE(plausible(requests(class_id, 90, 2).make(0, hd), 0));
            }
            /* Refused for a DOWN that comes as an event, not for that of a request. */
            if (status == L2VPN_AC_STATUS_DOWN && self.downs % 4 == 0)
                (void)l2vpn_ac_process_disconnect(hd);
        };
    }
    for (const uint32_t class_id : classes)
        connect(class_id);

    std::atomic<size_t> living = classes.size();
    std::vector<std::thread> threads;
    for (const uint32_t class_id : classes) {
        for (uint32_t thread = 0; thread < requesters_a_class; ++thread) {
            threads.emplace_back([&, class_id, thread] {
                requests mine(class_id, thread, acs_a_request);
                const requests before = mine;
                for (uint32_t which = thread; living > 0; std::this_thread::yield()) {
                    if (!may_request(class_id))
                        continue;
                    const qerrno rc = mine.make(which, of(class_id).hd);
                    EXPECT_TRUE(plausible(rc, which)) << rc;
                    ++which;
                }
                EXPECT_TRUE(mine == before);
            });
        }
        threads.emplace_back([&, class_id] {
            for (int life = 0; life < lives; ++life) {
                const qerrno rc = disconnect(class_id);
                EXPECT_TRUE(rc == EOK || rc == EINVAL) << rc;
                connect(class_id);
                if (life % 2 == 0) /* a chance to come up */
                    for_a_moment([&, before = of(class_id).ups.load()] { return of(class_id).ups > before; });
            }
            --living;
        });
    }
    while (living > 0) {
        process->stop();
        process->start();
        for_a_moment([&, links = process->links()] {
            return living == 0 || process->links() >= links + classes.size();
        });
    }
    for (std::thread &each : threads)
        each.join();

    forget_hooks();
    process->ends_links_after = 0;
    const auto request = [&](uint32_t class_id) { return requests(class_id, 0, 1).make(0, of(class_id).hd); };
    const auto is_answered = [&](uint32_t class_id) {
        const uint64_t before = of(class_id).calls;
        return eventually([&] {
            EXPECT_TRUE(plausible(request(class_id), 0));
            return of(class_id).calls > before;
        });
    };
    for (const uint32_t class_id : classes) {
        /* A callback may have disconnected it; so may the thread of another class, with a stale handle. */
        const qerrno rc = try_connect(class_id);
        ASSERT_TRUE(rc == EOK || rc == EEXIST) << rc;
        ASSERT_TRUE(is_answered(class_id)) << "class " << class_id;
    }
    process->stop();
    std::map<uint32_t, uint64_t> ups;
    for (const uint32_t class_id : classes) {
        ASSERT_TRUE(eventually([&] { return request(class_id) == ENOTCONN; })) << "class " << class_id;
        ups[class_id] = of(class_id).ups;
    }
    process->start();
    for (const uint32_t class_id : classes) {
        ASSERT_TRUE(eventually([&] { return of(class_id).ups > ups[class_id]; })) << "class " << class_id;
        EXPECT_TRUE(is_answered(class_id)) << "class " << class_id;
    }
}

} // namespace
