/*
 * The contract's debug and trace functions: one origin each, and the channels that want it. Texts of debug
 * messages and reports are kept in the ring too; an entry trace's record is its gen_ltrace() alone.
 */
#include "trace/channels.h"

#include <platform/debug.h>

#include <algorithm>
#include <cerrno>
#include <syslog.h>

using namespace l2vpn::trace;

struct l2vpn_debug_ctx {};

namespace {

constexpr gen_dbg_bitset_t bits_of_all(std::uint64_t word)
{
    gen_dbg_bitset_t set{};
    std::ranges::fill(set.words, word);
    return set;
}

/* Switching gives out another set instead of changing one that somebody reads. */
constexpr gen_dbg_bitset_t no_bits = bits_of_all(0);
constexpr gen_dbg_bitset_t all_bits = bits_of_all(~std::uint64_t{0});

l2vpn_debug_ctx the_context;
std::atomic<bool> initialised{false};

const gen_dbg_bitset_t *wanted_bits()
{
    return channels() == 0 ? &no_bits : &all_bits;
}

} // namespace

const gen_dbg_bitset_t *gen_dbg_get_enabled_bitset(void)
{
    return wanted_bits();
}

const gen_dbg_bitset_t *gen_dbg_ltrace_get_dbg_bitset(void)
{
    return wanted_bits();
}

qerrno l2vpn_debug_init(event_mgr_p evm)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    initialised.store(true);
    static_cast<void>(channels());
    return EOK;
}

l2vpn_debug_ctx_t *l2vpn_debug_get_ctx(void)
{
    return initialised.load() ? &the_context : nullptr;
}

const gen_dbg_bitset_t *l2vpn_debug_get_enabled_bitset(void)
{
    return initialised.load() ? wanted_bits() : nullptr;
}

int l2vpn_check_ltrace_buffer(uint64_t)
{
    return (channels() & to_ring) != 0 ? 1 : 0;
}

void gen_format_debug_fmt(uint32_t debug_id, const char *function, uint32_t line, const char *format, ...)
{
    const unsigned open = channels();
    if (open == 0) {
        return;
    }
    va_list values;
    va_start(values, format);
    give(open, {.kind = record_kind::debug, .id = debug_id, .function = function, .line = line}, format,
         values);
    va_end(values);
}

void gen_dbg_ltrace_ctx(uint32_t trace_id, const char *function, uint32_t line, const char *format, ...)
{
    const unsigned open = channels() & to_sink;
    if (open == 0) {
        return;
    }
    va_list values;
    va_start(values, format);
    give(open, {.kind = record_kind::entry, .id = trace_id, .function = function, .line = line}, format,
         values);
    va_end(values);
}

void gen_ltrace(uint32_t trace_id, const char *format, ...)
{
    const unsigned open = channels() & to_ring;
    if (open == 0) {
        return;
    }
    va_list values;
    va_start(values, format);
    give(open, {.kind = record_kind::entry, .id = trace_id}, format, values);
    va_end(values);
}

void l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_ctx_t *, const gen_dbg_bitset_t *, uint32_t component,
                                      const char *function, uint32_t line, const char *format, ...)
{
    const unsigned open = channels();
    if (open == 0) {
        return;
    }
    va_list values;
    va_start(values, format);
    give(open, {.kind = record_kind::report, .id = component, .function = function, .line = line}, format,
         values);
    va_end(values);
}

void l2vpn_ltrace(uint64_t key, const char *format, ...)
{
    const unsigned open = channels() & to_ring;
    if (open == 0) {
        return;
    }
    va_list values;
    va_start(values, format);
    give(open, {.kind = record_kind::error, .id = key}, format, values);
    va_end(values);
}

namespace {

/* Values for a format of our own. */
PLATFORM_PRINTF(3, 4)
void give_values(unsigned open, const origin &from, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    give(open, from, format, values);
    va_end(values);
}

} // namespace

void l2vpn_gen_assert_errmsg(int value)
{
    if (const unsigned open = channels(); open != 0) {
        give_values(open, {.kind = record_kind::assertion, .id = 0}, "a condition that should not be: %d",
                    value);
    }
}

void vy_syslog(int level, const char *format, ...)
{
    const int error = errno;
    va_list values;
    va_start(values, format);
    if (const unsigned open = channels() & (to_ring | to_stderr); open != 0) {
        give(open, {.kind = record_kind::syslog, .id = static_cast<std::uint64_t>(level)}, format, values);
    }
    ::vsyslog(level, format, values);
    va_end(values);
    errno = error;
}
