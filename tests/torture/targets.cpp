#include "targets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace torture {

namespace {

const std::vector<int> some_status = {ENOBUFS};
const std::vector<int> some_errno = {ENOBUFS, 0}; /* a failure that gives no reason */

target of(fn function, failing how, const std::vector<int> &statuses)
{
    static std::vector<std::string> names(l2vpn::sim::fn_count);
    std::string &name = names[static_cast<std::size_t>(function)];
    name = name_of(function);
    return {name, how, statuses, function};
}

const std::vector<target> all_targets = {
    of(fn::l2vpn_debug_init, failing::fails, some_status),
    of(fn::platform_get_my_nodeid, failing::fails, some_status),
    of(fn::l2vpn_ipc_client_init, failing::fails, some_status),
    of(fn::event_async_attach_event, failing::fails, some_errno),
    of(fn::mgd_timer_tree_new, failing::fails, some_status),
    of(fn::mgd_timer_parent_new, failing::fails, some_status),
    of(fn::wavl_init, failing::fails, some_status),
    of(fn::calloc_named, failing::fails, some_status),
    of(fn::mgd_timer_leaf_new, failing::fails, some_status),
    of(fn::mgd_timer_leaf_set_addl_context, failing::fails, some_errno),
    of(fn::wavl_insert, failing::fails, some_status),
    of(fn::l2vpn_ipc_class_init, failing::fails, some_status),
    of(fn::l2vpn_ipc_class_deinit, failing::fails, some_status),
    of(fn::l2vpn_ipc_transport_mtu_get, failing::fails, some_status),
    of(fn::l2vpn_ipc_ucast, failing::fails, some_status),
    of(fn::l2vpn_ipc_ucastv, failing::fails, some_status),
    of(fn::l2vpn_ac_data_sanitize, failing::fails, some_status),
    {"mmap", failing::fails, {ENOMEM}, {}},

    of(fn::wavl_search, failing::denies, some_status),
    of(fn::mgd_timer_leaf_running, failing::denies, some_status),
    of(fn::mgd_timer_leaf_get_addl_context, failing::denies, some_status),
    of(fn::mgd_timer_tree_first_expired, failing::denies, some_status),
    of(fn::gen_dbg_get_enabled_bitset, failing::denies, some_status),
    of(fn::gen_dbg_ltrace_get_dbg_bitset, failing::denies, some_status),
    of(fn::l2vpn_debug_get_ctx, failing::denies, some_status),
    of(fn::l2vpn_debug_get_enabled_bitset, failing::denies, some_status),
    of(fn::l2vpn_check_ltrace_buffer, failing::denies, some_status),

    {"busy_mutex", failing::waits, {EBUSY}, {}},

    of(fn::mgd_timer_leaf_get_context, failing::dies, some_status),
    {"pthread_mutex_trylock", failing::dies, {EINVAL}, {}},
    {"pthread_mutex_lock", failing::dies, {EDEADLK}, {}}, /* of a mutex that was busy */
    {"pthread_mutex_unlock", failing::dies, {EPERM}, {}},
};

const fn cannot_fail[] = {
    fn::qerr_strerror,
    fn::mgd_timer_tree_free,
    fn::mgd_timer_parent_free,
    fn::mgd_timer_leaf_free,
    fn::mgd_timer_leaf_start,
    fn::mgd_timer_leaf_stop,
    fn::wavl_delete,
    fn::ptd_set_mutex_block,
    fn::ptd_unset_mutex_block,
    fn::gen_format_debug_fmt,
    fn::gen_dbg_ltrace_ctx,
    fn::gen_ltrace,
    fn::l2vpn_generic_gen_dbg_ltrace_ctx,
    fn::l2vpn_ltrace,
    fn::l2vpn_gen_assert_errmsg,
    fn::vy_syslog,
};

} // namespace

std::span<const target> targets()
{
    return all_targets;
}

std::span<const fn> infallible()
{
    return cannot_fail;
}

const target &target_of(fn function)
{
    static const auto by_function = [] {
        std::array<const target *, l2vpn::sim::fn_count> table{};
        for (const target &one : all_targets) {
            if (one.function)
                table.at(static_cast<std::size_t>(*one.function)) = &one;
        }
        return table;
    }();
    const target *const found = by_function.at(static_cast<std::size_t>(function));
    if (found == nullptr)
        throw std::invalid_argument("no call that can fail: " + name_of(function));
    return *found;
}

const target &target_named(std::string_view name)
{
    const auto found = std::ranges::find(all_targets, name, &target::name);
    if (found == all_targets.end())
        throw std::invalid_argument("no call that can fail: " + std::string(name));
    return *found;
}

} // namespace torture
