/*
 * Connect, disconnect, events and the retry timer.
 */
#include "model.h"

#include "ac_classes.h"

#include <algorithm>
#include <cerrno>

namespace torture {

namespace {

constexpr unsigned state_idle = 0, state_joining = 1, state_up = 2;

std::string status_text(int status)
{
    return qerr_strerror(static_cast<qerrno>(status));
}

std::string of_class(std::uint32_t class_id)
{
    return "class " + std::to_string(class_id);
}

} // namespace

/* --- the library's first-time initialisation --------------------------------------------------------- */

/*
 * What each step's failure gives: its text, and the status of the connect, 0 standing for the status of the
 * step itself. Steps are undone only from the timer tree on.
 */
qerrno model::initialise(std::uint32_t nodeid)
{
    static const std::string self = "l2vpn_ac_lib_init";

    if (const qerrno rc = call(fn::l2vpn_debug_init))
        return rc;
    if (nodeid == NODEID_INVALID) {
        if (const qerrno rc = call(fn::platform_get_my_nodeid)) {
            debug(self, "Failed to get nodeid:" + status_text(static_cast<int>(rc)));
            return rc;
        }
        if (platform_nodeid_ == NODEID_INVALID)
            throw must_die("nodeid != NODEID_INVALID");
    }
    if (const qerrno rc = call(fn::l2vpn_ipc_client_init, "L2VPN")) {
        debug(self, "Failed to init IPC DLL:" + status_text(static_cast<int>(rc)));
        return rc;
    }
    if (const auto cause = call_fails(fn::event_async_attach_event)) {
        debug(self, "event_async_attach " + status_text(*cause));
        return static_cast<qerrno>(*cause); /* 0: the connect goes on, without timers */
    }
    if (call_fails(fn::mgd_timer_tree_new)) {
        debug(self, "Failed to init root timer " + status_text(0));
        return ENOENT;
    }
    if (call_fails(fn::mgd_timer_parent_new)) {
        effect(fn::mgd_timer_tree_free);
        debug(self, "Failed to init parent timer " + status_text(0));
        return ENOMEM;
    }
    if (const qerrno rc = call(fn::wavl_init)) {
        debug(self, "Failed to init client wavl:" + status_text(static_cast<int>(rc)));
        effect(fn::mgd_timer_tree_free);
        effect(fn::mgd_timer_parent_free);
        return rc;
    }
    timers_made_ = true;
    initialised_ = true;
    return EOK;
}

/* --- connect and disconnect -------------------------------------------------------------------------- */

qerrno model::connect(const step &s, std::uint32_t nodeid)
{
    static const std::string self = "l2vpn_ac_process_connect_internal";

    slot_[s.slot] = nobody;
    if (s.argument != wrong::nothing || s.class_id > 17)
        return EINVAL;

    lock(self);
    qerrno rc = initialised_ ? EOK : initialise(nodeid);
    if (rc == EOK) {
        if (call_fails(fn::calloc_named, "L2VPN AC Client ctx")) {
            rc = ENOMEM;
        } else {
            const id client = ++made_;
            contexts_.emplace(client, context{.slot = s.slot, .class_id = s.class_id, .bare = s.bare});
            rc = connect_client(client, s.class_id);
            if (rc != EOK)
                contexts_.erase(client);
        }
    }
    unlock(self);
    return rc;
}

/* Each failure undoes what was done before it, in reverse. */
qerrno model::connect_client(id client, std::uint32_t class_id)
{
    static const std::string self = "l2vpn_ac_process_connect_internal";

    const auto undo_timer = [&] { effect(fn::mgd_timer_leaf_free); };
    const auto undo_node = [&] {
        effect(fn::wavl_delete);
        undo_timer();
    };
    const auto undo_class = [&] {
        if (call(fn::l2vpn_ipc_class_deinit, of_class(class_id)) == EOK)
            registered_.erase(class_id);
        undo_node();
    };

    if (call_fails(fn::mgd_timer_leaf_new, "", !timers_made_)) {
        debug(self, "Failed to alloc AC/MA client timer");
        return ENOMEM;
    }
    if (const auto cause = call_fails(fn::mgd_timer_leaf_set_addl_context)) {
        debug(self, "Failed to store context for leaf timer: " + status_text(*cause));
        undo_timer();
        return ENOENT;
    }
    if (call_fails(fn::wavl_insert)) {
        debug(self, "Failed to insert AC/MA client in wavl");
        undo_timer();
        return EEXIST;
    }
    if (const qerrno rc = call(fn::l2vpn_ipc_class_init, of_class(class_id),
                               registered_.contains(class_id) ? EEXIST : EOK)) {
        debug(self, "Failed to init AC/MA class");
        undo_node();
        return rc;
    }
    registered_[class_id] = client;
    if (const qerrno rc = call(fn::l2vpn_ipc_transport_mtu_get, of_class(class_id))) {
        debug(self, "Failed to get transport MTU: " + status_text(static_cast<int>(rc)));
        undo_class();
        return rc;
    }
    mtu_ = platform_mtu_;
    if (!ac_classes::valid(class_id)) {
        debug(self, "Unable to get info message size for class id " + std::to_string(class_id));
        undo_class();
        return EINVAL;
    }

    const std::uint64_t room = std::uint64_t{mtu_} - 16;
    const std::uint64_t info = ac_classes::rows[class_id].info;
    const std::pair<op, std::uint64_t> shares[] = {{op::create, info + 620}, {op::update, info + 4},
                                                   {op::remove, 4},          {op::root, 12},
                                                   {op::port_request, 96},   {op::vid_map, 4}};
    for (const auto &[kind, share] : shares)
        limit_[kind] = static_cast<std::uint32_t>(room / share);

    if (const qerrno rc = join(client)) {
        debug(self, "Failed to unicast a JOIN MSG to L2VPN: " + status_text(static_cast<int>(rc)));
        undo_class();
        return rc;
    }
    of(client).state = state_joining;
    of(client).retry_secs = 4;
    slot_[of(client).slot] = client;
    const qerrno rc = activate(client);
    const auto number = [](std::uint32_t value) { return std::to_string(static_cast<std::int32_t>(value)); };
    debug(self, "lib AC connect INIT: MTU=" + number(mtu_) + ", max_create=" + number(limit_[op::create]) +
                    ", max_updt=" + number(limit_[op::update]) + ", max_del=" + number(limit_[op::remove]));
    return rc;
}

/* The timer goes first and for good, also when the disconnect is then refused. */
qerrno model::disconnect(unsigned slot)
{
    static const std::string self = "l2vpn_ac_process_disconnect";

    lock(self);
    const id client = find(slot_[slot]);
    qerrno rc = EINVAL;
    if (client != nobody) {
        effect(fn::mgd_timer_leaf_free);
        of(client).leaf = of(client).running = false;
        rc = of(client).busy ? EDEADLK : call(fn::l2vpn_ipc_class_deinit, of_class(of(client).class_id));
    }
    if (client != nobody && rc == EOK) {
        effect(fn::wavl_delete);
        registered_.erase(of(client).class_id);
        contexts_.erase(client);
        slot_[slot] = nobody;
    }
    unlock(self);
    return rc;
}

/* Nothing is looked up before the library is initialised. */
model::id model::find(id client)
{
    if (!initialised_ || fails(fn::wavl_search))
        return nobody;
    return contexts_.contains(client) ? client : nobody;
}

/* What failed deregistrations have left; no library's business any more. */
void model::sweep()
{
    for (auto entry = registered_.begin(); entry != registered_.end();) {
        if (contexts_.contains(entry->second)) {
            ++entry;
            continue;
        }
        (void)call(fn::l2vpn_ipc_class_deinit, of_class(entry->first));
        entry = registered_.erase(entry);
    }
}

std::size_t model::leaves() const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(contexts_, [](const auto &entry) { return entry.second.leaf; }));
}

/* --- events ------------------------------------------------------------------------------------------ */

void model::event(const step &s)
{
    static const std::string self = "l2vpn_ac_evt_cb";
    if (slot_[s.slot] == nobody)
        return;

    lock(self);
    const id client = find(slot_[s.slot]);
    unlock(self);
    if (client == nobody)
        return;
    of(client).busy = true;
    const auto stop_timer = [&] {
        if (timer_runs(client)) {
            effect(fn::mgd_timer_leaf_stop);
            of(client).running = false;
        }
    };
    const std::string arg = std::to_string(s.arg);
    if (s.number == L2VPN_IPC_EVT_DISCONNECTED) {
        debug(self, "Disconnected from L2VPN process");
        stop_timer();
        of(client).retry_secs = 1;
        of(client).state = state_idle;
        notify(client, "status 0 " + arg);
    } else if (s.number == L2VPN_IPC_EVT_CONNECTED) {
        debug(self, "Connected to L2VPN process");
        if (of(client).state == state_joining)
            stop_timer();
        of(client).state = state_up;
        of(client).retry_secs = 1;
        notify(client, "status 1 " + arg);
    }
    lock(self);
    of(client).busy = false;
    unlock(self);
}

/* --- the timer --------------------------------------------------------------------------------------- */

qerrno model::join(id client)
{
    return call(fn::l2vpn_ipc_ucast, text_of_message(of(client).class_id, 0, 0, 0, 16, 1));
}

bool model::timer_runs(id client)
{
    return !fails(fn::mgd_timer_leaf_running) && of(client).running;
}

void model::start_timer(id client, const std::string &function)
{
    if (timer_runs(client))
        return;
    context &c = of(client);
    debug(function, function + " " + std::to_string(c.retry_secs) + " secs");
    effect(fn::mgd_timer_leaf_start, std::to_string(c.retry_secs));
    if (c.leaf) {
        c.running = true;
        c.announced = false;
        c.expiry = now_ + c.retry_secs;
        c.rank = ++starts_;
    }
    ++c.retry_secs;
}

/* What takes a failed send over: ENOENT when it does not. */
qerrno model::activate(id client)
{
    static const std::string self = "l2vpn_ac_activate_timer";

    debug(self, self);
    if (of(client).state == state_idle)
        return ENOENT;
    start_timer(client, self);
    if (of(client).state == state_up) {
        notify(client, "status 0 0");
        debug(self, self + " send down to client");
    }
    return EOK;
}

/* The clock stops wherever timers expire, and the handler is told once of all that have. */
void model::advance(std::uint32_t seconds)
{
    const std::uint64_t end = now_ + seconds;
    for (;;) {
        std::optional<std::uint64_t> next;
        for (const auto &[client, c] : contexts_) {
            if (c.running && !c.announced && c.expiry <= end)
                next = std::min(next.value_or(c.expiry), c.expiry);
        }
        if (!next)
            break;
        now_ = *next;
        for (auto &[client, c] : contexts_)
            c.announced = c.announced || (c.running && c.expiry <= now_);
        expired();
    }
    now_ = end;
}

/* The handler: runs what has expired, in the order of expiry. */
void model::expired()
{
    while (!fails(fn::mgd_timer_tree_first_expired)) {
        id first = nobody;
        for (const auto &[client, c] : contexts_) {
            if (c.running && c.expiry <= now_ &&
                (first == nobody || std::tie(c.expiry, c.rank) < std::tie(of(first).expiry, of(first).rank)))
                first = client;
        }
        if (first == nobody)
            return;
        effect(fn::mgd_timer_leaf_stop);
        of(first).running = false;
        if (fails(fn::mgd_timer_leaf_get_context))
            throw must_die("fn != NULL");
        expire(first);
    }
}

void model::expire(id owner)
{
    static const std::string self = "l2vpn_ac_connect_expire_fn";

    const bool known = !fails(fn::mgd_timer_leaf_get_addl_context);
    lock(self);
    const id client = find(known ? owner : nobody);
    if (client != nobody && of(client).state != state_idle) {
        if (join(client) == EOK && of(client).state == state_up) {
            debug(self, self + " send UP to client");
            of(client).retry_secs = 1;
            notify(client, "status 1 0");
        } else {
            start_timer(client, self);
        }
    }
    unlock(self);
}

} // namespace torture
