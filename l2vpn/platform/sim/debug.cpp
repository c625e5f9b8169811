/*
 * Debug texts, trace records and syslog: formatted and recorded. The bitsets stand for
 * settings.debug_enabled with the bits that the test chose one by one on top, and are written anew only
 * when one of these has changed.
 */
#include "calls.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace l2vpn::sim {

namespace {

constexpr std::uint32_t bits_per_word = 64;
constexpr std::uint32_t bits_of_set = GEN_DBG_BITSET_WORDS * bits_per_word;

void put_bit(gen_dbg_bitset_t &bits, std::uint32_t id, bool value)
{
    const std::uint64_t bit = std::uint64_t{1} << (id % bits_per_word);
    std::uint64_t &word = bits.words[id / bits_per_word];
    word = value ? word | bit : word & ~bit;
}

void fill(gen_dbg_bitset_t &bits, bool value)
{
    for (std::uint64_t &word : bits.words)
        word = value ? ~std::uint64_t{0} : 0;
}

[[nodiscard]] std::string formatted(const char *format, va_list values)
{
    char *text = nullptr;
    if (vasprintf(&text, format, values) < 0)
        return "";
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return text;
}

/* Where a text comes from, for those functions that are told. */
struct origin {
    const char *function = nullptr;
    std::uint32_t line = 0;
};

void log_call(fn function, argument_list args, origin from, const char *format, va_list values)
{
    invoke<nothing>(
        function, args, {}, [](core &) { return nothing{}; },
        [&](call &entry) {
            entry.where = from.function == nullptr ? "" : from.function;
            entry.line = from.line;
            if (format != nullptr) {
                entry.format = format;
                entry.text = formatted(format, values);
            }
        });
}

} // namespace

void core::choose_debug_bit(debug_set &one, std::uint32_t id, bool value)
{
    if (id >= bits_of_set)
        throw std::invalid_argument("debug ids go up to " + std::to_string(bits_of_set - 1));
    one.chosen.insert_or_assign(id, value);
    put_bit(one.bits, id, value);
}

const gen_dbg_bitset_t *core::debug_bits(const debug_set &one)
{
    if (debug_filled != set.debug_enabled) {
        debug_filled = set.debug_enabled;
        for (debug_set *each : {&debug_enabled, &debug_traced}) {
            fill(each->bits, debug_filled);
            for (const auto &[id, value] : each->chosen)
                put_bit(each->bits, id, value);
        }
    }
    return one.null ? nullptr : &one.bits;
}

} // namespace l2vpn::sim

using namespace l2vpn::sim;

const gen_dbg_bitset_t *gen_dbg_get_enabled_bitset(void)
{
    return invoke<const gen_dbg_bitset_t *>(fn::gen_dbg_get_enabled_bitset, {}, nullptr, [](core &world) {
        return world.debug_bits(world.debug_enabled);
    });
}

const gen_dbg_bitset_t *gen_dbg_ltrace_get_dbg_bitset(void)
{
    return invoke<const gen_dbg_bitset_t *>(fn::gen_dbg_ltrace_get_dbg_bitset, {}, nullptr,
                                            [](core &world) { return world.debug_bits(world.debug_traced); });
}

void gen_format_debug_fmt(uint32_t debug_id, const char *function, uint32_t line, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::gen_format_debug_fmt, arguments(debug_id), {function, line}, format, values);
    va_end(values);
}

void gen_dbg_ltrace_ctx(uint32_t trace_id, const char *function, uint32_t line, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::gen_dbg_ltrace_ctx, arguments(trace_id), {function, line}, format, values);
    va_end(values);
}

void gen_ltrace(uint32_t trace_id, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::gen_ltrace, arguments(trace_id), {}, format, values);
    va_end(values);
}

qerrno l2vpn_debug_init(event_mgr_p evm)
{
    return invoke<qerrno>(fn::l2vpn_debug_init, arguments(evm), ENODEV, [&](core &world) -> qerrno {
        if (!world.event_managers.contains(world.number_of(evm)))
            return EINVAL;
        world.debug_ready = true;
        fill(world.report_bits, true);
        return EOK;
    });
}

l2vpn_debug_ctx_t *l2vpn_debug_get_ctx(void)
{
    return invoke<l2vpn_debug_ctx_t *>(fn::l2vpn_debug_get_ctx, {}, nullptr, [](core &world) {
        return world.debug_ready ? world.handle_of<l2vpn_debug_ctx_t *>(1) : nullptr;
    });
}

const gen_dbg_bitset_t *l2vpn_debug_get_enabled_bitset(void)
{
    return invoke<const gen_dbg_bitset_t *>(fn::l2vpn_debug_get_enabled_bitset, {}, nullptr,
                                            [](core &world) -> const gen_dbg_bitset_t * {
                                                return world.debug_ready ? &world.report_bits : nullptr;
                                            });
}

void l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_ctx_t *ctx, const gen_dbg_bitset_t *enabled,
                                      uint32_t component, const char *function, uint32_t line,
                                      const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::l2vpn_generic_gen_dbg_ltrace_ctx, arguments(ctx, enabled, component), {function, line},
             format, values);
    va_end(values);
}

int l2vpn_check_ltrace_buffer(uint64_t key)
{
    return invoke<int>(fn::l2vpn_check_ltrace_buffer, arguments(key), 0,
                       [](core &world) { return world.set.ltrace_wanted ? 1 : 0; });
}

void l2vpn_ltrace(uint64_t key, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::l2vpn_ltrace, arguments(key), {}, format, values);
    va_end(values);
}

void l2vpn_gen_assert_errmsg(int value)
{
    invoke<nothing>(fn::l2vpn_gen_assert_errmsg, arguments(value), {}, [](core &) { return nothing{}; });
}

void vy_syslog(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    log_call(fn::vy_syslog, arguments(level), {}, format, values);
    va_end(values);
}
