/*
 * The three logging channels and the fatal assertion.
 *
 *   L2VPN_AC_DEBUG     debug message, when debug id 1094 is enabled in both of the platform's bitsets
 *   L2VPN_AC_TRACE     entry, exit and event traces, always given
 *   l2vpn_ac_report_*  error reports, always given; the trace library decides what it keeps. A compact
 *                      record follows when its record id is wanted
 *
 * The first two are macros: values are computed only when somebody wants the text, the source line is the
 * caller's, and the compiler checks a format against its values where both stand together.
 */
#ifndef L2VPN_AC_DEBUG_H
#define L2VPN_AC_DEBUG_H

#include <platform/platform.h>

inline constexpr uint32_t L2VPN_AC_DEBUG_ID = 1094;
inline constexpr uint32_t L2VPN_AC_DEBUG_COMPONENT = 163;

/* Trace ids. Those of the requests are agreed with the readers of traces, the rest are the library's own. */
enum l2vpn_ac_trace : uint32_t {
    L2VPN_AC_TRACE_CREATE = 1079,
    L2VPN_AC_TRACE_UPDATE = 1080,
    L2VPN_AC_TRACE_DELETE = 1081,
    L2VPN_AC_TRACE_MSTP_ROOT = 1083,
    L2VPN_AC_TRACE_MSTP_PORT_REQUEST = 1084,
    L2VPN_AC_TRACE_MSTI_VID_MAP = 1085,
    L2VPN_AC_TRACE_MSTP_PROTECT = 1086,
    L2VPN_AC_TRACE_CONNECT_EXIT = 1090,
    L2VPN_AC_TRACE_INIT_EXIT = 1091,
    L2VPN_AC_TRACE_EVENT = 1092,
    L2VPN_AC_TRACE_INBOUND = 1093,
    L2VPN_AC_TRACE_INBOUND_BAD = 1095,
};

/* Record ids of the compact error records. */
enum l2vpn_ac_record : uint32_t {
    L2VPN_AC_RECORD_NO_MEMORY = 0x2002051a,
    L2VPN_AC_RECORD_BAD_CLASS = 0x2002051b,
    L2VPN_AC_RECORD_MSTP_SEND = 0x2002051c,
};

/* True when debug messages of the library are wanted. */
bool l2vpn_ac_debug_enabled();

#define L2VPN_AC_DEBUG(function, ...)                                                                        \
    do {                                                                                                     \
        if (l2vpn_ac_debug_enabled())                                                                        \
            gen_format_debug_fmt(L2VPN_AC_DEBUG_ID, function, __LINE__, __VA_ARGS__);                        \
    } while (false)

#define L2VPN_AC_TRACE(trace_id, function, ...)                                                              \
    do {                                                                                                     \
        gen_dbg_ltrace_ctx(trace_id, function, __LINE__, __VA_ARGS__);                                       \
        gen_ltrace(trace_id, __VA_ARGS__);                                                                   \
    } while (false)

/* The library's error reports: a text, and a compact record of the same source line beside it. */
void l2vpn_ac_report_bad_class(const char *function, uint32_t line, uint32_t class_id);
void l2vpn_ac_report_no_memory(const char *function, uint32_t line);
void l2vpn_ac_report_failed_send(const char *function, uint32_t line, qerrno status);

/* Aborts the process in every build type, with the C library's own message. */
[[noreturn]] void l2vpn_ac_assert_fail(const char *expression, const char *file, uint32_t line,
                                       const char *function);

#define L2VPN_AC_ASSERT(expression)                                                                          \
    ((expression) ? static_cast<void>(0) : l2vpn_ac_assert_fail(#expression, __FILE__, __LINE__, __func__))

#endif
