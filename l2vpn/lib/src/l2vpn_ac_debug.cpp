/* Fatal assertions are on in every build; the C library declares what they end in only then. */
#undef NDEBUG
#include <cassert>

#include "l2vpn_ac_debug.h"

static bool bit_is_set(const gen_dbg_bitset_t *set)
{
    return set != nullptr && ((set->words[L2VPN_AC_DEBUG_ID / 64] >> (L2VPN_AC_DEBUG_ID % 64)) & 1) != 0;
}

bool l2vpn_ac_debug_enabled()
{
    return bit_is_set(gen_dbg_get_enabled_bitset()) && bit_is_set(gen_dbg_ltrace_get_dbg_bitset());
}

#define REPORT(function, line, ...)                                                                          \
    l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_get_ctx(), l2vpn_debug_get_enabled_bitset(),                \
                                     L2VPN_AC_DEBUG_COMPONENT, function, line, __VA_ARGS__)

/* The key of a compact record: its id, and how many 32-bit values it has. */
static constexpr uint64_t key_of(l2vpn_ac_record record, uint32_t values)
{
    return uint64_t{values} << 32 | record;
}

static void record_value(l2vpn_ac_record record, uint32_t line, uint32_t value)
{
    const uint64_t key = key_of(record, 2);
    if (l2vpn_check_ltrace_buffer(key) != 0)
        l2vpn_ltrace(key, "%u%u", line, value);
}

void l2vpn_ac_report_bad_class(const char *function, uint32_t line, uint32_t class_id)
{
    REPORT(function, line, "Unable to get info message size for class id %u", class_id);
    record_value(L2VPN_AC_RECORD_BAD_CLASS, line, class_id);
}

void l2vpn_ac_report_no_memory(const char *function, uint32_t line)
{
    REPORT(function, line, "Cannot allocate memory for info msg array");
    const uint64_t key = key_of(L2VPN_AC_RECORD_NO_MEMORY, 1);
    if (l2vpn_check_ltrace_buffer(key) != 0)
        l2vpn_ltrace(key, "%u ", line);
}

void l2vpn_ac_report_failed_send(const char *function, uint32_t line, qerrno status)
{
    REPORT(function, line, "Failed to unicast: %s", qerr_strerror(status));
    record_value(L2VPN_AC_RECORD_MSTP_SEND, line, status);
}

void l2vpn_ac_assert_fail(const char *expression, const char *file, uint32_t line, const char *function)
{
    __assert_fail(expression, file, line, function);
}
