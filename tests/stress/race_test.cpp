/*
 * The library's functions, events, messages and timers, overlapping on several threads. The test's own thread
 * is the event manager's: it delivers, and moves the clock. Nothing here depends on who wins; a loser's data
 * race or use after free is the sanitizers' to find, a lost or doubled client the assertions'.
 */
#include "contract_test.h"

#include <atomic>
#include <barrier>
#include <thread>

namespace {

class race : public contract {
protected:
    race()
    {
        world.set.record = false;
        callbacks.status_cb = [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno { return 0; };
        callbacks.unprov_cb = nullptr;
    }

    static constexpr int rounds = 300;

    /* What a request on a client that may be gone is allowed to return. */
    static bool plausible(qerrno rc, qerrno gone) { return rc == 0 || rc == gone; }
};

TEST_F(race, disconnect_against_requests_on_the_same_handle)
{
    for (int round = 0; round < rounds; ++round) {
        const auto hd = connect(4);
        std::barrier start(3);
        std::atomic<int> wrong = 0;
        std::thread creating([&] {
            acs a(3);
            start.arrive_and_wait();
            for (int i = 0; i < 20; ++i)
                wrong += !plausible(create(hd, 0, a), 2) || !(a == acs(3));
        });
        std::thread mapping([&] {
            l2vpn_msti_vid_map_t map[5] = {{1, 2}, {3, 4}, {5, 6}, {7, 8}, {9, 10}};
            start.arrive_and_wait();
            for (int i = 0; i < 20; ++i)
                wrong += !plausible(lib.msti_vid_map(hd, 0, map, 5), 22) || map[4].half2 != 10;
        });
        start.arrive_and_wait();
        EXPECT_EQ(lib.disconnect(hd), 0u);
        creating.join();
        mapping.join();
        EXPECT_EQ(wrong, 0);
        ASSERT_EQ(world.clients(), 0u);
        ASSERT_EQ(world.live_leaves(), 0u);
    }
}

TEST_F(race, disconnect_against_failing_requests)
{
    world.fail_randomly(fn::l2vpn_ipc_ucastv, 0.5, 105);
    for (int round = 0; round < rounds; ++round) {
        const auto hd = connect(4);
        world.link_of(4).up();
        world.run();
        std::barrier start(2);
        std::thread creating([&] {
            acs a(3);
            start.arrive_and_wait();
            /* A failed send is taken over while the client is there; then there is no client. */
            bool gone = false;
            for (int i = 0; i < 20; ++i) {
                const qerrno rc = create(hd, 0, a);
                EXPECT_TRUE(plausible(rc, 2) && !(gone && rc == 0)) << rc;
                gone = gone || rc == 2;
            }
            EXPECT_EQ(a, acs(3));
        });
        start.arrive_and_wait();
        EXPECT_EQ(lib.disconnect(hd), 0u);
        creating.join();
        ASSERT_EQ(world.clients(), 0u);
        ASSERT_EQ(world.live_leaves(), 0u);
    }
}

/* A handle is an address, which a later client may be given: requests on stale handles meet nobody or the new
 * client, and never take one away. */
TEST_F(race, requests_on_stale_handles_against_reconnects)
{
    std::atomic<l2vpn_ac_client_hd_t> latest = connect(4);
    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> requesting;
    for (int t = 0; t < 2; ++t) {
        requesting.emplace_back([&] {
            acs a(3);
            while (!done) {
                const l2vpn_ac_client_hd_t hd = latest;
                for (int i = 0; i < 10; ++i) {
                    wrong += !plausible(update(hd, 0, a), 22);
                    wrong += !plausible(create(hd, 0, a), 2);
                }
                wrong += !(a == acs(3));
            }
        });
    }
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(lib.disconnect(latest), 0u);
        latest = connect(4);
        ASSERT_EQ(world.clients(), 1u);
    }
    done = true;
    for (auto &thread : requesting)
        thread.join();
    EXPECT_EQ(wrong, 0);
    acs a(1);
    EXPECT_EQ(create(latest, 0, a), 0u) << "the last client is still there";
}

/* The library is initialised once, whoever comes first. */
TEST_F(race, first_connects_of_two_threads)
{
    world.set.record = true;
    std::barrier start(2);
    const auto connecting = [&](std::uint32_t class_id) {
        l2vpn_ac_client_hd_t hd = nullptr;
        start.arrive_and_wait();
        EXPECT_EQ(lib.connect(world.evm(), 0, class_id, &callbacks, &hd), 0u);
    };
    std::thread other([&] { connecting(4); });
    connecting(5);
    other.join();
    EXPECT_EQ(world.count(fn::l2vpn_debug_init), 1u);
    EXPECT_EQ(world.count(fn::l2vpn_ipc_client_init), 1u);
    EXPECT_EQ(world.count(fn::wavl_init), 1u);
    EXPECT_EQ(world.clients(), 2u);
}

/* A class is connected once at a time; the loser leaves nothing behind. */
TEST_F(race, connects_of_one_class_by_two_threads)
{
    for (int round = 0; round < rounds; ++round) {
        std::barrier start(2);
        l2vpn_ac_client_hd_t hds[2] = {};
        qerrno rcs[2] = {};
        const auto connecting = [&](int which) {
            start.arrive_and_wait();
            rcs[which] = lib.connect(world.evm(), 0, 4, &callbacks, &hds[which]);
        };
        std::thread other([&] { connecting(1); });
        connecting(0);
        other.join();
        const int winner = rcs[0] == 0 ? 0 : 1;
        EXPECT_EQ(rcs[winner], 0u);
        EXPECT_EQ(rcs[1 - winner], 17u);
        EXPECT_EQ(hds[1 - winner], nullptr);
        ASSERT_EQ(world.clients(), 1u);
        ASSERT_EQ(world.live_leaves(), 1u);
        EXPECT_EQ(lib.disconnect(hds[winner]), 0u);
    }
}

/* From a thread of its own, a connect can be overtaken by the event that says the process is there: it then
 * sets the client back to joining, and JOIN goes on being sent until the next event. */
TEST_F(race, connect_overtaken_by_its_event)
{
    world.set.record = true;
    std::barrier at_join(2);
    world.before(fn::l2vpn_ipc_ucast, [&] {
        at_join.arrive_and_wait();
        at_join.arrive_and_wait();
    });
    l2vpn_ac_client_hd_t hd = nullptr;
    std::thread connecting([&] { EXPECT_EQ(lib.connect(world.evm(), 0, 4, &callbacks, &hd), 0u); });
    at_join.arrive_and_wait();
    world.link_of(4).up();
    world.run();
    at_join.arrive_and_wait();
    connecting.join();
    world.before(fn::l2vpn_ipc_ucast, {});

    EXPECT_EQ(sent(4).size(), 1u);
    world.advance(seconds(4));
    EXPECT_EQ(sent(4).size(), 2u) << "joining still";
    world.link_of(4).up();
    world.run();
    world.advance(seconds(60));
    EXPECT_EQ(sent(4).size(), 2u) << "up";
}

/* A disconnect event that comes between the connect's last two steps leaves the client idle, with no timer. */
TEST_F(race, connect_overtaken_by_a_disconnect_event)
{
    std::barrier at_end(2);
    std::atomic<bool> armed = true;
    world.before(fn::gen_format_debug_fmt, [&] {
        if (armed.exchange(false)) {
            at_end.arrive_and_wait();
            at_end.arrive_and_wait();
        }
    });
    l2vpn_ac_client_hd_t hd = nullptr;
    qerrno rc = 0;
    std::thread connecting([&] { rc = lib.connect(world.evm(), 0, 4, &callbacks, &hd); });
    at_end.arrive_and_wait(); /* the first text of a connect is the activation's */
    world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
    world.run();
    at_end.arrive_and_wait();
    connecting.join();
    EXPECT_EQ(rc, 2u);
    ASSERT_NE(hd, nullptr) << "connected all the same";
    EXPECT_TRUE(world.timers().empty());
    EXPECT_EQ(lib.disconnect(hd), 0u);
}

TEST_F(race, disconnect_of_one_handle_by_many_succeeds_once)
{
    for (int round = 0; round < rounds; ++round) {
        const auto hd = connect(4);
        std::barrier start(4);
        std::atomic<int> succeeded = 0, refused = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                const qerrno rc = lib.disconnect(hd);
                succeeded += rc == 0;
                refused += rc == 22;
            });
        }
        for (auto &thread : threads)
            thread.join();
        EXPECT_EQ(succeeded, 1);
        EXPECT_EQ(refused, 3);
    }
}

/* The timer's function looks its client up while a disconnect takes it away. */
TEST_F(race, disconnect_against_expiring_timers)
{
    for (int round = 0; round < rounds; ++round) {
        const l2vpn_ac_client_hd_t hds[] = {connect(4), connect(5), connect(6)};
        std::barrier start(2);
        std::thread disconnecting([&] {
            start.arrive_and_wait();
            for (const auto hd : hds)
                EXPECT_EQ(lib.disconnect(hd), 0u);
        });
        start.arrive_and_wait();
        for (int i = 0; i < 5; ++i)
            world.advance(seconds(4));
        disconnecting.join();
        ASSERT_EQ(world.clients(), 0u);
        ASSERT_EQ(world.live_leaves(), 0u);
    }
}

/* Events and messages are delivered while another thread disconnects: the disconnect is refused while a
 * callback runs, and may be repeated. */
TEST_F(race, disconnect_against_events_and_messages)
{
    callbacks.unprov_cb = [](l2vpn_ac_client_hd_t, std::uint32_t, ifhtype *, std::uint32_t) -> qerrno {
        std::this_thread::yield();
        return 0;
    };
    for (int round = 0; round < rounds; ++round) {
        const auto hd = connect(4);
        std::barrier start(2);
        std::thread disconnecting([&] {
            start.arrive_and_wait();
            qerrno rc = 35;
            while (rc == 35)
                rc = lib.disconnect(hd);
            EXPECT_EQ(rc, 0u);
        });
        start.arrive_and_wait();
        for (int i = 0; i < 5; ++i) {
            world.link_of(4).up();
            world.link_of(4).inject(message_of(8, 2, 0x2, 8));
            world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
            world.run();
        }
        disconnecting.join();
        ASSERT_EQ(world.clients(), 0u);
    }
}

/* A connect that fails at its JOIN takes its registered client back while events for it are delivered. */
TEST_F(race, failing_connects_against_events)
{
    connect(5); /* the library is initialised */
    std::atomic<bool> done = false;
    std::thread connecting([&] {
        for (int round = 0; round < rounds; ++round) {
            l2vpn_ac_client_hd_t hd = nullptr;
            const qerrno rc = lib.connect(world.evm(), 0, 4, &callbacks, &hd);
            EXPECT_TRUE(rc != 0 || hd != nullptr);
            if (hd != nullptr) { /* connected, also with 2: a disconnect event has overtaken its last step */
                EXPECT_TRUE(plausible(rc, 2)) << rc;
                qerrno gone = 35;
                while (gone == 35)
                    gone = lib.disconnect(hd);
                EXPECT_EQ(gone, 0u);
            }
        }
        done = true;
    });
    world.fail_randomly(fn::l2vpn_ipc_ucast, 0.5, 105);
    while (!done) {
        world.link_of(4).event(L2VPN_IPC_EVT_CONNECTED);
        world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
        world.run();
    }
    connecting.join();
    EXPECT_EQ(world.clients(), 1u);
    EXPECT_EQ(world.live_leaves(), 1u);
}

/* Everything at once, for a bounded number of rounds. */
TEST_F(race, all_functions_on_many_threads)
{
    constexpr std::uint32_t classes[] = {0, 4, 6, 11};
    connect(3);
    world.fail_randomly(fn::l2vpn_ipc_ucastv, 0.1, 105);
    world.fail_randomly(fn::l2vpn_ipc_ucast, 0.1, 105);
    world.fail_randomly(fn::calloc_named, 0.05, 12);

    std::atomic<int> running = static_cast<int>(std::size(classes));
    std::vector<std::thread> threads;
    for (const std::uint32_t class_id : classes) {
        threads.emplace_back([&, class_id] {
            acs a(4, static_cast<std::uint8_t>(class_id));
            const acs before = a;
            l2vpn_msti_root_t roots[3] = {};
            l2vpn_mstp_req_t reqs[2] = {};
            l2vpn_mstp_prot_t prot = {};
            for (int round = 0; round < rounds / 3; ++round) {
                l2vpn_ac_client_hd_t hd = nullptr;
                (void)lib.connect(world.evm(), 0, class_id, &callbacks, &hd);
                if (hd == nullptr)
                    continue;
                create(hd, static_cast<std::uint32_t>(round & 3), a);
                update(hd, 0, a);
                lib.mstp_root(hd, static_cast<std::uint32_t>(round & 3), roots, 3);
                lib.mstp_port_request(hd, 0, reqs, 2);
                lib.mstp_protect(hd, 0, &prot);
                remove(hd, 0, a);
                EXPECT_EQ(a, before);
                while (lib.disconnect(hd) == 35)
                    std::this_thread::yield();
            }
            --running;
        });
    }
    while (running > 0) {
        for (const std::uint32_t class_id : classes) {
            world.link_of(class_id).up();
            world.link_of(class_id).inject(message_of(7, 1, 0, class_id == 0 ? 36 : 32));
            world.link_of(class_id).inject(message_of(8, 1, 0x2, 4));
        }
        world.advance(seconds(1));
        for (const std::uint32_t class_id : classes)
            world.link_of(class_id).event(L2VPN_IPC_EVT_DISCONNECTED);
        world.run();
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(world.clients(), 1u);
    EXPECT_EQ(world.live_leaves(), 1u);
}

} // namespace
