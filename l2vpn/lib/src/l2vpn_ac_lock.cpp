#include "l2vpn_ac_lock.h"

#include "l2vpn_ac_debug.h"

#include <cerrno>

void l2vpn_ac_lock::check(int rc, uint32_t line) const
{
    if (rc != EOK)
        l2vpn_ac_assert_fail("_rc == EOK", file_, line, function_);
}

l2vpn_ac_lock::l2vpn_ac_lock(pthread_mutex_t &mutex, const char *function, const char *file, uint32_t line)
    : mutex_(&mutex), function_(function), file_(file), line_(line)
{
    int rc = pthread_mutex_trylock(mutex_);
    if (rc == EBUSY) {
        ptd_set_mutex_block(mutex_, function_, line_);
        rc = pthread_mutex_lock(mutex_);
        ptd_unset_mutex_block();
    }
    check(rc, line_);
}

l2vpn_ac_lock::~l2vpn_ac_lock()
{
    if (mutex_ != nullptr)
        unlock(line_);
}

void l2vpn_ac_lock::unlock(uint32_t line)
{
    pthread_mutex_t *const mutex = mutex_;
    mutex_ = nullptr;
    check(pthread_mutex_unlock(mutex), line);
}
