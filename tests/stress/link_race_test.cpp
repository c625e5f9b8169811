/*
 * The library on the real platform, over real links: its functions, and what comes from the links and the
 * clock, overlapping on many threads. As the contract wants it, clients are connected on the event manager's
 * thread; everything else is called from anywhere. Nothing here depends on who wins; a loser's data race or
 * use after free is the sanitizers' to find.
 *
 * A second of the retry timer is a millisecond here, so that timers expire all the time.
 */
#include "child.h"
#include "link_process.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <barrier>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <random>

using namespace race_test;
using system_test::eventually;

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

constexpr std::array<uint32_t, 4> classes = {3, 4, 5, 10};
constexpr uint32_t some_class = classes[1];

/* The arrays of a thread's requests. No two threads' have a handle in common. */
struct requests {
    requests(uint32_t class_id, uint32_t thread, uint32_t count)
        : ifh(count), defns(count), infos(count), map(vlans)
    {
        for (uint32_t i = 0; i < count; ++i) {
            ifh[i] = first_handle(class_id) + thread * 10'000 + i;
            std::memset(&defns[i], static_cast<int>(i + 1), sizeof defns[i]);
            std::memset(&infos[i], static_cast<int>(i + 2), sizeof infos[i]);
        }
        for (uint32_t i = 0; i < vlans; ++i)
            map[i] = {static_cast<uint16_t>(thread), static_cast<uint16_t>(i)};
    }

    /* Any request: those for one AC in a message, the others in several. */
    qerrno make(uint32_t which, l2vpn_ac_client_hd_t hd)
    {
        switch (which % 5) {
        case 0:
            return l2vpn_ac_create(hd, 0, size(), ifh.data(), defns.data(), infos.data());
        case 1:
            return l2vpn_ac_update(hd, 0, size(), ifh.data(), infos.data());
        case 2:
            return l2vpn_ac_delete(hd, 0, size(), ifh.data());
        case 3:
            return l2vpn_msti_vid_map(hd, 0, map.data(), vlans);
        default:
            return l2vpn_ac_create(hd, 0, 1, ifh.data(), defns.data(), infos.data());
        }
    }
    static qerrno not_found(uint32_t which) { return which % 5 == 0 || which % 5 == 4 ? ENOENT : EINVAL; }

    [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(ifh.size()); }
    bool operator==(const requests &other) const
    {
        const auto same = [](const auto &a, const auto &b) {
            return std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0;
        };
        return ifh == other.ifh && same(defns, other.defns) && same(infos, other.infos) &&
               same(map, other.map);
    }

    static constexpr uint32_t vlans = 1200;
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;
    std::vector<l2vpn_msti_vid_map_t> map;
};

constexpr uint32_t acs_a_request = 10; /* four messages */

/* One class, its client, and what its callbacks were told. */
struct owner {
    std::atomic<l2vpn_ac_client_hd_t> hd = nullptr;
    std::atomic<bool> gone = true; /* a disconnect has returned */
    std::atomic<uint64_t> ups = 0;
    std::atomic<uint64_t> downs = 0;
    std::atomic<uint64_t> ups_before = 0; /* the latest connect */
    std::atomic<uint32_t> unheard = 0;    /* requests since then */
    std::atomic<uint64_t> calls = 0;      /* of the other four callbacks, and of the notice */
    std::function<void(l2vpn_ac_client_hd_t hd, uint32_t status)> on_status;
    std::function<void(l2vpn_ac_client_hd_t hd)> on_message;
};

class link_race : public testing::Test {
protected:
    void SetUp() override
    {
        s_race = this;
        static const bool configured = configure();
        ASSERT_TRUE(configured);
        m_owners_loop.emplace(event_manager());
        /* The library is initialised once in a program's life. */
        connect(some_class);
        EXPECT_EQ(disconnect(some_class), 0u);
        m_owners_loop->call([this] { m_descriptors = descriptors(); });
        process.emplace();
        process->start();
    }

    /* Whatever a test did, its clients can be disconnected, and nothing is left then. */
    void TearDown() override
    {
        forget_hooks();
        for (const uint32_t class_id : classes) {
            if (!of(class_id).gone) {
                EXPECT_EQ(disconnect(class_id), 0u);
            }
        }
        process->stop();
        EXPECT_EQ(process->faults(), "");
        EXPECT_EQ(m_wrong, "");
        process.reset();
        m_owners_loop->call([this] { EXPECT_EQ(descriptors(), m_descriptors); });
        m_owners_loop.reset();
        s_race = nullptr;
    }

    owner &of(uint32_t class_id)
    {
        return m_owners[static_cast<size_t>(std::ranges::find(classes, class_id) - classes.begin())];
    }

    void forget_hooks()
    {
        m_owners_loop->call([this] {
            for (owner &each : m_owners) {
                each.on_status = nullptr;
                each.on_message = nullptr;
            }
        });
    }

    /* On the event manager's thread, as it must be. */
    qerrno try_connect(uint32_t class_id)
    {
        qerrno rc = EINPROGRESS;
        m_owners_loop->call([&] {
            static const std::array vectors = {vector_of<0>(), vector_of<1>(), vector_of<2>(),
                                               vector_of<3>()};
            auto callbacks = vectors[static_cast<size_t>(&of(class_id) - m_owners.data())];
            l2vpn_ac_client_hd_t hd = nullptr;
            rc = l2vpn_ac_process_connect(event_manager(), 0, class_id, &callbacks, &hd);
            if (rc == EOK) {
                of(class_id).hd = hd;
                of(class_id).gone = false;
                of(class_id).ups_before = of(class_id).ups.load();
                of(class_id).unheard = 0;
            }
        });
        return rc;
    }
    void connect(uint32_t class_id) { EXPECT_EQ(try_connect(class_id), 0u); }

    /* On any thread; again while a callback of the client runs. */
    qerrno disconnect(uint32_t class_id)
    {
        qerrno rc = EDEADLK;
        while (rc == EDEADLK) {
            rc = l2vpn_ac_process_disconnect(of(class_id).hd);
            std::this_thread::yield();
        }
        of(class_id).gone = true;
        return rc;
    }

    void connect_up(uint32_t class_id)
    {
        const uint64_t before = of(class_id).ups;
        connect(class_id);
        ASSERT_TRUE(eventually([&] { return of(class_id).ups > before; }));
    }

    /* Waits for what may never be. */
    static void for_a_moment(const std::function<bool()> &condition)
    {
        for (int left = 50; left > 0 && !condition(); --left)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    /* Until a class was up its messages wait in a queue; where that is full a request is cut short. */
    bool may_request(uint32_t class_id)
    {
        constexpr uint32_t fit = 500;
        owner &self = of(class_id);
        return self.ups > self.ups_before || ++self.unheard < fit;
    }

    /* A request's status while the process may be there or not. */
    static bool plausible(qerrno rc, uint32_t which)
    {
        return rc == EOK || rc == requests::not_found(which) || rc == ENOTCONN || rc == ENOENT;
    }

    void wrong(const std::string &text)
    {
        const std::lock_guard guard(m_lock);
        if (m_wrong.size() < 1000)
            m_wrong += text + "\n";
    }

    std::optional<link_process> process;

private:
    static bool configure()
    {
        static const system_test::temp_dir dir;
        for (const auto &[name, value] : {std::pair{"L2VPN_RUNTIME_DIR", dir.path().c_str()},
                                          {"L2VPN_NODEID", "7"},
                                          {"L2VPN_MTU", "2048"},
                                          {"L2VPN_SEND_TIMEOUT_MS", "60000"},
                                          {"L2VPN_TRACE", "on"},
                                          {"L2VPN_CAPTURE", "on"},
                                          {"L2VPN_CAPTURE_SIZE", "64"}})
            setenv(name, value, 1);
        return true;
    }

    /* The library holds on to it for the life of the program. */
    static event_mgr_p event_manager()
    {
        static const event_mgr_p evm = event_mgr_new();
        return evm;
    }

    /* On the event manager's thread, so that it holds none for the moment. */
    static size_t descriptors()
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    template <size_t index>
    static l2vpn_ac_callback_vector_t constexpr vector_of()
    {
        return {on_status<index>, on_provision<index>, on_unprovision<index>,
                on_bulk<index>,   on_header<index>,    nullptr,
                nullptr};
    }

    template <size_t index>
    static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t)
    {
        if (status == L2VPN_AC_STATUS_FLAG)
            return told(index, hd, first_handle(classes[index]));
        owner &self = s_race->m_owners[index];
        ++(status == L2VPN_AC_STATUS_UP ? self.ups : self.downs);
        if (self.on_status)
            self.on_status(hd, status);
        return EOK;
    }
    template <size_t index>
    static qerrno on_provision(l2vpn_ac_client_hd_t hd, uint32_t, ifhtype *ifh, l2vpn_ac_xcid_data_t *data,
                               uint32_t)
    {
        if (data->words[2] != ifh[0])
            s_race->wrong("data of another AC");
        return told(index, hd, ifh[0]);
    }
    template <size_t index>
    static qerrno on_unprovision(l2vpn_ac_client_hd_t hd, uint32_t, ifhtype *ifh, uint32_t)
    {
        return told(index, hd, ifh[0]);
    }
    template <size_t index>
    static qerrno on_bulk(l2vpn_ac_client_hd_t hd, uint32_t, l2vpn_ac_bulk_notify_t *records, uint32_t)
    {
        return told(index, hd, records->word);
    }
    template <size_t index>
    static qerrno on_header(l2vpn_ac_client_hd_t hd, uint32_t word2, void *, uint32_t)
    {
        return told(index, hd, ntohl(word2));
    }

    /* What came by a message comes on the event manager's thread alone, to the client of the class that it
     * was meant for, and never once a disconnect of it has returned. */
    static qerrno told(size_t index, l2vpn_ac_client_hd_t hd, uint32_t handle)
    {
        owner &self = s_race->m_owners[index];
        if (std::this_thread::get_id() != s_race->m_owners_loop->id())
            s_race->wrong("a message's callback on another thread");
        if (handle_class(handle) != classes[index])
            s_race->wrong("a message for another class");
        if (hd != self.hd || self.gone)
            s_race->wrong("a message's callback after the disconnect");
        ++self.calls;
        if (self.on_message)
            self.on_message(hd);
        return EOK;
    }

    static inline link_race *s_race = nullptr;

    std::array<owner, classes.size()> m_owners;
    std::optional<loop_thread> m_owners_loop;
    size_t m_descriptors = 0;
    std::mutex m_lock;
    std::string m_wrong;
};

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
                /* Until there is no client any more, and then it stays so. */
                bool gone = false;
                for (uint32_t which = thread; which < 1000 && !gone; ++which) {
                    const qerrno rc = mine.make(which, hd);
                    gone = rc == requests::not_found(which);
                    EXPECT_TRUE(plausible(rc, which)) << rc;
                }
                for (uint32_t which = 0; which < 5 && gone; ++which)
                    EXPECT_TRUE(mine.make(which, hd) == requests::not_found(which) || !of(some_class).gone);
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
