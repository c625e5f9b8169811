#include "owner.h"

#include <malloc.h>

namespace sim_test {
namespace {

using testing::ElementsAre;

TEST(sim_links, a_registration_is_seen)
{
    world world;
    auto &link = world.link_of(class_id);
    EXPECT_EQ(link.class_id(), class_id);
    EXPECT_FALSE(link.registered());
    EXPECT_EQ(world.msg_cb(class_id), nullptr);
    EXPECT_EQ(world.evt_cb(class_id), nullptr);
    EXPECT_EQ(world.ipc_client(), nullptr);

    owner owner(world);
    EXPECT_TRUE(link.registered());
    EXPECT_EQ(link.nodeid(), 7U);
    EXPECT_EQ(link.cookie(), &owner);
    EXPECT_EQ(world.ipc_client(), owner.client);
    EXPECT_NE(world.msg_cb(class_id), nullptr);
    EXPECT_NE(world.evt_cb(class_id), nullptr);
    EXPECT_EQ(owner.registers(), static_cast<qerrno>(EEXIST));

    EXPECT_EQ(owner.withdraws(), static_cast<qerrno>(EOK));
    EXPECT_FALSE(link.registered());
    EXPECT_EQ(world.msg_cb(class_id), nullptr);
    EXPECT_EQ(owner.withdraws(), static_cast<qerrno>(ENOENT));
}

TEST(sim_links, bad_registrations_are_refused)
{
    world world;
    owner owner(world);
    const auto msg_cb = world.msg_cb(class_id);
    const auto evt_cb = world.evt_cb(class_id);
    const auto refused = static_cast<qerrno>(EINVAL);
    l2vpn_ipc_client_t client = nullptr;
    EXPECT_EQ(l2vpn_ipc_client_init(nullptr, "L2VPN", &client), refused);
    EXPECT_EQ(l2vpn_ipc_client_init(world.evm(), nullptr, &client), refused);
    EXPECT_EQ(l2vpn_ipc_client_init(world.evm(), "", &client), refused);
    EXPECT_EQ(l2vpn_ipc_client_init(world.evm(), "L2VPN", nullptr), refused);
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(l2vpn_ipc_class_init(nullptr, 5, 7, msg_cb, evt_cb, nullptr, nullptr), refused);
    EXPECT_EQ(l2vpn_ipc_class_init(owner.client, 5, 7, nullptr, evt_cb, nullptr, nullptr), refused);
    EXPECT_EQ(l2vpn_ipc_class_init(owner.client, 5, 7, msg_cb, nullptr, nullptr, nullptr), refused);
    EXPECT_EQ(l2vpn_ipc_class_deinit(nullptr, class_id, 0), refused);
    EXPECT_FALSE(world.link_of(5).registered());
}

TEST(sim_links, what_is_queued_is_delivered_in_order_by_run)
{
    world world;
    owner owner(world);
    auto &link = world.link_of(class_id);
    link.up(11, 12);
    link.inject(message_of(20));
    link.event(77, 13, 14);
    link.down(15, 16);
    EXPECT_TRUE(owner.order.empty());

    EXPECT_EQ(world.run(), 4U);
    EXPECT_THAT(owner.order, ElementsAre("event 0", "message", "event 77", "event 1"));
    EXPECT_THAT(owner.events, ElementsAre(told_event{L2VPN_IPC_EVT_CONNECTED, 11, 12}, told_event{77, 13, 14},
                                          told_event{L2VPN_IPC_EVT_DISCONNECTED, 15, 16}));
    EXPECT_EQ(owner.messages.at(0).message, message_of(20));
    EXPECT_EQ(owner.messages.at(0).class_argument, class_id);
}

TEST(sim_links, a_message_can_claim_another_class)
{
    world world;
    owner owner(world);
    world.link_of(class_id).inject(message_of(16), 17);
    world.run();
    EXPECT_EQ(owner.messages.at(0).class_argument, 17U);
}

TEST(sim_links, buffers_are_writable_and_aligned_copies)
{
    world world;
    owner owner(world);
    const bytes message = message_of(29);
    owner.with_buffer = [](std::uint8_t *start, std::uint32_t length) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(start) % 8, 0U);
        // A heap block of its own, no longer than the allocator's rounding.
        EXPECT_GE(malloc_usable_size(start), length);
        EXPECT_LT(malloc_usable_size(start), length + 24);
        std::memset(start, 0xFF, length);
    };
    world.link_of(class_id).inject(message);
    world.link_of(class_id).inject(message);
    world.run();
    ASSERT_EQ(owner.messages.size(), 2U);
    EXPECT_EQ(owner.messages.at(0).message, message);
    EXPECT_EQ(owner.messages.at(1).message, message);
    EXPECT_EQ(message, message_of(29));
}

TEST(sim_links, a_message_shorter_than_a_header_is_not_accepted)
{
    world world;
    owner owner(world);
    EXPECT_THROW(world.link_of(class_id).inject(message_of(15)), std::invalid_argument);
    EXPECT_THROW(world.link_of(class_id).inject({}), std::invalid_argument);
    EXPECT_EQ(world.run(), 0U);
}

TEST(sim_links, a_withdrawal_drops_what_is_queued)
{
    world world;
    owner owner(world);
    class owner other(world, 5);
    world.link_of(class_id).up();
    world.link_of(class_id).inject(message_of(16));
    world.link_of(5).up();
    ASSERT_EQ(owner.withdraws(), static_cast<qerrno>(EOK));
    ASSERT_EQ(owner.registers(), static_cast<qerrno>(EOK));
    EXPECT_EQ(world.run(), 1U);
    EXPECT_TRUE(owner.order.empty());
    EXPECT_EQ(other.order.size(), 1U);
}

TEST(sim_links, a_withdrawal_from_inside_a_callback_drops_the_rest)
{
    world world;
    owner owner(world);
    owner.inside = [&] { owner.withdraws(); };
    world.link_of(class_id).up();
    world.link_of(class_id).down();
    EXPECT_EQ(world.run(), 1U);
    EXPECT_THAT(owner.order, ElementsAre("event 0"));
}

TEST(sim_links, what_is_queued_before_a_registration_waits_for_the_next_run)
{
    world world;
    world.link_of(class_id).up();
    owner owner(world);
    EXPECT_EQ(world.run(), 1U);
    EXPECT_EQ(owner.events.size(), 1U);

    owner.withdraws();
    world.link_of(class_id).up();
    EXPECT_EQ(world.run(), 0U);
    owner.registers();
    EXPECT_EQ(world.run(), 0U);
    EXPECT_EQ(owner.events.size(), 1U);
}

TEST(sim_links, sends_are_kept_byte_for_byte)
{
    world world;
    owner owner(world);
    auto &link = world.link_of(class_id);
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EOK));

    bytes head = message_of(16);
    bytes tail = message_of(5, 90);
    const std::array<iovec, 3> pieces{{{head.data(), head.size()}, {nullptr, 0}, {tail.data(), tail.size()}}};
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), 3, 0),
              static_cast<qerrno>(EOK));
    bytes whole = head;
    whole.insert(whole.end(), tail.begin(), tail.end());
    EXPECT_THAT(link.sent(), ElementsAre(message_of(16), whole));
    link.clear_sent();
    EXPECT_TRUE(link.sent().empty());
}

TEST(sim_links, malformed_sends_are_refused)
{
    world world;
    owner owner(world);
    bytes message = message_of(32);
    const std::vector<iovec> pieces(17, iovec{message.data(), 16});
    const iovec nowhere{nullptr, 16};
    const auto refused = static_cast<qerrno>(EINVAL);
    EXPECT_EQ(owner.sends(message_of(15)), refused);
    EXPECT_EQ(l2vpn_ipc_ucast(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, nullptr, 16, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucast(nullptr, class_id, L2VPN_IPC_DEST_L2VPN, message.data(), 16, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, nullptr, 1, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, &nowhere, 1, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), 0, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), 17, 0), refused);
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), 16, 0),
              static_cast<qerrno>(EOK));
    EXPECT_EQ(world.link_of(class_id).sent().size(), 1U);
}

TEST(sim_links, sends_follow_the_link)
{
    world world;
    owner owner(world);
    auto &link = world.link_of(class_id);
    const bytes message = message_of(16);
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(EOK)); // never up: it would wait in the queue
    link.up();
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(EOK));
    link.down();
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(ENOTCONN));
    link.event(L2VPN_IPC_EVT_CONNECTED); // tells only
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(ENOTCONN));
    link.up();
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(EOK));
    link.down();
    owner.withdraws();
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(ENOENT));
    owner.registers();
    EXPECT_EQ(owner.sends(message), static_cast<qerrno>(EOK)); // a new registration opens anew
    EXPECT_EQ(link.sent().size(), 4U);
}

TEST(sim_links, mtu_by_class)
{
    world world;
    owner owner(world);
    world.set.mtu = 1000;
    world.set_mtu(5, 20);
    class owner other(world, 5);
    std::uint32_t mtu = 0;
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(owner.client, class_id, &mtu), static_cast<qerrno>(EOK));
    EXPECT_EQ(mtu, 1000U);
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(other.client, 5, &mtu), static_cast<qerrno>(EOK));
    EXPECT_EQ(mtu, 20U);
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(owner.client, 6, &mtu), static_cast<qerrno>(ENOENT));
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(owner.client, class_id, nullptr), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(l2vpn_ipc_transport_mtu_get(nullptr, class_id, &mtu), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(mtu, 20U);

    EXPECT_EQ(other.sends(message_of(21)), static_cast<qerrno>(EMSGSIZE));
    EXPECT_EQ(other.sends(message_of(20)), static_cast<qerrno>(EOK));
    EXPECT_EQ(owner.sends(message_of(21)), static_cast<qerrno>(EOK));
    world.set.enforce_mtu = false;
    EXPECT_EQ(other.sends(message_of(21)), static_cast<qerrno>(EOK));
}

TEST(sim_links, deliver_to_the_process_and_nowhere_else)
{
    world world;
    owner owner(world);
    const bytes message = message_of(16);
    EXPECT_EQ(l2vpn_ipc_ucast(owner.client, class_id, 1, message.data(), 16, 0), static_cast<qerrno>(EINVAL));
    const iovec piece{const_cast<std::uint8_t *>(message.data()), 16};
    EXPECT_EQ(l2vpn_ipc_ucastv(owner.client, class_id, 0, &piece, 1, 0), static_cast<qerrno>(EINVAL));
    EXPECT_TRUE(world.link_of(class_id).sent().empty());
}

TEST(sim_links, endless_sending_ends)
{
    world world;
    owner owner(world);
    world.set.max_sends = 3;
    std::vector<qerrno> statuses(5);
    for (qerrno &status : statuses)
        status = owner.sends(message_of(16));
    EXPECT_THAT(statuses, ElementsAre(EOK, EOK, EOK, ENOBUFS, ENOBUFS));
    EXPECT_EQ(world.link_of(class_id).sent().size(), 3U);
}

TEST(sim_links, on_send_plays_the_other_side)
{
    world world;
    owner owner(world);
    auto &link = world.link_of(class_id);
    link.on_send(
        [&](std::span<const std::uint8_t> message) { link.inject(bytes(message.rbegin(), message.rend())); });
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EOK));
    EXPECT_TRUE(owner.messages.empty());
    world.run();
    const bytes sent = message_of(16);
    EXPECT_EQ(owner.messages.at(0).message, bytes(sent.rbegin(), sent.rend()));

    world.fail(fn::l2vpn_ipc_ucast, 1, EIO); // what is refused is not seen
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EIO));
    link.on_send({});
    EXPECT_EQ(owner.sends(message_of(16)), static_cast<qerrno>(EOK));
    EXPECT_EQ(world.run(), 0U);
}

TEST(sim_links, on_send_may_call_the_platform_again)
{
    world world;
    owner owner(world);
    auto &link = world.link_of(class_id);
    link.on_send([&](std::span<const std::uint8_t> message) {
        if (message.size() == 16)
            owner.sends(message_of(17));
    });
    owner.sends(message_of(16));
    EXPECT_THAT(link.sent(), ElementsAre(message_of(16), message_of(17)));
}

} // namespace
} // namespace sim_test
