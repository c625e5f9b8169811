/*
 * Who takes which lock, and how.
 */
#include "lock_test.h"

#include <dlfcn.h>
#include <map>
#include <pthread.h>

using namespace lock_test;

namespace {

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

} // namespace
