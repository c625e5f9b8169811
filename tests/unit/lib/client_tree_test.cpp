/*
 * The client tree's functions, and the retry timer's answer to no context at all.
 */
#include "l2vpn_ac_global.h"
#include "l2vpn_ac_state.h"

#include <platform/sim.h>

#include <gtest/gtest.h>

#include <cstddef>

namespace {

TEST(client_tree, the_key_of_a_node_is_its_contexts_address)
{
    l2vpn_ac_client_ctx ctx = {};
    EXPECT_EQ(l2vpn_ac_client_get_key(&ctx.wavl_node), &ctx);
    EXPECT_EQ(l2vpn_ac_client_get_key(nullptr), nullptr);
}

TEST(client_tree, keys_compare_as_unsigned_addresses)
{
    const auto key = [](std::uintptr_t value) { return reinterpret_cast<const void *>(value); };
    EXPECT_EQ(l2vpn_ac_client_compare(key(1), key(2)), 0);
    EXPECT_EQ(l2vpn_ac_client_compare(key(2), key(2)), 1);
    EXPECT_EQ(l2vpn_ac_client_compare(key(3), key(2)), 2);
    EXPECT_EQ(l2vpn_ac_client_compare(key(1), key(UINTPTR_MAX)), 0) << "not as signed numbers";
    EXPECT_EQ(l2vpn_ac_client_compare(key(UINTPTR_MAX), nullptr), 2);
    EXPECT_EQ(l2vpn_ac_client_compare(nullptr, nullptr), 1);
}

TEST(client_tree, the_context_has_its_fields_in_order)
{
    using ctx = l2vpn_ac_client_ctx;
    const std::size_t offsets[] = {
        offsetof(ctx, cbv),      offsetof(ctx, class_id),   offsetof(ctx, busy),     offsetof(ctx, state),
        offsetof(ctx, tmr_leaf), offsetof(ctx, retry_secs), offsetof(ctx, wavl_node)};
    for (std::size_t i = 1; i < std::size(offsets); ++i)
        EXPECT_LT(offsets[i - 1], offsets[i]);
    EXPECT_EQ(sizeof(ctx::state), 2u);
    EXPECT_EQ(sizeof(ctx::retry_secs), 4u);
}

TEST(client_tree, no_context_has_no_timer_to_activate)
{
    l2vpn::sim::world world;
    EXPECT_EQ(l2vpn_ac_activate_timer(nullptr), 22u);
    EXPECT_TRUE(world.log().empty());
}

TEST(client_tree, a_context_without_a_leaf_has_no_timer_to_activate)
{
    l2vpn::sim::world world;
    l2vpn_ac_client_ctx ctx = {};
    ctx.state = L2VPN_AC_ST_JOINING;
    EXPECT_EQ(l2vpn_ac_activate_timer(&ctx), 2u);
    EXPECT_TRUE(world.logged("l2vpn_ac_activate_timer"));
}

} // namespace
