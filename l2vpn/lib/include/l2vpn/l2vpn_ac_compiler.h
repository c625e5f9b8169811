/*
 * What the client headers need from the compiler. They need of the platform what it promises in
 * <platform/platform.h>, and nothing else.
 */
#ifndef L2VPN_AC_COMPILER_H
#define L2VPN_AC_COMPILER_H

/* What stands between the two has C linkage and is exported, whatever the visibility elsewhere. */
#ifdef __cplusplus
#define L2VPN_AC_BEGIN_DECLS                                                                                 \
    _Pragma("GCC visibility push(default)") extern "C"                                                       \
    {
#define L2VPN_AC_END_DECLS                                                                                   \
    }                                                                                                        \
    _Pragma("GCC visibility pop")
#define L2VPN_AC_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define L2VPN_AC_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define L2VPN_AC_END_DECLS _Pragma("GCC visibility pop")
#define L2VPN_AC_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#endif
