#include "l2vpn_ac_global.h"

#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_state.h"
#include "probe.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

constinit l2vpn_ac_global s_l2vpn_ac_global;

static constexpr int timer_event_code = 128;

bool l2vpn_ac_initialised()
{
    return s_l2vpn_ac_global.nodeid.load(std::memory_order_acquire) != NODEID_INVALID;
}

/* --- initialisation ---------------------------------------------------------------------------------- */

static qerrno init_timers(const event_context_t *event)
{
    l2vpn_ac_global &global = s_l2vpn_ac_global;

    global.tmr_tree = mgd_timer_tree_new(event, 1);
    if (global.tmr_tree == nullptr) {
        L2VPN_AC_DEBUG("l2vpn_ac_lib_init", "Failed to init root timer %s", qerr_strerror(EOK));
        return ENOENT;
    }
    global.tmr_parent = mgd_timer_parent_new(global.tmr_tree, nullptr);
    if (global.tmr_parent == nullptr) {
        mgd_timer_tree_free(global.tmr_tree);
        global.tmr_tree = nullptr;
        L2VPN_AC_DEBUG("l2vpn_ac_lib_init", "Failed to init parent timer %s", qerr_strerror(EOK));
        return ENOMEM;
    }
    return EOK;
}

/*
 * A failure undoes neither the IPC client nor the event attachment; the next connect begins anew. A failed
 * attach that gives no reason is no failure: the connect goes on without timers and without initialisation,
 * and ends where the platform refuses the client its timer.
 */
qerrno l2vpn_ac_lib_init(event_mgr_p evm, uint32_t nodeid)
{
    l2vpn_ac_global &global = s_l2vpn_ac_global;

    qerrno rc = l2vpn_debug_init(evm);
    if (rc != EOK)
        return rc;

    global.evm = evm;

    if (nodeid == NODEID_INVALID) {
        rc = platform_get_my_nodeid(&nodeid);
        if (rc != EOK) {
            L2VPN_AC_DEBUG(__func__, "Failed to get nodeid:%s", qerr_strerror(rc));
            return rc;
        }
        L2VPN_AC_ASSERT(nodeid != NODEID_INVALID);
    }

    rc = l2vpn_ipc_client_init(evm, "L2VPN", &global.ipc_client);
    if (rc != EOK) {
        L2VPN_AC_DEBUG(__func__, "Failed to init IPC DLL:%s", qerr_strerror(rc));
        return rc;
    }

    /* Static: the event manager may keep its address. */
    static event_context_t event;
    event = {};
    if (event_async_attach_event(evm, timer_event_code, l2vpn_ac_tmr_expiry_handler, nullptr, &event) < 0) {
        rc = static_cast<qerrno>(errno);
        L2VPN_AC_DEBUG(__func__, "event_async_attach %s", qerr_strerror(rc));
        return rc;
    }

    rc = init_timers(&event);
    if (rc != EOK)
        return rc;

    rc = wavl_init(&global.client_tree, 1, l2vpn_ac_client_get_key, l2vpn_ac_client_compare);
    if (rc != EOK) {
        L2VPN_AC_DEBUG(__func__, "Failed to init client wavl:%s", qerr_strerror(rc));
        mgd_timer_tree_free(global.tmr_tree);
        global.tmr_tree = nullptr;
        mgd_timer_parent_free(global.tmr_parent); /* the pointer stays; initialisation sets it anew */
        return rc;
    }

    global.nodeid.store(nodeid, std::memory_order_release);
    return EOK;
}

/* --- the client tree --------------------------------------------------------------------------------- */

/* Addresses are computed as numbers: the handle may be null, stale or garbage. */
static const wavl_node_t *node_of(const void *handle)
{
    return reinterpret_cast<const wavl_node_t *>(reinterpret_cast<uintptr_t>(handle) +
                                                 offsetof(l2vpn_ac_client_ctx, wavl_node));
}

const void *l2vpn_ac_client_get_key(const wavl_node_t *node)
{
    if (node == nullptr)
        return nullptr;
    return reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(node) -
                                          offsetof(l2vpn_ac_client_ctx, wavl_node));
}

int l2vpn_ac_client_compare(const void *first, const void *second)
{
    const auto a = reinterpret_cast<uintptr_t>(first);
    const auto b = reinterpret_cast<uintptr_t>(second);
    enum { smaller, equal, larger };
    if (a == b)
        return equal;
    return a < b ? smaller : larger;
}

/* --- uses of a context ------------------------------------------------------------------------------- */

namespace {

l2vpn_ac_client_use *s_uses;

/*
 * Guards the list for a few instructions. Not a lock of the library's protocol: nothing is called under it,
 * so nobody waits for longer than it takes to let the holder run, which a waiter of any priority does.
 */
class uses_lock {
public:
    uses_lock()
    {
        uint32_t seen = free_;
        if (s_state.compare_exchange_strong(seen, held, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        while (s_state.exchange(awaited, std::memory_order_acquire) != free_)
            futex(FUTEX_WAIT_PRIVATE, awaited);
    }
    ~uses_lock()
    {
        if (s_state.exchange(free_, std::memory_order_release) == awaited)
            futex(FUTEX_WAKE_PRIVATE, 1);
    }
    uses_lock(const uses_lock &) = delete;
    uses_lock &operator=(const uses_lock &) = delete;

private:
    enum : uint32_t { free_, held, awaited };

    static void futex(int operation, uint32_t value)
    {
        const int error = errno; /* which a caller up the stack may still want to read */
        syscall(SYS_futex, &s_state, operation, value, nullptr, nullptr, 0);
        errno = error;
    }

    static inline std::atomic<uint32_t> s_state = free_;
    static_assert(sizeof s_state == sizeof(uint32_t) && decltype(s_state)::is_always_lock_free);
};

} // namespace

void l2vpn_ac_client_use::begin(const void *address)
{
    const uses_lock lock;
    address_ = address;
    listed_ = true;
    next_ = s_uses;
    s_uses = this;
}

void l2vpn_ac_client_use::end()
{
    bool last;
    {
        const uses_lock lock;
        l2vpn_ac_client_use **link = &s_uses;
        while (*link != this)
            link = &(*link)->next_;
        *link = next_;

        l2vpn_ac_client_use *heir = s_uses;
        while (heir != nullptr && heir->address_ != address_)
            heir = heir->next_;
        last = inherits_ && heir == nullptr;
        if (heir != nullptr)
            heir->inherits_ = heir->inherits_ || inherits_;
    }
    if (last)
        free(const_cast<void *>(address_));
}

void l2vpn_ac_client_use::set_inherits(bool inherits)
{
    const uses_lock lock;
    inherits_ = inherits;
}

l2vpn_ac_client_use::l2vpn_ac_client_use(const void *handle)
{
    if (!l2vpn_ac_initialised())
        return;
    begin(handle);
    const wavl_node_t *const node = wavl_search(&s_l2vpn_ac_global.client_tree, node_of(handle), 0);
    if (node == nullptr)
        return;
    ctx_ = static_cast<l2vpn_ac_client_ctx *>(const_cast<void *>(l2vpn_ac_client_get_key(node)));
    L2VPN_PROBE(l2vpn_ac, client__found, ctx_, ctx_->class_id);
}

l2vpn_ac_client_use::l2vpn_ac_client_use(first, l2vpn_ac_client_ctx *ctx) : ctx_(ctx), inherits_(true)
{
    begin(ctx);
}

l2vpn_ac_client_use::~l2vpn_ac_client_use()
{
    if (listed_)
        end();
}

bool l2vpn_ac_client_use::enter_tree()
{
    set_inherits(false);
    ctx_->in_tree = true;
    if (wavl_insert(&s_l2vpn_ac_global.client_tree, &ctx_->wavl_node) != nullptr)
        return true;
    ctx_->in_tree = false;
    set_inherits(true);
    return false;
}

void l2vpn_ac_client_use::leave_tree()
{
    if (!ctx_->in_tree.exchange(false))
        return;
    wavl_delete(&s_l2vpn_ac_global.client_tree, &ctx_->wavl_node);
    set_inherits(true);
}
