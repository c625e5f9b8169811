/*
 * The platform as its contract says, and nothing else: no name here that is not promised, no promised name
 * missing. The library and its headers are compiled against this in place of the platform's own headers.
 */
#ifndef CONTRACT_PLATFORM_H
#define CONTRACT_PLATFORM_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FORMAT(text, first) __attribute__((format(printf, text, first)))

typedef uint32_t qerrno;
#define EOK 0u
const char *qerr_strerror(qerrno status);

#define NODEID_INVALID 0xFFFFFFFFu
qerrno platform_get_my_nodeid(uint32_t *nodeid);

void *calloc_named(size_t count, size_t size, const char *name);

typedef struct event_mgr *event_mgr_p;
typedef struct event_context {
    int anything;
} event_context_t;
typedef void (*event_async_handler_t)(event_context_t *context, void *arg);
int event_async_attach_event(event_mgr_p evm, int code, event_async_handler_t handler, void *arg,
                             event_context_t *context);

typedef struct mgd_timer_tree mgd_timer_tree_t;
typedef struct mgd_timer_parent mgd_timer_parent_t;
typedef struct mgd_timer_leaf mgd_timer_leaf_t;
typedef void (*mgd_timer_fn_t)(mgd_timer_leaf_t *leaf);
mgd_timer_tree_t *mgd_timer_tree_new(const event_context_t *event, uint32_t count);
void mgd_timer_tree_free(mgd_timer_tree_t *tree);
mgd_timer_parent_t *mgd_timer_parent_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent);
void mgd_timer_parent_free(mgd_timer_parent_t *parent);
mgd_timer_leaf_t *mgd_timer_leaf_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent, void *arg,
                                     mgd_timer_fn_t context);
void mgd_timer_leaf_free(mgd_timer_leaf_t *leaf);
mgd_timer_fn_t mgd_timer_leaf_get_context(const mgd_timer_leaf_t *leaf);
int mgd_timer_leaf_set_addl_context(mgd_timer_leaf_t *leaf, uint32_t index, void *context);
void *mgd_timer_leaf_get_addl_context(const mgd_timer_leaf_t *leaf, uint32_t index);
int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf);
void mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *duration);
void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf);
mgd_timer_leaf_t *mgd_timer_tree_first_expired(mgd_timer_tree_t *tree);

typedef struct wavl_node {
    struct wavl_node *anything[3];
} wavl_node_t;
typedef struct wavl_tree {
    wavl_node_t *anything;
} wavl_tree_t;
typedef const void *(*wavl_get_key_t)(const wavl_node_t *node);
typedef int (*wavl_compare_t)(const void *first, const void *second);
qerrno wavl_init(wavl_tree_t *tree, uint32_t count, wavl_get_key_t get_key, wavl_compare_t compare);
wavl_node_t *wavl_insert(wavl_tree_t *tree, wavl_node_t *node);
wavl_node_t *wavl_search(wavl_tree_t *tree, const wavl_node_t *node, uint32_t index);
void wavl_delete(wavl_tree_t *tree, wavl_node_t *node);

typedef struct l2vpn_ipc_client *l2vpn_ipc_client_t;
typedef uint32_t l2vpn_ipc_evt_t;
#define L2VPN_IPC_EVT_CONNECTED 0u
#define L2VPN_IPC_EVT_DISCONNECTED 1u
typedef void (*l2vpn_ipc_msg_cb_t)(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t spare,
                                   void *message, uint32_t length, uint32_t spare2, void *cookie);
typedef void (*l2vpn_ipc_evt_cb_t)(l2vpn_ipc_client_t client, uint32_t peer, uint32_t spare,
                                   l2vpn_ipc_evt_t event, uint32_t event_arg, void *cookie);
qerrno l2vpn_ipc_client_init(event_mgr_p evm, const char *service, l2vpn_ipc_client_t *client);
qerrno l2vpn_ipc_class_init(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t nodeid,
                            l2vpn_ipc_msg_cb_t msg_cb, l2vpn_ipc_evt_cb_t evt_cb, void *spare, void *cookie);
qerrno l2vpn_ipc_class_deinit(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t options);
qerrno l2vpn_ipc_transport_mtu_get(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t *mtu);
qerrno l2vpn_ipc_ucast(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                       const void *message, uint32_t length, uint32_t options);
qerrno l2vpn_ipc_ucastv(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                        const struct iovec *pieces, uint32_t count, uint32_t options);

typedef struct l2vpn_ac_data_entry {
    uint32_t ifh;
    uint32_t spare;
} l2vpn_ac_data_entry_t;
struct l2vpn_ac_defn;
struct l2vpn_ac_info;
qerrno l2vpn_ac_data_sanitize(uint32_t class_id, const l2vpn_ac_data_entry_t *entries,
                              struct l2vpn_ac_defn *defns, struct l2vpn_ac_info *infos, uint32_t count);

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, uint32_t line);
void ptd_unset_mutex_block(void);

typedef struct gen_dbg_bitset {
    uint64_t words[32];
} gen_dbg_bitset_t;
const gen_dbg_bitset_t *gen_dbg_get_enabled_bitset(void);
const gen_dbg_bitset_t *gen_dbg_ltrace_get_dbg_bitset(void);
void gen_format_debug_fmt(uint32_t debug_id, const char *function, uint32_t line, const char *format, ...)
    FORMAT(4, 5);
void gen_dbg_ltrace_ctx(uint32_t trace_id, const char *function, uint32_t line, const char *format, ...)
    FORMAT(4, 5);
void gen_ltrace(uint32_t trace_id, const char *format, ...) FORMAT(2, 3);
typedef struct l2vpn_debug_ctx l2vpn_debug_ctx_t;
qerrno l2vpn_debug_init(event_mgr_p evm);
l2vpn_debug_ctx_t *l2vpn_debug_get_ctx(void);
const gen_dbg_bitset_t *l2vpn_debug_get_enabled_bitset(void);
void l2vpn_generic_gen_dbg_ltrace_ctx(l2vpn_debug_ctx_t *ctx, const gen_dbg_bitset_t *enabled,
                                      uint32_t component, const char *function, uint32_t line,
                                      const char *format, ...) FORMAT(6, 7);
int l2vpn_check_ltrace_buffer(uint64_t key);
void l2vpn_ltrace(uint64_t key, const char *format, ...) FORMAT(2, 3);
void l2vpn_gen_assert_errmsg(int value);
void vy_syslog(int level, const char *format, ...) FORMAT(2, 3);

#ifdef __cplusplus
}
#endif

#endif
