/*
 * Debug texts, trace records and syslog.
 *
 * Texts are for people and go to a sink that is off by default; records are compact, for the trace ring.
 * The `...` functions take the values of their printf format; strings are read during the call only.
 * Every function may be called from any thread, costs little when its channel is off, and never fails.
 */
#ifndef PLATFORM_DEBUG_H
#define PLATFORM_DEBUG_H

#include <platform/compiler.h>
#include <platform/event_mgr.h>
#include <platform/qerr.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

/* Bit N of the set (bit N % 64 of words[N / 64]) is debug id N. */
#define GEN_DBG_BITSET_WORDS 32
typedef struct gen_dbg_bitset {
    uint64_t words[GEN_DBG_BITSET_WORDS];
} gen_dbg_bitset_t;

/* The debug ids whose texts somebody wants, and those whose texts the trace wants. A text is given when its
 * bit is set in both. Static, may change at any time; null enables nothing. */
const gen_dbg_bitset_t *gen_dbg_get_enabled_bitset(void);
const gen_dbg_bitset_t *gen_dbg_ltrace_get_dbg_bitset(void);

/* A debug text of `debug_id`, from `function` at source line `line`. The caller has tested the bitsets. */
void gen_format_debug_fmt(uint32_t debug_id, const char *function, uint32_t line, const char *format, ...)
    PLATFORM_PRINTF(4, 5);

/* An entry or exit trace, as a text and as a record. */
void gen_dbg_ltrace_ctx(uint32_t trace_id, const char *function, uint32_t line, const char *format, ...)
    PLATFORM_PRINTF(4, 5);
void gen_ltrace(uint32_t trace_id, const char *format, ...) PLATFORM_PRINTF(2, 3);

typedef struct l2vpn_debug_ctx l2vpn_debug_ctx_t;

/*
 * Sets debugging up for this process; a repeated call changes nothing.
 *
 * EOK     ready
 * EINVAL  `evm` is null
 */
qerrno l2vpn_debug_init(event_mgr_p evm);

/* The context and the set for the L2VPN error trace; null before l2vpn_debug_init(). */
l2vpn_debug_ctx_t *l2vpn_debug_get_ctx(void);
const gen_dbg_bitset_t *l2vpn_debug_get_enabled_bitset(void);

/* An error report as a text, of `component`. `ctx` and `enabled` may be null. */
void l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_ctx_t *ctx, const gen_dbg_bitset_t *enabled,
                                      uint32_t component, const char *function, uint32_t line,
                                      const char *format, ...) PLATFORM_PRINTF(6, 7);

/* The key of a record is its id, with the number of its 32-bit values in the upper half. */
#define L2VPN_LTRACE_KEY(record_id, values) ((uint64_t)(record_id) | ((uint64_t)(values) << 32))

/* Non-zero when the record is wanted. */
int l2vpn_check_ltrace_buffer(uint64_t key);

/* An error report as a record. */
void l2vpn_ltrace(uint64_t key, const char *format, ...) PLATFORM_PRINTF(2, 3);

/* Reports a condition that should not be, and returns. */
void l2vpn_gen_assert_errmsg(int value);

/* A message to the system's log at `level` (syslog(3)'s numbers). */
void vy_syslog(int level, const char *format, ...) PLATFORM_PRINTF(2, 3);

PLATFORM_END_DECLS

#endif
