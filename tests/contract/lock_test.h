/*
 * The lock protocol, seen from outside: the program puts its own mutex functions in front of the C library's
 * (lock_test.cpp), has a try-lock report busy or a call fail, and writes down the order of things.
 */
#ifndef TESTS_CONTRACT_LOCK_TEST_H
#define TESTS_CONTRACT_LOCK_TEST_H

#include "contract_test.h"

namespace lock_test {

/* What the next calls of the library's threads are to answer; off outside a test's window. */
struct interposer {
    bool active = false;
    int trylock_answer = 0; /* non-zero: given instead of locking */
    int lock_answer = 0;    /* non-zero: likewise */
    int unlock_answer = 0;  /* non-zero: given after really unlocking */
    std::vector<std::string> order;
    std::vector<const void *> tried;
};

inline thread_local interposer tap;
inline thread_local std::function<void()> tap_unlock; /* called as a watched mutex is about to be let go */

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

inline l2vpn_ac_callback_vector_t quiet = {
    [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno { return 0; },
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr};

inline const locker lockers[] = {
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

} // namespace lock_test

#endif
