#include "counting_platform.h"

#include "common/core.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace {

std::uint32_t s_mtu = 65536;
counting::counts s_counts;
counting::outlet *s_outlet;
struct {
    std::uint32_t class_id;
    l2vpn_ipc_msg_cb_t msg_cb;
    void *cookie;
} s_registered;
std::vector<wavl_node_t *> s_nodes;
wavl_get_key_t s_get_key;
std::atomic<double> s_longest_wait;
thread_local std::chrono::steady_clock::time_point s_wait_begin;
char s_something;

template <typename T>
T *something()
{
    return reinterpret_cast<T *>(&s_something);
}

} // namespace

namespace counting {

counts take()
{
    const counts taken = s_counts;
    s_counts = {};
    return taken;
}

void set_mtu(std::uint32_t mtu)
{
    s_mtu = mtu;
}

void set_outlet(outlet *to)
{
    s_outlet = to;
}

void deliver(void *message, std::uint32_t length)
{
    s_registered.msg_cb(something<l2vpn_ipc_client>(), s_registered.class_id, 0, message, length, 0,
                        s_registered.cookie);
}

double longest_wait()
{
    return s_longest_wait.exchange(0);
}

event_mgr_p evm()
{
    return something<event_mgr>();
}

} // namespace counting

const char *qerr_strerror(qerrno status)
{
    return std::strerror(static_cast<int>(status));
}

qerrno platform_get_my_nodeid(uint32_t *nodeid)
{
    *nodeid = 1;
    return EOK;
}

void *calloc_named(size_t count, size_t size, const char *)
{
    return l2vpn::platform_core::allocate(count, size);
}

int event_async_attach_event(event_mgr_p, int, event_async_handler_t, void *, event_context_t *)
{
    return 0;
}

mgd_timer_tree_t *mgd_timer_tree_new(const event_context_t *, uint32_t)
{
    return something<mgd_timer_tree_t>();
}
void mgd_timer_tree_free(mgd_timer_tree_t *) {}
mgd_timer_parent_t *mgd_timer_parent_new(mgd_timer_tree_t *, mgd_timer_parent_t *)
{
    return something<mgd_timer_parent_t>();
}
void mgd_timer_parent_free(mgd_timer_parent_t *) {}
mgd_timer_leaf_t *mgd_timer_leaf_new(mgd_timer_tree_t *, mgd_timer_parent_t *, void *, mgd_timer_fn_t)
{
    return something<mgd_timer_leaf_t>();
}
void mgd_timer_leaf_free(mgd_timer_leaf_t *) {}
mgd_timer_fn_t mgd_timer_leaf_get_context(const mgd_timer_leaf_t *)
{
    return nullptr;
}
int mgd_timer_leaf_set_addl_context(mgd_timer_leaf_t *, uint32_t, void *)
{
    return 0;
}
void *mgd_timer_leaf_get_addl_context(const mgd_timer_leaf_t *, uint32_t)
{
    return nullptr;
}
int mgd_timer_leaf_running(const mgd_timer_leaf_t *)
{
    return 1;
}
void mgd_timer_leaf_start(mgd_timer_leaf_t *, const struct timespec *) {}
void mgd_timer_leaf_stop(mgd_timer_leaf_t *) {}
mgd_timer_leaf_t *mgd_timer_tree_first_expired(mgd_timer_tree_t *)
{
    return nullptr;
}

qerrno wavl_init(wavl_tree_t *, uint32_t, wavl_get_key_t get_key, wavl_compare_t)
{
    s_get_key = get_key;
    return EOK;
}
wavl_node_t *wavl_insert(wavl_tree_t *, wavl_node_t *node)
{
    s_nodes.push_back(node);
    return node;
}
wavl_node_t *wavl_search(wavl_tree_t *, const wavl_node_t *node, uint32_t)
{
    for (wavl_node_t *const candidate : s_nodes) {
        if (s_get_key(candidate) == s_get_key(node))
            return candidate;
    }
    return nullptr;
}
void wavl_delete(wavl_tree_t *, wavl_node_t *node)
{
    std::erase(s_nodes, node);
}

qerrno l2vpn_ipc_client_init(event_mgr_p, const char *, l2vpn_ipc_client_t *client)
{
    *client = something<l2vpn_ipc_client>();
    return EOK;
}
qerrno l2vpn_ipc_class_init(l2vpn_ipc_client_t, uint32_t class_id, uint32_t, l2vpn_ipc_msg_cb_t msg_cb,
                            l2vpn_ipc_evt_cb_t, void *, void *cookie)
{
    s_registered = {class_id, msg_cb, cookie};
    return EOK;
}
qerrno l2vpn_ipc_class_deinit(l2vpn_ipc_client_t, uint32_t, uint32_t)
{
    return EOK;
}
qerrno l2vpn_ipc_transport_mtu_get(l2vpn_ipc_client_t, uint32_t, uint32_t *mtu)
{
    *mtu = s_mtu;
    return EOK;
}
qerrno l2vpn_ipc_ucastv(l2vpn_ipc_client_t, uint32_t, uint32_t, const struct iovec *pieces, uint32_t count,
                        uint32_t)
{
    ++s_counts.messages;
    for (uint32_t i = 0; i < count; ++i)
        s_counts.bytes += pieces[i].iov_len;
    if (s_outlet != nullptr)
        s_outlet->put(pieces, count);
    return EOK;
}
qerrno l2vpn_ipc_ucast(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                       const void *message, uint32_t length, uint32_t options)
{
    const struct iovec piece = {const_cast<void *>(message), length};
    return l2vpn_ipc_ucastv(client, class_id, destination, &piece, 1, options);
}

qerrno l2vpn_ac_data_sanitize(uint32_t, const l2vpn_ac_data_entry_t *entries, struct l2vpn_ac_defn *,
                              struct l2vpn_ac_info *, uint32_t count)
{
    return l2vpn::platform_core::sanitize(entries, count);
}

/* Only who has to wait asks for the time; nobody does while requests are timed, which one thread makes. */
void ptd_set_mutex_block(pthread_mutex_t *, const char *, uint32_t)
{
    s_wait_begin = std::chrono::steady_clock::now();
}
void ptd_unset_mutex_block()
{
    const std::chrono::duration<double, std::nano> waited = std::chrono::steady_clock::now() - s_wait_begin;
    double longest = s_longest_wait;
    while (waited.count() > longest && !s_longest_wait.compare_exchange_weak(longest, waited.count()))
        ;
}

const gen_dbg_bitset_t *gen_dbg_get_enabled_bitset()
{
    return nullptr;
}
const gen_dbg_bitset_t *gen_dbg_ltrace_get_dbg_bitset()
{
    return nullptr;
}
void gen_format_debug_fmt(uint32_t, const char *, uint32_t, const char *, ...) {}
void gen_dbg_ltrace_ctx(uint32_t, const char *, uint32_t, const char *, ...) {}
void gen_ltrace(uint32_t, const char *, ...) {}
qerrno l2vpn_debug_init(event_mgr_p)
{
    return EOK;
}
l2vpn_debug_ctx_t *l2vpn_debug_get_ctx()
{
    return nullptr;
}
const gen_dbg_bitset_t *l2vpn_debug_get_enabled_bitset()
{
    return nullptr;
}
void l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_ctx_t *, const gen_dbg_bitset_t *, uint32_t, const char *,
                                      uint32_t, const char *, ...)
{
}
int l2vpn_check_ltrace_buffer(uint64_t)
{
    return 0;
}
void l2vpn_ltrace(uint64_t, const char *, ...) {}
void l2vpn_gen_assert_errmsg(int) {}
void vy_syslog(int, const char *, ...) {}
