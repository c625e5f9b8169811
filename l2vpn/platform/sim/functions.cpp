#include "functions.h"

#include <array>

namespace l2vpn::sim {

namespace {

// clang-format off
constexpr std::array<traits, fn_count> table = {{
#define ROW(name, result, fallible, look_up, print) {fn::name, #name, returns::result, fallible, look_up, print}
    //  name                           returns   fallible look_up print
    ROW(qerr_strerror,                   pointer, false, true,  "d"),
    ROW(platform_get_my_nodeid,          status,  true,  false, "p"),
    ROW(calloc_named,                    pointer, true,  false, "dds"),
    ROW(event_async_attach_event,        number,  true,  false, "pdppp"),
    ROW(mgd_timer_tree_new,              pointer, true,  false, "pd"),
    ROW(mgd_timer_tree_free,             nothing, false, false, "p"),
    ROW(mgd_timer_parent_new,            pointer, true,  false, "pp"),
    ROW(mgd_timer_parent_free,           nothing, false, false, "p"),
    ROW(mgd_timer_leaf_new,              pointer, true,  false, "pppp"),
    ROW(mgd_timer_leaf_free,             nothing, false, false, "p"),
    ROW(mgd_timer_leaf_get_context,      pointer, false, true,  "p"),
    ROW(mgd_timer_leaf_set_addl_context, number,  true,  false, "pdp"),
    ROW(mgd_timer_leaf_get_addl_context, pointer, false, true,  "pd"),
    ROW(mgd_timer_leaf_running,          answer,  false, true,  "p"),
    ROW(mgd_timer_leaf_start,            nothing, false, false, "pt"),
    ROW(mgd_timer_leaf_stop,             nothing, false, false, "p"),
    ROW(mgd_timer_tree_first_expired,    pointer, false, false, "p"),
    ROW(wavl_init,                       status,  true,  false, "pdpp"),
    ROW(wavl_insert,                     pointer, true,  false, "pp"),
    ROW(wavl_search,                     pointer, false, false, "ppd"),
    ROW(wavl_delete,                     nothing, false, false, "pp"),
    ROW(l2vpn_ipc_client_init,           status,  true,  false, "psp"),
    ROW(l2vpn_ipc_class_init,            status,  true,  false, "pdxpppp"),
    ROW(l2vpn_ipc_class_deinit,          status,  true,  false, "pdx"),
    ROW(l2vpn_ipc_transport_mtu_get,     status,  true,  false, "pdp"),
    ROW(l2vpn_ipc_ucast,                 status,  true,  false, "pdxpdx"),
    ROW(l2vpn_ipc_ucastv,                status,  true,  false, "pdxpdx"),
    ROW(l2vpn_ac_data_sanitize,          status,  true,  false, "dpppd"),
    ROW(ptd_set_mutex_block,             nothing, false, false, "p"),
    ROW(ptd_unset_mutex_block,           nothing, false, false, ""),
    ROW(gen_dbg_get_enabled_bitset,      pointer, false, true,  ""),
    ROW(gen_dbg_ltrace_get_dbg_bitset,   pointer, false, true,  ""),
    ROW(gen_format_debug_fmt,            nothing, false, false, "d"),
    ROW(gen_dbg_ltrace_ctx,              nothing, false, false, "d"),
    ROW(gen_ltrace,                      nothing, false, false, "d"),
    ROW(l2vpn_debug_init,                status,  true,  false, "p"),
    ROW(l2vpn_debug_get_ctx,             pointer, false, true,  ""),
    ROW(l2vpn_debug_get_enabled_bitset,  pointer, false, true,  ""),
    ROW(l2vpn_generic_gen_dbg_ltrace_ctx, nothing, false, false, "ppd"),
    ROW(l2vpn_check_ltrace_buffer,       answer,  false, false, "x"),
    ROW(l2vpn_ltrace,                    nothing, false, false, "x"),
    ROW(l2vpn_gen_assert_errmsg,         nothing, false, false, "d"),
    ROW(vy_syslog,                       nothing, false, false, "d"),
#undef ROW
}};
// clang-format on

constexpr bool in_order()
{
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (static_cast<std::size_t>(table[i].function) != i || table[i].name == nullptr)
            return false;
    }
    return true;
}
static_assert(in_order(), "row N is function N");

} // namespace

const traits &traits_of(fn function)
{
    return table.at(static_cast<std::size_t>(function));
}

std::string name_of(fn function)
{
    const auto number = static_cast<std::size_t>(function);
    return number < table.size() ? table[number].name : "?" + std::to_string(number);
}

} // namespace l2vpn::sim
