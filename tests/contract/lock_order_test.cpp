/*
 * What comes before the unlock, and what after.
 */
#include "lock_test.h"

using namespace lock_test;

namespace {

class order : public locking {
protected:
    /* The end of what happened: logs, and unlocks of the request lock. */
    std::vector<std::string> tail(std::size_t count) const
    {
        return {tap.order.end() - static_cast<std::ptrdiff_t>(std::min(count, tap.order.size())),
                tap.order.end()};
    }

    void prepare_order()
    {
        prepare();
        world.before(fn::gen_format_debug_fmt, [] { tap.order.emplace_back("log"); });
        world.before(fn::l2vpn_generic_gen_dbg_ltrace_ctx, [] { tap.order.emplace_back("report"); });
        world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    }
};

TEST_F(order, entries_of_requests_are_traced_before_the_lock_whatever_is_enabled)
{
    prepare();
    world.before(fn::gen_dbg_ltrace_ctx, [] { tap.order.emplace_back("trace"); });
    for (const bool enabled : {true, false}) {
        world.set.debug_enabled = enabled;
        for (const locker &l : lockers) {
            const std::string where = l.where;
            if (l.locks_twice || where.find("connect") != std::string::npos)
                continue;
            watch([&] { l.call(lib, hd, world); });
            EXPECT_THAT(tap.order, ElementsAre("trace", "trylock", "unlock")) << l.name;
        }
    }
}

TEST_F(order, a_failed_empty_create_or_update_is_logged_before_the_unlock)
{
    prepare_order();
    watch([&] { lib.create(hd, 0, 0, nullptr, nullptr, nullptr); });
    EXPECT_THAT(tail(2), ElementsAre("log", "unlock"));
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    watch([&] { lib.update(hd, 0, 0, nullptr, nullptr); });
    EXPECT_THAT(tail(2), ElementsAre("log", "unlock"));
}

TEST_F(order, a_failed_message_with_acs_is_logged_after_the_unlock)
{
    prepare_order();
    acs a(1);
    watch([&] { create(hd, 0, a); });
    EXPECT_THAT(tail(2), ElementsAre("unlock", "log"));
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    watch([&] { remove(hd, 0, a); });
    EXPECT_THAT(tail(2), ElementsAre("unlock", "log"));
}

TEST_F(order, a_failed_mstp_message_is_reported_after_the_unlock)
{
    prepare_order();
    l2vpn_msti_root_t root = {};
    watch([&] { lib.mstp_root(hd, 0, &root, 1); });
    EXPECT_THAT(tail(2), ElementsAre("unlock", "report"));
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    watch([&] { lib.mstp_root(hd, 0, nullptr, 0); });
    EXPECT_THAT(tail(2), ElementsAre("unlock", "report"));
}

TEST_F(order, an_unknown_handle_of_a_create_is_logged_after_the_unlock)
{
    prepare_order();
    watch([&] { lib.create(nullptr, 0, 0, nullptr, nullptr, nullptr); });
    EXPECT_THAT(tail(2), ElementsAre("unlock", "log"));
}

/* The arrays are restored outside the lock: while it is let go they are still in network order. */
TEST_F(order, arrays_are_restored_after_the_unlock)
{
    prepare();
    acs a(1);
    l2vpn_msti_root_t root = {0x01020304, 5, {}};
    std::uint32_t at_unlock = 0;
    tap_unlock = [&] { at_unlock = a.ifh[0]; };
    const bool little = std::endian::native == std::endian::little;
    for (const qerrno status : {0u, 105u}) {
        world.clear_failures();
        if (status != 0)
            world.fail_from(fn::l2vpn_ipc_ucastv, 1, status);
        watch([&] { create(hd, 0, a); });
        EXPECT_EQ(at_unlock, little ? __builtin_bswap32(a.ifh[0]) : a.ifh[0]);
        at_unlock = 0;
    }
    tap_unlock = [&] { at_unlock = root.word; };
    for (const qerrno status : {0u, 105u}) {
        world.clear_failures();
        if (status != 0)
            world.fail_from(fn::l2vpn_ipc_ucastv, 1, status);
        watch([&] { lib.mstp_root(hd, 0, &root, 1); });
        EXPECT_EQ(at_unlock, little ? 0x04030201u : 0x01020304u);
        EXPECT_EQ(root.word, 0x01020304u);
    }
    tap_unlock = nullptr;
}

TEST_F(order, the_timers_up_is_given_with_the_request_lock_held)
{
    prepare();
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    create(hd, 0, a);
    std::vector<std::string> at_callback;
    during = [&](const notice &) { at_callback = tap.order; };
    watch([&] { world.advance(seconds(1)); });
    EXPECT_THAT(at_callback, ElementsAre("trylock"));
}

TEST_F(order, callbacks_of_messages_hold_no_lock)
{
    prepare();
    std::vector<std::string> at_callback;
    during = [&](const notice &) { at_callback = tap.order; };
    alignas(8) std::uint8_t message[20] = {0, 0, 0, 3, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1};
    watch([&] { world.msg_cb(4)(world.ipc_client(), 4, 0, message, 20, 0, hd); });
    EXPECT_THAT(at_callback, ElementsAre("trylock", "unlock"));
}

} // namespace
