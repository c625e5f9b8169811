/*
 * An owner of one class and a user of timers, who write down what they are told.
 */
#ifndef TESTS_SIM_OWNER_H
#define TESTS_SIM_OWNER_H

#include <platform/sim.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sim_test {

using namespace std::chrono_literals;
using l2vpn::sim::bytes;
using l2vpn::sim::duration;
using l2vpn::sim::fn;
using l2vpn::sim::world;

inline constexpr std::uint32_t class_id = 4;
inline constexpr int timer_code = 128;

/* A message of `size` bytes, all different from those of another `first`. */
inline bytes message_of(std::size_t size, std::uint8_t first = 1)
{
    bytes message(size);
    for (std::size_t i = 0; i < size; ++i)
        message[i] = static_cast<std::uint8_t>(first + i);
    return message;
}

struct told_message {
    std::uint32_t class_argument;
    bytes message;
};

struct told_event {
    l2vpn_ipc_evt_t number;
    std::uint32_t arg;
    std::uint32_t peer;

    bool operator==(const told_event &) const = default;
};

class owner {
public:
    explicit owner(world &where, std::uint32_t id = class_id) : id_(id)
    {
        EXPECT_EQ(l2vpn_ipc_client_init(where.evm(), "L2VPN", &client), static_cast<qerrno>(EOK));
        EXPECT_EQ(registers(), static_cast<qerrno>(EOK));
    }

    qerrno registers(std::uint32_t nodeid = 7)
    {
        return l2vpn_ipc_class_init(client, id_, nodeid, on_message, on_event, nullptr, this);
    }
    qerrno withdraws() { return l2vpn_ipc_class_deinit(client, id_, 0); }
    qerrno sends(const bytes &message)
    {
        return l2vpn_ipc_ucast(client, id_, L2VPN_IPC_DEST_L2VPN, message.data(),
                               static_cast<std::uint32_t>(message.size()), 0);
    }

    l2vpn_ipc_client_t client = nullptr;
    std::vector<told_event> events;
    std::vector<told_message> messages;
    std::vector<std::string> order;       /* "event N" and "message", as they came */
    std::function<void()> inside = [] {}; /* called from every callback */
    std::function<void(std::uint8_t *, std::uint32_t)> with_buffer = [](auto *, auto) {};

private:
    static void on_message(l2vpn_ipc_client_t, std::uint32_t class_argument, std::uint32_t, void *message,
                           std::uint32_t length, std::uint32_t, void *cookie)
    {
        auto &self = *static_cast<owner *>(cookie);
        auto *start = static_cast<std::uint8_t *>(message);
        self.messages.push_back({class_argument, bytes(start, start + length)});
        self.order.emplace_back("message");
        self.with_buffer(start, length);
        self.inside();
    }
    static void on_event(l2vpn_ipc_client_t, std::uint32_t peer, std::uint32_t, l2vpn_ipc_evt_t event,
                         std::uint32_t arg, void *cookie)
    {
        auto &self = *static_cast<owner *>(cookie);
        self.events.push_back({event, arg, peer});
        self.order.push_back("event " + std::to_string(event));
        self.inside();
    }

    std::uint32_t id_;
};

/* A timer tree whose handler stops every expired leaf and writes it down. */
class alarm_clock {
public:
    explicit alarm_clock(world &where, event_mgr_p evm = nullptr) : where_(where)
    {
        EXPECT_EQ(event_async_attach_event(evm == nullptr ? where.evm() : evm, timer_code, on_expiry, this,
                                           &context),
                  0);
        tree = mgd_timer_tree_new(&context, 1);
        parent = mgd_timer_parent_new(tree, nullptr);
    }

    mgd_timer_leaf_t *leaf() { return mgd_timer_leaf_new(tree, parent, nullptr, nothing_to_do); }
    static void start(mgd_timer_leaf_t *leaf, duration after)
    {
        constexpr duration second = 1s;
        const timespec length{after / second, (after % second).count()};
        mgd_timer_leaf_start(leaf, &length);
    }
    mgd_timer_leaf_t *started(duration after)
    {
        mgd_timer_leaf_t *made = leaf();
        start(made, after);
        return made;
    }

    static void nothing_to_do(mgd_timer_leaf_t *) {}

    struct expiry {
        mgd_timer_leaf_t *leaf;
        duration at;

        bool operator==(const expiry &) const = default;
    };

    event_context_t context{};
    mgd_timer_tree_t *tree = nullptr;
    mgd_timer_parent_t *parent = nullptr;
    std::vector<expiry> expired;
    std::size_t passes = 0; /* calls of the handler */
    std::function<void(mgd_timer_leaf_t *)> on_leaf = [](auto *) {};

private:
    static void on_expiry(event_context_t *, void *arg)
    {
        auto &self = *static_cast<alarm_clock *>(arg);
        ++self.passes;
        while (mgd_timer_leaf_t *leaf = mgd_timer_tree_first_expired(self.tree)) {
            mgd_timer_leaf_stop(leaf);
            self.expired.push_back({leaf, self.where_.now()});
            self.on_leaf(leaf);
        }
    }

    world &where_;
};

} // namespace sim_test

#endif
