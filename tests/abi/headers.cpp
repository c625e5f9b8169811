/* A C++ program against the public headers. */
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/platform.h>

#include <type_traits>

static_assert(std::is_same_v<qerrno, uint32_t> && std::is_same_v<ifhtype, uint32_t>);
static_assert(std::is_same_v<l2vpn_ac_class_t, uint32_t> && std::is_same_v<l2vpn_ipc_evt_t, uint32_t>);
static_assert(std::is_standard_layout_v<l2vpn_ac_info_t> && std::is_trivial_v<l2vpn_ac_info_t>);
static_assert(std::is_standard_layout_v<l2vpn_ac_xcid_data_t> && std::is_trivial_v<l2vpn_ac_xcid_data_t>);
static_assert(sizeof(wavl_tree_t) > 0 && sizeof(wavl_node_t) > 0 && sizeof(event_context_t) > 0,
              "the types that callers embed are complete");

/* Prototypes: argument orders and widths are what callers and other platforms are built against. */
template <typename F, typename G>
constexpr bool same = std::is_same_v<F, G>;

static_assert(
    same<decltype(l2vpn_ac_process_connect), qerrno(event_mgr_p, uint32_t, l2vpn_ac_class_t,
                                                    l2vpn_ac_callback_vector_t *, l2vpn_ac_client_hd_t *)>);
static_assert(same<decltype(l2vpn_ac_process_connect_nodeid),
                   qerrno(event_mgr_p, uint32_t, l2vpn_ac_class_t, l2vpn_ac_callback_vector_t *, uint32_t,
                          l2vpn_ac_client_hd_t *)>);
static_assert(same<decltype(l2vpn_ac_process_disconnect), qerrno(l2vpn_ac_client_hd_t)>);
static_assert(same<decltype(l2vpn_ac_create), qerrno(l2vpn_ac_client_hd_t, uint32_t, uint32_t, ifhtype *,
                                                     l2vpn_ac_defn_t *, l2vpn_ac_info_t *)>);
static_assert(same<decltype(l2vpn_ac_update),
                   qerrno(l2vpn_ac_client_hd_t, uint32_t, uint32_t, ifhtype *, l2vpn_ac_info_t *)>);
static_assert(same<decltype(l2vpn_ac_delete), qerrno(l2vpn_ac_client_hd_t, uint32_t, uint32_t, ifhtype *)>);
static_assert(
    same<decltype(l2vpn_mstp_root), qerrno(l2vpn_ac_client_hd_t, uint32_t, l2vpn_msti_root_t *, uint32_t)>);
static_assert(same<decltype(l2vpn_mstp_port_request),
                   qerrno(l2vpn_ac_client_hd_t, uint32_t, l2vpn_mstp_req_t *, uint32_t)>);
static_assert(same<decltype(l2vpn_msti_vid_map),
                   qerrno(l2vpn_ac_client_hd_t, uint32_t, l2vpn_msti_vid_map_t *, uint32_t)>);
static_assert(
    same<decltype(l2vpn_mstp_protect), qerrno(l2vpn_ac_client_hd_t, uint32_t, l2vpn_mstp_prot_t *)>);

static_assert(same<decltype(l2vpn_ac_callback_vector_t::status_cb),
                   qerrno (*)(l2vpn_ac_client_hd_t, uint32_t, uint32_t)>);
static_assert(same<decltype(l2vpn_ac_callback_vector_t::prov_cb),
                   qerrno (*)(l2vpn_ac_client_hd_t, uint32_t, ifhtype *, l2vpn_ac_xcid_data_t *, uint32_t)>);
static_assert(same<decltype(l2vpn_ac_callback_vector_t::unprov_cb),
                   qerrno (*)(l2vpn_ac_client_hd_t, uint32_t, ifhtype *, uint32_t)>);
static_assert(same<decltype(l2vpn_ac_callback_vector_t::bulk_notify_cb),
                   qerrno (*)(l2vpn_ac_client_hd_t, uint32_t, l2vpn_ac_bulk_notify_t *, uint32_t)>);
static_assert(same<decltype(l2vpn_ac_callback_vector_t::hdr_notify_cb),
                   qerrno (*)(l2vpn_ac_client_hd_t, uint32_t, void *, uint32_t)>);

static_assert(same<decltype(calloc_named), void *(size_t, size_t, const char *)>);
static_assert(same<decltype(event_async_attach_event),
                   int(event_mgr_p, int, event_async_handler_t, void *, event_context_t *)>);
static_assert(same<decltype(mgd_timer_tree_new), mgd_timer_tree_t *(const event_context_t *, uint32_t)>);
static_assert(same<decltype(mgd_timer_leaf_new),
                   mgd_timer_leaf_t *(mgd_timer_tree_t *, mgd_timer_parent_t *, void *, mgd_timer_fn_t)>);
static_assert(same<decltype(mgd_timer_leaf_set_addl_context), int(mgd_timer_leaf_t *, uint32_t, void *)>);
static_assert(same<decltype(wavl_init), qerrno(wavl_tree_t *, uint32_t, wavl_get_key_t, wavl_compare_t)>);
static_assert(same<decltype(wavl_search), wavl_node_t *(wavl_tree_t *, const wavl_node_t *, uint32_t)>);
static_assert(same<decltype(l2vpn_ipc_client_init), qerrno(event_mgr_p, const char *, l2vpn_ipc_client_t *)>);
static_assert(
    same<decltype(l2vpn_ipc_class_init), qerrno(l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_msg_cb_t,
                                                l2vpn_ipc_evt_cb_t, void *, void *)>);
static_assert(same<decltype(l2vpn_ipc_ucast),
                   qerrno(l2vpn_ipc_client_t, uint32_t, uint32_t, const void *, uint32_t, uint32_t)>);
static_assert(same<decltype(l2vpn_ipc_ucastv),
                   qerrno(l2vpn_ipc_client_t, uint32_t, uint32_t, const struct iovec *, uint32_t, uint32_t)>);
static_assert(
    same<decltype(l2vpn_ac_data_sanitize), qerrno(uint32_t, const l2vpn_ac_data_entry_t *,
                                                  struct l2vpn_ac_defn *, struct l2vpn_ac_info *, uint32_t)>);
static_assert(same<decltype(ptd_set_mutex_block), void(pthread_mutex_t *, const char *, uint32_t)>);

int main()
{
    l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = [](l2vpn_ac_client_hd_t, uint32_t, uint32_t) -> qerrno { return EOK; };
    l2vpn_ac_client_hd_t hd = nullptr;
    const bool refused = l2vpn_ac_process_connect(nullptr, 0, 4, &callbacks, &hd) == 22 &&
                         l2vpn_ac_process_disconnect(hd) == 22 &&
                         l2vpn_ac_create(hd, 0, 0, nullptr, nullptr, nullptr) == 2;
    return refused ? 0 : 1;
}
