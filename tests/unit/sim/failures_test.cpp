#include "owner.h"

namespace sim_test {
namespace {

using testing::ElementsAre;

std::vector<qerrno> sends_of(owner &owner, std::size_t count)
{
    std::vector<qerrno> statuses(count);
    for (qerrno &status : statuses)
        status = owner.sends(message_of(16));
    return statuses;
}

TEST(sim_failures, the_kth_call_from_now_fails_once)
{
    world world;
    owner owner(world);
    sends_of(owner, 2);
    world.fail(fn::l2vpn_ipc_ucast, 3, ENOBUFS);
    world.fail(fn::l2vpn_ipc_ucast, 1, EIO);
    EXPECT_THAT(sends_of(owner, 4), ElementsAre(EIO, EOK, ENOBUFS, EOK));
    EXPECT_EQ(world.link_of(class_id).sent().size(), 4U);
}

TEST(sim_failures, from_the_kth_call_on_all_fail_until_cleared)
{
    world world;
    owner owner(world);
    world.fail_from(fn::l2vpn_ipc_ucast, 2, ENOBUFS);
    EXPECT_THAT(sends_of(owner, 4), ElementsAre(EOK, ENOBUFS, ENOBUFS, ENOBUFS));
    world.clear_failures();
    EXPECT_THAT(sends_of(owner, 1), ElementsAre(EOK));
}

TEST(sim_failures, calls_are_numbered_from_one)
{
    world world;
    EXPECT_THROW(world.fail(fn::calloc_named, 0, ENOMEM), std::invalid_argument);
    EXPECT_THROW(world.fail_from(fn::calloc_named, 0, ENOMEM), std::invalid_argument);
    EXPECT_THROW(world.fail(fn::count_, 1, ENOMEM), std::invalid_argument);
}

TEST(sim_failures, decide_says_it_call_by_call)
{
    world world;
    owner owner(world);
    sends_of(owner, 1);
    std::vector<std::uint64_t> asked;
    world.decide(fn::l2vpn_ipc_ucast, [&](std::uint64_t number) -> std::optional<qerrno> {
        asked.push_back(number);
        EXPECT_EQ(world.count(fn::l2vpn_ipc_ucast), number); // the world may be asked
        return number % 2 == 0 ? std::optional<qerrno>(EIO) : std::nullopt;
    });
    EXPECT_THAT(sends_of(owner, 3), ElementsAre(EIO, EOK, EIO));
    EXPECT_THAT(asked, ElementsAre(2, 3, 4));
}

std::vector<qerrno> random_sends(std::uint64_t seed, double probability)
{
    world world(seed);
    owner owner(world);
    world.fail_randomly(fn::l2vpn_ipc_ucast, probability, EIO);
    return sends_of(owner, 1000);
}

TEST(sim_failures, random_failures_are_the_seeds)
{
    const auto statuses = random_sends(5, 0.25);
    EXPECT_THAT(std::ranges::count(statuses, static_cast<qerrno>(EIO)),
                testing::AllOf(testing::Gt(200), testing::Lt(300)));
    EXPECT_EQ(random_sends(5, 0.25), statuses);
    EXPECT_NE(random_sends(6, 0.25), statuses);
    EXPECT_EQ(std::ranges::count(random_sends(5, 0), static_cast<qerrno>(EIO)), 0);
    EXPECT_EQ(std::ranges::count(random_sends(5, 1), static_cast<qerrno>(EIO)), 1000);
}

TEST(sim_failures, failing_by_kind_of_result)
{
    world world;
    alarm_clock clock(world);
    for (const fn function :
         {fn::platform_get_my_nodeid, fn::calloc_named, fn::mgd_timer_leaf_set_addl_context,
          fn::mgd_timer_leaf_running, fn::l2vpn_check_ltrace_buffer, fn::mgd_timer_leaf_start,
          fn::gen_dbg_get_enabled_bitset, fn::qerr_strerror, fn::mgd_timer_leaf_get_context})
        world.fail(function, 1, EPERM);

    std::uint32_t nodeid = 99;
    EXPECT_EQ(platform_get_my_nodeid(&nodeid), static_cast<qerrno>(EPERM));
    EXPECT_EQ(nodeid, 99U);
    EXPECT_EQ(calloc_named(1, 1, "thing"), nullptr);
    mgd_timer_leaf_t *leaf = clock.leaf();
    errno = 0;
    EXPECT_EQ(mgd_timer_leaf_set_addl_context(leaf, 0, &world), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mgd_timer_leaf_get_addl_context(leaf, 0), nullptr);
    alarm_clock::start(leaf, 1s);
    EXPECT_TRUE(world.timers().empty());
    alarm_clock::start(leaf, 1s);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(l2vpn_check_ltrace_buffer(1), 0);
    EXPECT_NE(l2vpn_check_ltrace_buffer(1), 0);
    EXPECT_EQ(gen_dbg_get_enabled_bitset(), nullptr);
    EXPECT_NE(gen_dbg_get_enabled_bitset(), nullptr);
    EXPECT_EQ(qerr_strerror(0), nullptr);
    EXPECT_EQ(mgd_timer_leaf_get_context(leaf), nullptr);
}

TEST(sim_failures, an_attach_can_fail_without_a_reason)
{
    world world;
    event_context_t context{};
    world.fail(fn::event_async_attach_event, 1, 0);
    errno = EBADF;
    EXPECT_LT(event_async_attach_event(
                  world.evm(), 1, [](auto *, auto *) {}, nullptr, &context),
              0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(context.evm, nullptr);
    EXPECT_EQ(world.attached(1), nullptr);
}

TEST(sim_failures, a_failing_tree_call_has_no_effect)
{
    world world;
    wavl_tree_t tree{};
    const auto get_key = [](const wavl_node_t *node) { return static_cast<const void *>(node); };
    const auto compare = [](const void *first, const void *second) {
        return first < second ? WAVL_SMALLER : first == second ? WAVL_EQUAL : WAVL_LARGER;
    };
    world.fail(fn::wavl_init, 1, ENOMEM);
    wavl_node_t node{};
    EXPECT_EQ(wavl_init(&tree, 1, get_key, compare), static_cast<qerrno>(ENOMEM));
    EXPECT_EQ(wavl_insert(&tree, &node), nullptr);
    ASSERT_EQ(wavl_init(&tree, 1, get_key, compare), static_cast<qerrno>(EOK));
    world.fail(fn::wavl_insert, 1, 0);
    EXPECT_EQ(wavl_insert(&tree, &node), nullptr);
    EXPECT_EQ(world.clients(), 0U);
    EXPECT_EQ(wavl_insert(&tree, &node), &node);
    world.fail(fn::wavl_delete, 1, 0);
    wavl_delete(&tree, &node);
    EXPECT_EQ(world.clients(), 1U);
    world.fail(fn::wavl_search, 1, 0);
    EXPECT_EQ(wavl_search(&tree, &node, 0), nullptr);
    EXPECT_EQ(wavl_search(&tree, &node, 0), &node);
}

/* Something that needs four calls that can fail, and some that cannot. */
std::string scenario(world &world)
{
    std::uint32_t nodeid = 0;
    void *memory = nullptr;
    std::string failed;
    if (platform_get_my_nodeid(&nodeid) != EOK)
        failed += "nodeid ";
    ptd_unset_mutex_block();
    memory = calloc_named(1, 1, "thing");
    if (memory == nullptr)
        failed += "memory ";
    free(memory);
    if (l2vpn_debug_init(world.evm()) != EOK)
        failed += "debug ";
    if (l2vpn_ac_data_sanitize(class_id, nullptr, nullptr, nullptr, 0) != EOK)
        failed += "sanitize ";
    return failed;
}

TEST(sim_failures, every_position_of_a_scenario_can_fail)
{
    world world;
    EXPECT_EQ(scenario(world), "");
    ASSERT_EQ(world.fallible_calls(), 4U);
    std::vector<std::string> outcomes;
    for (std::uint64_t n = 1; n <= 5; ++n) {
        world.fail_at(n, ENOSPC);
        outcomes.push_back(scenario(world));
        EXPECT_EQ(world.fallible_calls(), 4U);
    }
    EXPECT_THAT(outcomes, ElementsAre("nodeid ", "memory ", "debug ", "sanitize ", ""));
    world.fail_at(3, ENOSPC, true);
    EXPECT_EQ(scenario(world), "debug sanitize ");
    EXPECT_EQ(scenario(world), "nodeid memory debug sanitize ");
    world.clear_failures();
    EXPECT_EQ(scenario(world), "");
}

TEST(sim_failures, exactly_the_functions_that_can_fail_are_counted)
{
    world world;
    owner owner(world);                                // 2
    alarm_clock clock(world);                          // 3
    mgd_timer_leaf_t *leaf = clock.started(1s);        // 1
    mgd_timer_leaf_set_addl_context(leaf, 0, nullptr); // 1
    mgd_timer_leaf_running(leaf);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_free(leaf);
    wavl_tree_t tree{};
    wavl_node_t node{};
    EXPECT_EQ(wavl_init(&tree, 0, nullptr, nullptr), static_cast<qerrno>(EINVAL)); // 1
    wavl_insert(&tree, &node);                                                     // 1
    wavl_search(&tree, &node, 0);
    wavl_delete(&tree, &node);
    std::uint32_t mtu = 0;
    l2vpn_ipc_transport_mtu_get(owner.client, class_id, &mtu);  // 1
    sends_of(owner, 1);                                         // 1
    l2vpn_ipc_ucastv(owner.client, class_id, 0, nullptr, 0, 0); // 1
    owner.withdraws();                                          // 1
    qerr_strerror(1);
    l2vpn_check_ltrace_buffer(1);
    EXPECT_EQ(world.fallible_calls(), 13U);
}

} // namespace
} // namespace sim_test
