/*
 * The library's state: one global record, and one context for each connected client.
 *
 * Locks. `api_lock` serialises connect, all requests and the retry timer's function. `cb_lock` guards
 * disconnect and, only while they look the client up and set or clear its `busy`, the two IPC callbacks.
 * Nobody takes `api_lock` while holding `cb_lock`. `nodeid` is published last by the initialisation and
 * read first by everybody else.
 *
 * Lifetime of a context. The handle that a client holds is the context's address, and is worth nothing until
 * it was found in the tree. Since a request works under `api_lock` and a disconnect under `cb_lock`, a
 * context can be taken out of the tree while somebody else still works on it. So whoever looks an address up
 * says so first, in the list of uses; who takes a context out inherits it, and leaves it to another use of
 * the same address if there is one; the last use frees it.
 */
#ifndef L2VPN_AC_GLOBAL_H
#define L2VPN_AC_GLOBAL_H

#include <l2vpn/l2vpn_ac_api.h>
#include <platform/platform.h>

#include <atomic>
#include <pthread.h>

struct l2vpn_ac_global {
    pthread_mutex_t api_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    pthread_mutex_t cb_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    std::atomic<uint32_t> nodeid = NODEID_INVALID; /* NODEID_INVALID until the library is initialised */
    mgd_timer_tree_t *tmr_tree = nullptr;
    mgd_timer_parent_t *tmr_parent = nullptr;
    wavl_tree_t client_tree = {}; /* key: the address of the context */
    event_mgr_p evm = nullptr;
    l2vpn_ipc_client_t ipc_client = nullptr;

    /* From here on: of the latest connect, for all clients. Records per message, by kind of message. */
    uint32_t mtu = 0;
    uint32_t max_updt = 0;
    uint32_t max_create = 0;
    uint32_t max_mstp_req = 0;
    uint32_t max_msti_root = 0;
    uint32_t max_vid_map = 0;
    uint32_t max_half = 0; /* computed, and read by nobody */
    uint32_t max_del = 0;
};

extern l2vpn_ac_global s_l2vpn_ac_global;

struct l2vpn_ac_client_ctx {
    l2vpn_ac_callback_vector_t cbv;
    uint32_t class_id;
    uint32_t busy; /* 1 while an IPC callback is being delivered; guarded by cb_lock */
    std::atomic<uint16_t> state;
    mgd_timer_leaf_t *tmr_leaf; /* set once; a leaf that disconnect freed stays here, and is harmless */
    std::atomic<uint32_t> retry_secs;
    wavl_node_t wavl_node;

    std::atomic<bool> in_tree;
};

/* True once the library is initialised. */
bool l2vpn_ac_initialised();

/* The first-time initialisation. `api_lock` is held and the library not initialised. */
qerrno l2vpn_ac_lib_init(event_mgr_p evm, uint32_t nodeid);

/* The client tree's functions: the context that contains a node, and the order of contexts by address.
 * Neither reads the context. */
const void *l2vpn_ac_client_get_key(const wavl_node_t *node);
int l2vpn_ac_client_compare(const void *first, const void *second);

/* A use of a client context. Empty when the library is not initialised or there is no such client. */
class l2vpn_ac_client_use {
public:
    /* Looks a handle or a callback's cookie up. */
    explicit l2vpn_ac_client_use(const void *handle);

    /* The use of a new context by who made it; the context is not in the tree yet. */
    enum class first { use };
    l2vpn_ac_client_use(first, l2vpn_ac_client_ctx *ctx);

    ~l2vpn_ac_client_use();

    explicit operator bool() const { return ctx_ != nullptr; }
    l2vpn_ac_client_ctx *operator->() const { return ctx_; }
    l2vpn_ac_client_ctx *get() const { return ctx_; }

    /* Enters the context into the tree; false when the tree refuses. */
    [[nodiscard]] bool enter_tree();

    /* Takes the context out of the tree, if it is in. */
    void leave_tree();

    l2vpn_ac_client_use(const l2vpn_ac_client_use &) = delete;
    l2vpn_ac_client_use &operator=(const l2vpn_ac_client_use &) = delete;

private:
    void begin(const void *address);
    void end();
    void set_inherits(bool inherits);

    l2vpn_ac_client_ctx *ctx_ = nullptr;

    /* Guarded by the lock of the list. */
    const void *address_ = nullptr;
    bool listed_ = false;
    bool inherits_ = false; /* the context is out of the tree, and this use's to free or leave on */
    l2vpn_ac_client_use *next_ = nullptr;
};

#endif
