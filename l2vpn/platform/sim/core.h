/*
 * What is behind a world: all state of the simulated platform.
 *
 * One lock guards all of it. No function of somebody else's (hook, verdict, send handler, callback, event
 * handler, a tree's key and compare functions) runs under it. The contract's functions reach the world of
 * the moment through current_core() and keep it alive until they return, so that a call in progress
 * outlives the end of its world.
 *
 * The clock is a number and moves only when the test (or a waiting event loop) moves it. What is to be
 * delivered lies in one queue, in order; it is told to whom only when it is taken out, so that nothing can
 * reach a registration that has been withdrawn.
 *
 * Odd on purpose: a timer's expiry is not delivered as such. It posts its tree's code, once for all timers
 * that have expired by then, and the handler of that code asks for them: a handler that does not ask is
 * not asked again.
 */
#ifndef L2VPN_SIM_CORE_H
#define L2VPN_SIM_CORE_H

#include "functions.h"
#include "handles.h"
#include "splitmix.h"

#include <array>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <tuple>
#include <utility>
#include <variant>

namespace l2vpn::sim {

/* Soonest first; equal times in the order of their ranks. */
struct timer_key {
    duration expiry;
    std::uint64_t rank;
    std::uint32_t leaf;

    friend bool operator<(const timer_key &first, const timer_key &second)
    {
        return std::tie(first.expiry, first.rank, first.leaf) <
               std::tie(second.expiry, second.rank, second.leaf);
    }
};

struct leaf {
    std::uint32_t tree;
    mgd_timer_fn_t function;
    std::array<void *, MGD_TIMER_ADDL_CONTEXTS> contexts{};
    std::optional<timer_key> running{};
    bool announced = false; /* its expiry has been posted */
    bool freed = false;     /* stays readable: it is the tree's handed-out leaf */
};

struct timer_tree {
    std::uint32_t evm;
    int code;
    std::set<timer_key> running{};
    bool posted = false;          /* the code waits in the queue */
    std::uint32_t handed_out = 0; /* the leaf that first_expired gave last */
};

struct attachment {
    event_async_handler_t handler;
    void *arg;
    event_context_t *context;
};

struct event_manager {
    std::map<int, attachment> attached{};
    bool stopping = false;
};

struct registration {
    std::uint32_t client;
    l2vpn_ipc_msg_cb_t msg_cb;
    l2vpn_ipc_evt_cb_t evt_cb;
};

using send_handler = std::function<void(std::span<const std::uint8_t>)>;

struct link_state {
    std::unique_ptr<link> facade{};
    std::optional<registration> registered{};
    std::uint32_t nodeid = 0;
    void *cookie = nullptr;
    bool down = false;
    std::optional<std::uint32_t> mtu{};
    std::vector<bytes> sent{};
    std::shared_ptr<const send_handler> on_send{};
};

/* Something to be called without the lock. Empty when there is nobody to call. */
using job = std::function<void()>;

/* What lies in the queue. */
struct posted_code {
    std::uint32_t evm;
    int code;
    std::uint32_t tree; /* the timer tree that posted it, or 0 */
};
struct link_event {
    std::uint32_t class_id;
    l2vpn_ipc_evt_t number;
    std::uint32_t arg;
    std::uint32_t peer;
};
struct link_message {
    std::uint32_t class_id;
    std::uint32_t class_argument;
    bytes message;
};
struct scripted {
    job action;
};
struct delivery {
    std::uint64_t number;
    std::variant<posted_code, link_event, link_message, scripted> what;
};

/* What the test wants of one function. */
struct failure_rule {
    std::uint64_t number;
    bool and_after;
    qerrno status;
};
struct random_failure {
    double probability;
    qerrno status;
};
using verdict_function = std::function<std::optional<qerrno>(std::uint64_t)>;
using hook_function = std::function<void()>;

/* A function to be called without the lock, shared with whoever is just calling it; null when empty. Swapped
 * in under the lock, so that the one before is destroyed outside of it. */
template <class Function>
[[nodiscard]] std::shared_ptr<const Function> shared_if(Function function)
{
    return function ? std::make_shared<const Function>(std::move(function)) : nullptr;
}

struct function_state {
    std::uint64_t count = 0;
    std::vector<failure_rule> rules{};
    std::optional<random_failure> random{};
    std::shared_ptr<const verdict_function> decide{};
    std::shared_ptr<const hook_function> before{};
};

class core {
public:
    core(std::uint32_t generation, std::uint64_t seed);

    std::mutex lock;
    const std::uint32_t generation;

    /* The number of the latest of each kind: none is used twice. */
    std::uint32_t event_managers_made = 0;
    std::uint32_t trees_made = 0;
    std::uint32_t parents_made = 0;
    std::uint32_t leaves_made = 0;
    std::uint32_t clients_made = 0;
    settings set;
    splitmix random;

    /* --- handles (under the lock) --- */
    template <class Handle>
    [[nodiscard]] Handle handle_of(std::uint32_t number) const
    {
        return reinterpret_cast<Handle>(handle_parts{generation, kind_of<Handle>, number}.packed());
    }
    /* 0 for null, for a stranger's and for another world's. */
    template <class Handle>
    [[nodiscard]] std::uint32_t number_of(Handle handle) const
    {
        const auto parts = handle_parts::unpacked(reinterpret_cast<std::uintptr_t>(handle));
        return handle == handle_of<Handle>(parts.number) ? parts.number : 0;
    }

    /* --- calls and their failures (calls.cpp; under the lock) --- */
    std::array<function_state, fn_count> functions{};
    std::vector<call> record{};
    std::uint64_t fallible = 0;
    std::optional<failure_rule> fail_at{};

    [[nodiscard]] function_state &state_of(fn function);
    [[nodiscard]] bool recorded(fn function, bool failed) const;
    void add_rule(fn function, std::uint64_t k, bool and_after, qerrno status); /* takes the lock itself */
    /* Counts the call and says whether the rules make it fail. */
    [[nodiscard]] std::optional<qerrno> count_call(fn function);

    /* --- the clock and the queue (clock.cpp; under the lock) --- */
    duration now{0};
    std::map<std::uint32_t, event_manager> event_managers{};

    std::deque<delivery> queue{};
    std::uint64_t queued = 0;
    std::multimap<duration, job> scheduled{};

    [[nodiscard]] std::uint32_t new_event_manager();
    void free_event_manager(std::uint32_t evm);
    void enqueue(decltype(delivery::what) what);
    void enqueue_due(); /* what is due by now */
    void move_clock(duration to);
    /* When something falls due next, of one event manager or of all. */
    [[nodiscard]] std::optional<duration> next_due(std::optional<std::uint32_t> evm = {}) const;

    /* These take the lock themselves. */
    void jump(duration by);
    [[nodiscard]] duration after(duration by); /* from now; std::invalid_argument when it is negative */

    /* --- delivery (delivery.cpp; without the lock; std::logic_error from inside a handler) --- */
    bool step();
    std::size_t run();
    std::size_t advance(duration by);

    /* One turn of a program's own loop: what event_mgr_dispatch() does. `stoppable`: ends after the handler
     * in progress when the event manager is told to stop. */
    int dispatch(std::uint32_t evm, int timeout_ms, bool stoppable);

    /* --- timers (timers.cpp; under the lock) --- */
    std::map<std::uint32_t, timer_tree> trees{};
    std::set<std::uint32_t> parents{};
    std::map<std::uint32_t, leaf> leaves{};

    std::uint64_t timer_starts = 0;

    /* The leaf while it is not freed; null otherwise. */
    [[nodiscard]] leaf *live_leaf(const mgd_timer_leaf_t *handle);
    /* The leaf also when it is freed but still handed out. */
    [[nodiscard]] const leaf *readable_leaf(const mgd_timer_leaf_t *handle) const;
    void start_leaf(std::uint32_t number, leaf &timer, duration after);
    void stop_leaf(leaf &timer);
    void free_leaf(std::uint32_t number);
    void take_back_leaf(timer_tree &tree);
    [[nodiscard]] mgd_timer_leaf_t *first_expired(timer_tree &tree);

    /* --- links (links.cpp; under the lock) --- */
    std::map<std::uint32_t, link_state> links{};
    std::map<std::uint32_t, std::uint32_t> clients{}; /* their event managers */

    std::uint64_t sends = 0;

    [[nodiscard]] link_state &link_of(std::uint32_t class_id);
    [[nodiscard]] const registration *registered(std::uint32_t class_id) const;
    void withdraw(std::uint32_t class_id);
    [[nodiscard]] link &facade_of(std::uint32_t class_id); /* takes the lock itself */

    /* --- debug (debug.cpp; under the lock) --- */
    struct debug_set {
        gen_dbg_bitset_t bits{};
        std::map<std::uint32_t, bool> chosen{}; /* bits that the test set one by one */
        bool null = false;
    };
    debug_set debug_enabled{};
    debug_set debug_traced{};
    bool debug_filled = false; /* the value of settings.debug_enabled that the sets stand for */
    gen_dbg_bitset_t report_bits{};
    bool debug_ready = false;

    static void choose_debug_bit(debug_set &one, std::uint32_t id, bool value);
    [[nodiscard]] const gen_dbg_bitset_t *debug_bits(const debug_set &one);

    /* --- WAVL trees (objects.cpp; under the lock) --- */
    const wavl_tree_t *last_tree = nullptr;
    std::size_t last_tree_nodes = 0;

private:
    class turn;

    [[nodiscard]] std::optional<duration> newly_expired(const timer_tree &tree);
    [[nodiscard]] bool is_for(std::uint32_t evm, const delivery &item) const;
    [[nodiscard]] job resolve(posted_code &posted);
    [[nodiscard]] job resolve(link_event &event);
    [[nodiscard]] job resolve(link_message &message);
    [[nodiscard]] job resolve(scripted &script);
    [[nodiscard]] job take(std::optional<std::uint32_t> evm, std::uint64_t up_to);
    std::size_t drain(std::size_t done);

    bool delivering_ = false;
};

/* The world of the moment, or null. */
[[nodiscard]] std::shared_ptr<core> current_core();

} // namespace l2vpn::sim

#endif
