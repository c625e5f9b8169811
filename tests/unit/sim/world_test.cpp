#include "owner.h"

namespace sim_test {
namespace {

TEST(sim_world, there_is_one_at_a_time)
{
    {
        world first;
        EXPECT_THROW(world(), std::logic_error);
        EXPECT_NE(first.evm(), nullptr);
        EXPECT_NE(first.another_evm(), first.evm());
    }
    const world second;
    EXPECT_EQ(second.now(), 0s);
}

TEST(sim_world, a_new_world_knows_nothing_of_the_old_one)
{
    mgd_timer_leaf_t *old_leaf = nullptr;
    l2vpn_ipc_client_t old_client = nullptr;
    event_mgr_p old_evm = nullptr;
    mgd_timer_tree_t *old_tree = nullptr;
    const bytes message = message_of(16);
    {
        world world;
        auto unreachable = std::make_unique<owner>(world);
        auto clock = std::make_unique<alarm_clock>(world);
        old_leaf = clock->started(1s);
        old_tree = clock->tree;
        old_client = unreachable->client;
        old_evm = world.evm();
        world.link_of(class_id).up();
        world.jump(5s);
    } // queued and expired: never delivered, and their receivers are gone

    world world;
    owner owner(world);
    alarm_clock clock(world);
    EXPECT_EQ(world.advance(1min), 0U);
    mgd_timer_leaf_t *leaf = clock.started(1h);
    EXPECT_NE(leaf, old_leaf);
    mgd_timer_leaf_stop(old_leaf);
    mgd_timer_leaf_free(old_leaf);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(mgd_timer_leaf_new(old_tree, clock.parent, nullptr, alarm_clock::nothing_to_do), nullptr);
    EXPECT_EQ(l2vpn_ipc_ucast(old_client, class_id, 0, message.data(), 16, 0), static_cast<qerrno>(EINVAL));
    EXPECT_LT(event_async_post(old_evm, 1), 0);
    EXPECT_EQ(l2vpn_debug_init(old_evm), static_cast<qerrno>(EINVAL));
}

TEST(sim_world, without_one_every_function_answers_harmlessly)
{
    std::uint32_t out = 99;
    EXPECT_STREQ(qerr_strerror(EOK), "Success");
    EXPECT_EQ(platform_get_my_nodeid(&out), static_cast<qerrno>(ENODEV));
    void *memory = calloc_named(1, 8, "thing");
    EXPECT_NE(memory, nullptr);
    free(memory);
    event_context_t context{};
    EXPECT_LT(event_async_attach_event(
                  nullptr, 1, [](auto *, auto *) {}, nullptr, &context),
              0);
    EXPECT_EQ(mgd_timer_tree_new(&context, 1), nullptr);
    EXPECT_EQ(mgd_timer_parent_new(nullptr, nullptr), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(nullptr, nullptr, nullptr, nullptr), nullptr);
    mgd_timer_leaf_free(nullptr);
    mgd_timer_parent_free(nullptr);
    mgd_timer_tree_free(nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_context(nullptr), nullptr);
    EXPECT_LT(mgd_timer_leaf_set_addl_context(nullptr, 0, nullptr), 0);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(nullptr, 0), nullptr);
    EXPECT_EQ(mgd_timer_leaf_running(nullptr), 0);
    alarm_clock::start(nullptr, 1s);
    mgd_timer_leaf_stop(nullptr);
    EXPECT_EQ(mgd_timer_tree_first_expired(nullptr), nullptr);

    l2vpn_ipc_client_t client = nullptr;
    EXPECT_NE(l2vpn_ipc_client_init(nullptr, "L2VPN", &client), static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_ipc_class_init(nullptr, 4, 1, nullptr, nullptr, nullptr, nullptr),
              static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_ipc_class_deinit(nullptr, 4, 0), static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_ipc_transport_mtu_get(nullptr, 4, &out), static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_ipc_ucast(nullptr, 4, 0, nullptr, 0, 0), static_cast<qerrno>(EOK));
    EXPECT_NE(l2vpn_ipc_ucastv(nullptr, 4, 0, nullptr, 0, 0), static_cast<qerrno>(EOK));
    EXPECT_EQ(l2vpn_ac_data_sanitize(4, nullptr, nullptr, nullptr, 0), static_cast<qerrno>(EOK));
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(out, 99U);

    wavl_tree_t tree{};
    wavl_node_t node{};
    EXPECT_EQ(wavl_init(nullptr, 1, nullptr, nullptr), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_insert(&tree, &node), nullptr);
    EXPECT_EQ(wavl_search(&tree, &node, 0), nullptr);
    wavl_delete(&tree, &node);

    EXPECT_EQ(gen_dbg_get_enabled_bitset(), nullptr);
    EXPECT_EQ(gen_dbg_ltrace_get_dbg_bitset(), nullptr);
    EXPECT_NE(l2vpn_debug_init(nullptr), static_cast<qerrno>(EOK));
    EXPECT_EQ(l2vpn_debug_get_ctx(), nullptr);
    EXPECT_EQ(l2vpn_debug_get_enabled_bitset(), nullptr);
    EXPECT_EQ(l2vpn_check_ltrace_buffer(1), 0);
    gen_format_debug_fmt(1, "f", 1, "text");
    gen_dbg_ltrace_ctx(1, "f", 1, "text");
    gen_ltrace(1, "text");
    l2vpn_generic_gen_dbg_ltrace_ctx(nullptr, nullptr, 1, "f", 1, "text");
    l2vpn_ltrace(1, "text");
    l2vpn_gen_assert_errmsg(1);
    vy_syslog(3, "text");
    ptd_set_mutex_block(nullptr, "f", 1);
    ptd_unset_mutex_block();
    EXPECT_EQ(event_mgr_new(), nullptr);
    EXPECT_LT(event_mgr_dispatch(nullptr, 0), 0);
    EXPECT_LT(event_mgr_run(nullptr), 0);
    event_mgr_stop(nullptr);
    event_mgr_free(nullptr);
}

TEST(sim_world, random_numbers_are_the_seeds)
{
    std::vector<std::uint64_t> first;
    {
        world world(42);
        for (int i = 0; i < 100; ++i)
            first.push_back(world.random(1000));
    }
    EXPECT_THAT(first, testing::Each(testing::Lt(1000U)));
    std::vector<std::uint64_t> again;
    {
        world world(42);
        for (int i = 0; i < 100; ++i)
            again.push_back(world.random(1000));
    }
    EXPECT_EQ(again, first);
    world world(43);
    EXPECT_NE(world.random(1000), first.at(0));
    EXPECT_EQ(world.random(1), 0U);
    EXPECT_EQ(world.random(0), 0U);
}

TEST(sim_world, the_generator_is_the_same_everywhere)
{
    world world(1234567);
    EXPECT_EQ(world.random(), 6457827717110365317U);
    EXPECT_EQ(world.random(), 3203168211198807973U);
}

/* A busy hour under random failures, with everything drawn from the seed. */
std::string busy_hour(std::uint64_t seed)
{
    world world(seed);
    world.set.shuffle_equal_timers = true;
    owner owner(world);
    alarm_clock clock(world);
    world.fail_randomly(fn::l2vpn_ipc_ucast, 0.3, ENOBUFS);
    world.fail_randomly(fn::mgd_timer_leaf_new, 0.1, ENOMEM);
    clock.on_leaf = [&](mgd_timer_leaf_t *leaf) {
        owner.sends(message_of(16 + world.random(40)));
        alarm_clock::start(leaf, std::chrono::seconds(world.random(500)) + 1s);
    };
    for (int i = 0; i < 20; ++i)
        clock.started(10s);
    for (int i = 0; i < 60; ++i) {
        if (world.random(2) == 0)
            world.link_of(class_id).up();
        else
            world.link_of(class_id).down();
        world.advance(1min);
    }
    return world.transcript();
}

TEST(sim_world, the_same_seed_and_calls_give_the_same_transcript)
{
    const std::string transcript = busy_hour(7);
    EXPECT_GT(std::ranges::count(transcript, '\n'), 500);
    EXPECT_EQ(busy_hour(7), transcript);
    EXPECT_NE(busy_hour(8), transcript);
}

} // namespace
} // namespace sim_test
