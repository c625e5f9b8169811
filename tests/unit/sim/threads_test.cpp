#include "owner.h"

#include <atomic>
#include <barrier>
#include <thread>

namespace sim_test {
namespace {

/* Runs `work(number)` on `count` threads at once. */
void in_parallel(int count, const std::function<void(int)> &work)
{
    std::barrier start(count);
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            work(i);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

constexpr int rounds = 300;

TEST(sim_threads, every_call_is_counted_and_recorded_once)
{
    world world;
    owner owner(world);
    world.fail(fn::l2vpn_ipc_ucast, 10, EIO);
    std::atomic<int> failures = 0;
    in_parallel(4, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            if (owner.sends(message_of(16)) != EOK)
                ++failures;
            gen_format_debug_fmt(1, "f", 1, "round %d", i);
        }
    });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(world.count(fn::l2vpn_ipc_ucast), 4U * rounds);
    EXPECT_EQ(world.link_of(class_id).sent().size(), 4U * rounds - 1);
    EXPECT_EQ(world.calls(fn::gen_format_debug_fmt).size(), 4U * rounds);
    std::set<std::uint64_t> numbers;
    for (const auto &call : world.calls(fn::l2vpn_ipc_ucast))
        numbers.insert(call.number);
    EXPECT_EQ(numbers.size(), 4U * rounds);
}

TEST(sim_threads, timers_can_be_freed_while_others_use_them)
{
    world world;
    alarm_clock clock(world);
    std::vector<std::atomic<mgd_timer_leaf_t *>> leaves(8);
    std::atomic<int> left = 3;
    std::thread others([&] {
        in_parallel(3, [&](int thread) {
            for (int i = 0; i < rounds; ++i) {
                auto &leaf = leaves.at(static_cast<std::size_t>(i * 5 + thread) % leaves.size());
                alarm_clock::start(leaf, std::chrono::milliseconds(i % 7));
                (void)mgd_timer_leaf_running(leaf);
                (void)mgd_timer_leaf_get_addl_context(leaf, 0);
                mgd_timer_leaf_free(leaf.exchange(clock.leaf()));
            }
            --left;
        });
    });
    while (left > 0)
        world.advance(1ms);
    others.join();
    EXPECT_EQ(world.live_leaves(), leaves.size());
}

TEST(sim_threads, messages_are_delivered_on_the_thread_that_runs)
{
    world world;
    owner owner(world);
    const auto here = std::this_thread::get_id();
    owner.inside = [&] { EXPECT_EQ(std::this_thread::get_id(), here); };
    std::atomic<int> left = 3;
    std::thread others([&] {
        in_parallel(3, [&](int thread) {
            for (int i = 0; i < rounds; ++i)
                world.link_of(class_id).inject(message_of(16, static_cast<std::uint8_t>(thread)));
            --left;
        });
    });
    std::size_t delivered = 0;
    while (left > 0)
        delivered += world.run();
    others.join();
    delivered += world.run();
    EXPECT_EQ(delivered, 3U * rounds);
    EXPECT_EQ(owner.messages.size(), 3U * rounds);
}

TEST(sim_threads, registering_sending_and_withdrawing_at_once)
{
    world world;
    in_parallel(4, [&](int thread) {
        const auto id = static_cast<std::uint32_t>(thread);
        owner owner(world, id);
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EOK));
            EXPECT_EQ(owner.withdraws(), static_cast<qerrno>(EOK));
            EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(ENOENT));
            EXPECT_EQ(owner.registers(), static_cast<qerrno>(EOK));
        }
        EXPECT_EQ(owner.withdraws(), static_cast<qerrno>(EOK));
    });
    EXPECT_EQ(world.link_of(3).sent().size(), static_cast<std::size_t>(rounds));
}

TEST(sim_threads, calls_on_one_tree_are_atomic)
{
    world world;
    static wavl_tree_t tree;
    const auto get_key = [](const wavl_node_t *node) { return static_cast<const void *>(node); };
    const auto compare = [](const void *first, const void *second) {
        return first < second ? WAVL_SMALLER : first == second ? WAVL_EQUAL : WAVL_LARGER;
    };
    ASSERT_EQ(wavl_init(&tree, 1, get_key, compare), static_cast<qerrno>(EOK));
    std::vector<std::array<wavl_node_t, 50>> nodes(4);
    in_parallel(4, [&](int thread) {
        for (int i = 0; i < 10; ++i) {
            for (wavl_node_t &node : nodes.at(static_cast<std::size_t>(thread)))
                EXPECT_EQ(wavl_insert(&tree, &node), &node);
            for (wavl_node_t &node : nodes.at(static_cast<std::size_t>(thread)))
                EXPECT_EQ(wavl_search(&tree, &node, 0), &node);
            for (wavl_node_t &node : nodes.at(static_cast<std::size_t>(thread)))
                wavl_delete(&tree, &node);
        }
        EXPECT_EQ(wavl_insert(&tree, nodes.at(static_cast<std::size_t>(thread)).data()),
                  nodes.at(static_cast<std::size_t>(thread)).data());
    });
    EXPECT_EQ(world.clients(), 4U);
}

TEST(sim_threads, a_hook_lets_another_thread_in_at_that_point)
{
    world world;
    owner owner(world);
    qerrno of_other = EIO;
    world.before(fn::l2vpn_ipc_transport_mtu_get, [&] {
        std::thread other([&] { of_other = owner.sends(message_of(16)); });
        other.join();
    });
    std::uint32_t mtu = 0;
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(owner.client, class_id, &mtu), static_cast<qerrno>(EOK));
    EXPECT_EQ(of_other, static_cast<qerrno>(EOK));
    EXPECT_EQ(world.calls().back().function, fn::l2vpn_ipc_transport_mtu_get);
}

TEST(sim_threads, a_call_in_progress_outlives_its_world)
{
    auto owned = std::make_unique<world>();
    owner owner(*owned);
    owned->before(fn::l2vpn_ipc_ucast, [&] { owned.reset(); });
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EOK));
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(ENOENT));
}

} // namespace
} // namespace sim_test
