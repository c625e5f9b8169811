#include "port_owner.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <numeric>
#include <platform/sim.h>

using l2vpn::sim::bytes;
using l2vpn::sim::fn;
using namespace std::chrono_literals;

/* The library is initialised once a program, for one event manager: so there is one world for all tests. */
static l2vpn::sim::world &world()
{
    static l2vpn::sim::world the_world;
    return the_world;
}

class port_owner : public testing::Test {
protected:
    void SetUp() override
    {
        world().set_mtu(port_owner_class, 16 + 10 * 636); // ten ports a message
        link.clear_sent();
    }

    void TearDown() override
    {
        world().clear_failures();
        link.on_send({});
        port_owner_stop();
        world().run();
    }

    void start_with(uint32_t ports)
    {
        ASSERT_EQ(port_owner_start(world().evm(), ports), EOK);
        link.up();
        world().run();
    }

    static uint32_t word(const bytes &message, size_t at)
    {
        return uint32_t{message[at]} << 24 | uint32_t{message[at + 1]} << 16 |
               uint32_t{message[at + 2]} << 8 | message[at + 3];
    }

    // The handles of all CREATE messages since the last look, and their flags.
    struct created {
        std::vector<uint32_t> handles;
        std::vector<uint32_t> flags;
    };

    created look()
    {
        created found;
        for (const bytes &message : link.sent()) {
            if (word(message, 4) != L2VPN_AC_MSG_CREATE)
                continue;
            found.flags.push_back(word(message, 12));
            for (uint32_t n = 0; n < word(message, 8); n++)
                found.handles.push_back(word(message, 16 + 4 * n));
        }
        link.clear_sent();
        return found;
    }

    static std::vector<uint32_t> ports(uint32_t first, uint32_t last)
    {
        std::vector<uint32_t> numbers(last - first + 1);
        std::iota(numbers.begin(), numbers.end(), first);
        return numbers;
    }

    l2vpn::sim::link &link = world().link_of(port_owner_class);
};

TEST_F(port_owner, creates_all_ports_when_it_is_up)
{
    start_with(35);
    const created all = look();
    EXPECT_EQ(all.handles, ports(1, 35));
    EXPECT_EQ(all.flags, (std::vector<uint32_t>{0x1, 0x0, 0x0, 0x2})); // first, middle, middle, last
    port_owner_add();
    EXPECT_EQ(look().handles, ports(36, 36));
}

TEST_F(port_owner, creates_all_ports_anew_when_a_message_could_not_be_sent)
{
    world().fail(fn::l2vpn_ipc_ucastv, 2, ENOBUFS); // the second message of the create
    start_with(35);
    const created half = look();
    EXPECT_EQ(half.handles, ports(1, 10));
    EXPECT_EQ(half.flags, std::vector<uint32_t>{0x1}); // begun, and never ended
    EXPECT_FALSE(port_owner_is_up());

    world().advance(1s); // the library sends JOIN again, which says UP
    EXPECT_TRUE(port_owner_is_up());
    EXPECT_EQ(look().handles, ports(1, 35));
}

TEST_F(port_owner, creates_all_ports_anew_when_the_process_died_in_mid_bulk)
{
    int creates = 0;
    link.on_send([&](std::span<const std::uint8_t> message) {
        if (message[7] == L2VPN_AC_MSG_CREATE && ++creates == 2)
            link.down(ECONNRESET); // it took two messages, and is gone
    });
    start_with(35);
    link.on_send({});
    EXPECT_EQ(look().handles, ports(1, 20));
    EXPECT_FALSE(port_owner_is_up());

    port_owner_add();
    EXPECT_TRUE(look().handles.empty()); // nobody is there to be told
    world().advance(10s);
    EXPECT_FALSE(port_owner_is_up());

    link.up(); // another process
    world().run();
    EXPECT_TRUE(port_owner_is_up());
    EXPECT_EQ(look().handles, ports(1, 36));
}
