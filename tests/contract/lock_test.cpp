/*
 * The lock protocol, seen from outside: this program puts its own mutex functions in front of the C
 * library's, has a try-lock report busy or a call fail, and writes down the order of things.
 */
#include "contract_test.h"

#include <dlfcn.h>
#include <map>
#include <pthread.h>

namespace {

/* What the next calls of the library's threads are to answer; off outside a test's window. */
struct interposer {
    bool active = false;
    int trylock_answer = 0; /* non-zero: given instead of locking */
    int lock_answer = 0;    /* non-zero: likewise */
    int unlock_answer = 0;  /* non-zero: given after really unlocking */
    std::vector<std::string> order;
    std::vector<const void *> tried;
};

thread_local interposer tap;
thread_local std::function<void()> tap_unlock; /* called as a watched mutex is about to be let go */

template <typename F>
F real(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

/* Mutexes of the platform are not our business: the library's are recursive. */
bool watched(const pthread_mutex_t *mutex)
{
    return tap.active && (mutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_trylock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_trylock");
    if (!watched(mutex))
        return next(mutex);
    tap.order.emplace_back("trylock");
    tap.tried.push_back(mutex);
    return tap.trylock_answer != 0 ? tap.trylock_answer : next(mutex);
}

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_lock");
    if (!watched(mutex))
        return next(mutex);
    tap.order.emplace_back("lock");
    return tap.lock_answer != 0 ? tap.lock_answer : next(mutex);
}

extern "C" __attribute__((visibility("default"))) int pthread_mutex_unlock(pthread_mutex_t *mutex) noexcept
{
    static const auto next = real<int (*)(pthread_mutex_t *)>("pthread_mutex_unlock");
    if (!watched(mutex))
        return next(mutex);
    tap.order.emplace_back("unlock");
    if (tap_unlock)
        tap_unlock();
    const int rc = next(mutex);
    return tap.unlock_answer != 0 ? tap.unlock_answer : rc;
}

namespace {

class locking : public contract {
public:
    l2vpn_ac_client_hd_t hd = nullptr;

    void prepare()
    {
        hd = connect_up(4);
        world.fail(fn::l2vpn_ipc_ucastv, 1, 105); /* which starts the retry timer */
        EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 0u);
        notices.clear();
        world.before(fn::ptd_set_mutex_block, [] { tap.order.emplace_back("announce"); });
        world.before(fn::ptd_unset_mutex_block, [] { tap.order.emplace_back("withdraw"); });
        world.clear_calls();
    }

    /* Runs `call` with the mutex functions watched. */
    template <typename F>
    void watch(F call)
    {
        tap = {};
        tap.active = true;
        call();
        tap.active = false;
    }
};

struct locker {
    const char *name;
    const char *where;
    bool locks_twice;
    void (*call)(ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &world);
};

l2vpn_ac_callback_vector_t quiet = {
    [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno { return 0; },
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr};

const locker lockers[] = {
    {"connect", "l2vpn_ac_process_connect_internal", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t, l2vpn::sim::world &world) {
         l2vpn_ac_client_hd_t other = nullptr;
         lib.connect(world.evm(), 0, 5, &quiet, &other);
     }},
    {"disconnect", "l2vpn_ac_process_disconnect", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) { lib.disconnect(hd); }},
    {"create", "l2vpn_ac_create", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) {
         lib.create(hd, 0, 0, nullptr, nullptr, nullptr);
     }},
    {"update", "l2vpn_ac_update", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) {
         lib.update(hd, 0, 0, nullptr, nullptr);
     }},
    {"delete", "l2vpn_ac_delete", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) { lib.remove(hd, 0, 0, nullptr); }},
    {"root", "l2vpn_mstp_root", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) { lib.mstp_root(hd, 0, nullptr, 0); }},
    {"port_request", "l2vpn_mstp_port_request", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) {
         lib.mstp_port_request(hd, 0, nullptr, 0);
     }},
    {"vid_map", "l2vpn_msti_vid_map", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) {
         lib.msti_vid_map(hd, 0, nullptr, 0);
     }},
    {"protect", "l2vpn_mstp_protect", false,
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &) {
         l2vpn_mstp_prot_t prot = {};
         lib.mstp_protect(hd, 0, &prot);
     }},
    {"event", "l2vpn_ac_evt_cb", true,
     [](ac_library &, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &world) {
         world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_CONNECTED, 0, hd);
     }},
    {"message", "l2vpn_ac_msg_cb", true,
     [](ac_library &, l2vpn_ac_client_hd_t hd, l2vpn::sim::world &world) {
         alignas(8) std::uint8_t message[16] = {0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
         world.msg_cb(4)(world.ipc_client(), 4, 0, message, 16, 0, hd);
     }},
    {"timer", "l2vpn_ac_connect_expire_fn", false,
     [](ac_library &, l2vpn_ac_client_hd_t, l2vpn::sim::world &world) { world.advance(seconds(1)); }},
};

class each_locker : public locking, public testing::WithParamInterface<locker> {};

INSTANTIATE_TEST_SUITE_P(functions, each_locker, testing::ValuesIn(lockers),
                         [](const auto &param) { return std::string(param.param.name); });

TEST_P(each_locker, tries_first_and_announces_nothing_when_free)
{
    prepare();
    watch([&] { GetParam().call(lib, hd, world); });
    const std::vector<std::string> once = {"trylock", "unlock"};
    std::vector<std::string> expected = once;
    if (GetParam().locks_twice) /* the callbacks lock at their begin and at their end */
        expected.insert(expected.end(), once.begin(), once.end());
    EXPECT_EQ(tap.order, expected);
    EXPECT_THAT(tap.tried, testing::Each(tap.tried.at(0))) << "the same lock both times";
    EXPECT_EQ(called(fn::ptd_set_mutex_block), 0u);
}

TEST_P(each_locker, announces_its_wait_when_busy)
{
    prepare();
    watch([&] {
        tap.trylock_answer = EBUSY;
        GetParam().call(lib, hd, world);
    });
    const std::vector<std::string> once = {"trylock", "announce", "lock", "withdraw", "unlock"};
    std::vector<std::string> expected = once;
    if (GetParam().locks_twice)
        expected.insert(expected.end(), once.begin(), once.end());
    EXPECT_EQ(tap.order, expected);

    const auto announcements = world.calls(fn::ptd_set_mutex_block);
    ASSERT_FALSE(announcements.empty());
    for (std::size_t i = 0; i < announcements.size(); ++i) {
        EXPECT_EQ(announcements[i].where, GetParam().where);
        EXPECT_NE(announcements[i].line, 0u);
        EXPECT_EQ(announcements[i].args[0], reinterpret_cast<std::uintptr_t>(tap.tried[i]));
    }
}

using each_locker_death = each_locker;

INSTANTIATE_TEST_SUITE_P(functions, each_locker_death, testing::ValuesIn(lockers),
                         [](const auto &param) { return std::string(param.param.name); });

/* At once: nothing is looked up or made without the lock. */
TEST_P(each_locker_death, aborts_when_the_try_fails)
{
    prepare();
    for (const fn next : {fn::wavl_search, fn::calloc_named})
        world.before(next, [] { std::fputs("went on\n", stderr); });
    EXPECT_DEATH(
        watch([&] {
            tap.trylock_answer = EINVAL;
            GetParam().call(lib, hd, world);
        }),
        testing::AllOf(testing::ContainsRegex("l2vpn_.*\\.cpp:[0-9]+: " + std::string(GetParam().where) +
                                              ": Assertion `_rc == EOK' failed"),
                       testing::Not(testing::HasSubstr("went on"))));
}

TEST_P(each_locker_death, withdraws_and_aborts_when_the_blocking_lock_fails)
{
    prepare();
    world.before(fn::ptd_unset_mutex_block, [] { std::fputs("withdrawn\n", stderr); });
    EXPECT_DEATH(watch([&] {
                     tap.trylock_answer = EBUSY;
                     tap.lock_answer = EDEADLK;
                     GetParam().call(lib, hd, world);
                 }),
                 "withdrawn\n.*Assertion `_rc == EOK' failed");
}

TEST_P(each_locker_death, aborts_when_the_unlock_fails)
{
    prepare();
    EXPECT_DEATH(watch([&] {
                     tap.unlock_answer = EPERM;
                     GetParam().call(lib, hd, world);
                 }),
                 "Assertion `_rc == EOK' failed");
}

/* --- which of the two locks --- */

TEST_F(locking, connect_and_requests_share_one_lock_and_disconnect_and_callbacks_the_other)
{
    prepare();
    std::map<std::string, const void *> mutex_of;
    for (const locker &l : lockers) {
        if (std::string(l.name) == "disconnect")
            continue;
        watch([&] { l.call(lib, hd, world); });
        mutex_of[l.name] = tap.tried.at(0);
    }
    watch([&] { lib.disconnect(hd); });
    mutex_of["disconnect"] = tap.tried.at(0);

    const void *const api = mutex_of["create"];
    const void *const cb = mutex_of["disconnect"];
    EXPECT_NE(api, cb);
    for (const char *name :
         {"connect", "update", "delete", "root", "port_request", "vid_map", "protect", "timer"})
        EXPECT_EQ(mutex_of[name], api) << name;
    for (const char *name : {"event", "message"})
        EXPECT_EQ(mutex_of[name], cb) << name;
}

TEST_F(locking, arguments_are_checked_before_any_lock)
{
    prepare();
    watch([&] {
        l2vpn_ac_client_hd_t other = nullptr;
        EXPECT_EQ(lib.connect(nullptr, 0, 4, &callbacks, &other), 22u);
        EXPECT_EQ(lib.connect_nodeid(world.evm(), 0, 4, &callbacks, NODEID_INVALID, &other), 22u);
    });
    EXPECT_THAT(tap.order, IsEmpty());
}

/* A callback runs with no lock held; a second thread could take both. */
TEST_F(locking, callbacks_of_events_and_messages_hold_no_lock)
{
    prepare();
    std::vector<std::string> at_callback;
    during = [&](const notice &) { at_callback = tap.order; };
    watch([&] { world.evt_cb(4)(world.ipc_client(), 1, 0, L2VPN_IPC_EVT_CONNECTED, 0, hd); });
    EXPECT_THAT(at_callback, ElementsAre("trylock", "unlock"));
}

TEST_F(locking, notices_of_a_failed_send_hold_the_request_lock)
{
    prepare();
    std::vector<std::string> at_callback;
    during = [&](const notice &) { at_callback = tap.order; };
    world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
    acs a(1);
    watch([&] { create(hd, 0, a); });
    EXPECT_THAT(at_callback, ElementsAre("trylock"));
}

/* --- what comes before the unlock, and what after --- */

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
