/* What the machines stand for; without it, their tests would say nothing that those of x86-64 do not. */
#include "l2vpn_ac_wire.h"

#if defined(__aarch64__)
static_assert(L2VPN_AC_BLOCKS && !l2vpn_ac_host_is_wire && sizeof(void *) == 8);
#elif defined(__i386__)
static_assert(!L2VPN_AC_BLOCKS && !l2vpn_ac_host_is_wire && sizeof(void *) == 4);
#elif defined(__s390x__)
static_assert(!L2VPN_AC_BLOCKS && l2vpn_ac_host_is_wire && sizeof(void *) == 8);
#else
#error "a machine that nobody has thought of"
#endif
