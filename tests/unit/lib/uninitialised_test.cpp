/*
 * Before the first connect: nothing is initialised, and nobody is found. No test of this program connects.
 */
#include "l2vpn_ac_global.h"
#include "l2vpn_ac_inbound.h"
#include "l2vpn_ac_state.h"

#include <platform/sim.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace {

using l2vpn::sim::fn;

class uninitialised : public testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_EQ(world.calls().size(), 0u) << world.transcript();
        EXPECT_EQ(told, 0);
    }

    l2vpn::sim::world world;

    /* A context whose address nobody was ever given. */
    l2vpn_ac_client_ctx ctx = {};
    static inline int told = 0;

    uninitialised()
    {
        told = 0;
        ctx.cbv.status_cb = [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno {
            ++told;
            return 0;
        };
        ctx.state = L2VPN_AC_ST_UP;
    }
};

TEST_F(uninitialised, a_message_has_its_header_converted_and_nothing_else)
{
    alignas(8) std::array<std::uint8_t, 20> message = {0, 0, 0, 3, 0, 0, 0, 8, 0, 0,
                                                       0, 1, 0, 0, 0, 2, 1, 2, 3, 4};
    l2vpn_ac_msg_cb(nullptr, 4, 0, message.data(), message.size(), 0, &ctx);

    l2vpn_ac_msg_hdr_t hdr;
    std::copy_n(message.begin(), sizeof hdr, reinterpret_cast<std::uint8_t *>(&hdr));
    EXPECT_EQ(hdr.mark, 3u);
    EXPECT_EQ(hdr.msg_type, 8u);
    EXPECT_EQ(hdr.bulk, 1u);
    EXPECT_EQ(hdr.flags, 2u);
    EXPECT_EQ(message[16], 1);
    EXPECT_EQ(message[19], 4);
    EXPECT_EQ(ctx.busy, 0u);
}

TEST_F(uninitialised, an_event_does_nothing)
{
    for (const l2vpn_ipc_evt_t event : {L2VPN_IPC_EVT_CONNECTED, L2VPN_IPC_EVT_DISCONNECTED})
        l2vpn_ac_evt_cb(nullptr, 1, 0, event, 0, &ctx);
    EXPECT_EQ(ctx.state, L2VPN_AC_ST_UP);
    EXPECT_EQ(ctx.busy, 0u);
}

TEST_F(uninitialised, the_timer_handler_asks_for_no_timer)
{
    l2vpn_ac_tmr_expiry_handler(nullptr, nullptr);
}

TEST(global_record, is_uninitialised_at_load)
{
    const l2vpn_ac_global &global = s_l2vpn_ac_global;
    EXPECT_EQ(global.nodeid, NODEID_INVALID);
    EXPECT_EQ(global.tmr_tree, nullptr);
    EXPECT_EQ(global.tmr_parent, nullptr);
    EXPECT_EQ(global.evm, nullptr);
    EXPECT_EQ(global.ipc_client, nullptr);
    for (const std::uint32_t word :
         {global.mtu, global.max_updt, global.max_create, global.max_mstp_req, global.max_msti_root,
          global.max_vid_map, global.max_half, global.max_del})
        EXPECT_EQ(word, 0u);
}

TEST(global_record, has_its_fields_in_order)
{
    using g = l2vpn_ac_global;
    const std::size_t offsets[] = {
        offsetof(g, api_lock),      offsetof(g, cb_lock),     offsetof(g, nodeid),
        offsetof(g, tmr_tree),      offsetof(g, tmr_parent),  offsetof(g, client_tree),
        offsetof(g, evm),           offsetof(g, ipc_client),  offsetof(g, mtu),
        offsetof(g, max_updt),      offsetof(g, max_create),  offsetof(g, max_mstp_req),
        offsetof(g, max_msti_root), offsetof(g, max_vid_map), offsetof(g, max_half),
        offsetof(g, max_del)};
    EXPECT_TRUE(std::is_sorted(std::begin(offsets), std::end(offsets)));
    EXPECT_EQ(sizeof(g::nodeid), 4u);
}

/* Both mutexes may be locked again by the thread that holds them, from the moment the library is loaded. */
TEST(global_record, has_recursive_mutexes)
{
    for (pthread_mutex_t *const mutex : {&s_l2vpn_ac_global.api_lock, &s_l2vpn_ac_global.cb_lock}) {
        EXPECT_EQ(pthread_mutex_lock(mutex), 0);
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    }
}

} // namespace
