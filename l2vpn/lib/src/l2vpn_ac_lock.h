/*
 * The lock protocol. Both library mutexes are recursive; every lock is a try-lock first, and a thread that
 * has to wait is announced to the platform's lock monitor for as long as it waits. Any other failure to
 * lock or unlock means corrupted state, and is fatal.
 */
#ifndef L2VPN_AC_LOCK_H
#define L2VPN_AC_LOCK_H

#include <pthread.h>
#include <stdint.h>

class l2vpn_ac_lock {
public:
    /* Locks. The place is told to the lock monitor and by a failing assertion. */
    l2vpn_ac_lock(pthread_mutex_t &mutex, const char *function, const char *file = __builtin_FILE(),
                  uint32_t line = __builtin_LINE());

    /* Unlocks, if unlock() has not. */
    ~l2vpn_ac_lock();

    void unlock(uint32_t line = __builtin_LINE());

    l2vpn_ac_lock(const l2vpn_ac_lock &) = delete;
    l2vpn_ac_lock &operator=(const l2vpn_ac_lock &) = delete;

private:
    void check(int rc, uint32_t line) const;

    pthread_mutex_t *mutex_;
    const char *function_;
    const char *file_;
    uint32_t line_;
};

#endif
