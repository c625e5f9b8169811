/*
 * The simulated platform: the platform contract on a virtual clock and in-memory links, for tests.
 *
 * Link a test with libl2vpn_sim.so ahead of the platform library and the code under test (the AC library,
 * your interface owner, or both) runs on it unchanged:
 *
 *     l2vpn::sim::world world;                       // virtual time 0, nothing happened yet
 *     l2vpn_ac_process_connect(world.evm(), 0, 4, &callbacks, &hd);
 *     world.link_of(4).up();                            // the L2VPN process is there
 *     world.run();                                      // the event manager's turn: status_cb says UP
 *     l2vpn_ac_create(hd, 0, 300, ifh, defns, infos);
 *     world.link_of(4).sent();                          // the messages, byte for byte
 *
 * Nothing happens by itself. Events, inbound messages and expired timers wait until the test calls run()
 * or advance(), which deliver them on the calling thread, one at a time, as the real event manager does.
 * An owner that has a main loop of its own keeps it: event_mgr_new(), event_mgr_run() and the others of
 * <platform/event_loop.h> are here too, and waiting moves the virtual clock. A wait that nothing can end
 * any more fails with EDEADLK. There are no descriptors: event_mgr_fd() is -1, event_fd_watch() fails with
 * ENOSYS.
 *
 * The L2VPN process is played by the test, message by message or by a handler that answers:
 *
 *     world.link_of(4).on_send([&](std::span<const std::uint8_t> message) {
 *         if (message[7] == L2VPN_AC_MSG_CREATE)
 *             world.link_of(4).inject(provision_of(message)); // prov_cb comes with the next run()
 *     });
 *
 * Every call of the contract is recorded, and any call can be made to fail at its k-th occurrence:
 *
 *     world.fail(fn::l2vpn_ipc_ucastv, 3, ENOBUFS);     // the third send from now fails, once
 *
 * There is one world at a time; a new one starts from nothing, and nothing of the old one is delivered to
 * it. The functions of the contract may be called from any thread, those of the world from the test's
 * thread; link::inject() and the other calls that queue, and everything that only asks, from any thread.
 * `world.set` is changed while no other thread is in a call.
 *
 * Handles of the platform's own things (event managers, timers, clients) are numbers dressed as pointers:
 * never to be followed, never used twice, so that a stale one is refused and never mistaken for another.
 * Without a world every function answers harmlessly: nothing is registered, found or started.
 */
#ifndef PLATFORM_SIM_H
#define PLATFORM_SIM_H

#include <platform/event_loop.h>
#include <platform/platform.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace l2vpn::sim {

class core; /* what is behind a world and its links */

using bytes = std::vector<std::uint8_t>;
using duration = std::chrono::nanoseconds;

/* The functions of the contract, by their names. */
enum class fn : std::uint32_t {
    qerr_strerror,
    platform_get_my_nodeid,
    calloc_named,
    event_async_attach_event,
    mgd_timer_tree_new,
    mgd_timer_tree_free,
    mgd_timer_parent_new,
    mgd_timer_parent_free,
    mgd_timer_leaf_new,
    mgd_timer_leaf_free,
    mgd_timer_leaf_get_context,
    mgd_timer_leaf_set_addl_context,
    mgd_timer_leaf_get_addl_context,
    mgd_timer_leaf_running,
    mgd_timer_leaf_start,
    mgd_timer_leaf_stop,
    mgd_timer_tree_first_expired,
    wavl_init,
    wavl_insert,
    wavl_search,
    wavl_delete,
    l2vpn_ipc_client_init,
    l2vpn_ipc_class_init,
    l2vpn_ipc_class_deinit,
    l2vpn_ipc_transport_mtu_get,
    l2vpn_ipc_ucast,
    l2vpn_ipc_ucastv,
    l2vpn_ac_data_sanitize,
    ptd_set_mutex_block,
    ptd_unset_mutex_block,
    gen_dbg_get_enabled_bitset,
    gen_dbg_ltrace_get_dbg_bitset,
    gen_format_debug_fmt,
    gen_dbg_ltrace_ctx,
    gen_ltrace,
    l2vpn_debug_init,
    l2vpn_debug_get_ctx,
    l2vpn_debug_get_enabled_bitset,
    l2vpn_generic_gen_dbg_ltrace_ctx,
    l2vpn_check_ltrace_buffer,
    l2vpn_ltrace,
    l2vpn_gen_assert_errmsg,
    vy_syslog,
    count_ /* the number of functions, not a function */
};

inline constexpr std::size_t fn_count = static_cast<std::size_t>(fn::count_);

/* The function's name, "?N" for a value that is none. */
[[nodiscard]] std::string name_of(fn function);

/*
 * One recorded call.
 *
 * `args` are the arguments in order, numbers as they are and pointers as numbers; a timespec is its
 * nanoseconds, a gather list its address. The functions that say where they were called from, or take a
 * format, have that in fields of its own instead:
 *
 *   function                                                     args
 *   gen_format_debug_fmt                                         {debug_id}
 *   gen_dbg_ltrace_ctx, gen_ltrace                               {trace_id}
 *   l2vpn_generic_gen_dbg_ltrace_ctx                             {ctx, enabled, component}
 *   l2vpn_ltrace                                                 {key}
 *   vy_syslog                                                    {level}
 *   ptd_set_mutex_block                                          {mutex}
 *   mgd_timer_leaf_start                                         {leaf, nanoseconds}
 *   all others, among them
 *   calloc_named                                                 {count, size, name}
 *   event_async_attach_event                                     {evm, code, handler, arg, context}
 *   l2vpn_ipc_client_init                                        {evm, service, client}
 *   l2vpn_ipc_ucast                                 {client, class, destination, message, length, options}
 *   l2vpn_ipc_ucastv                                {client, class, destination, pieces, count, options}
 *   l2vpn_ac_data_sanitize                                       {class, entries, defns, infos, count}
 */
struct call {
    fn function;
    std::uint64_t number;              /* the k of "k-th call of this function", from 1 */
    duration at;                       /* virtual time */
    std::vector<std::uint64_t> args;   /* see above */
    std::int64_t result;               /* what was returned: a status, a number, a pointer as a number; 0 for
                                          functions that return nothing */
    bool failed;                       /* the test had it fail */
    std::string text;                  /* a string argument: service, allocation name, or the formatted
                                          message of a log function (its function name is in `where`) */
    std::string where;                 /* the `function` argument of log and lock-monitor calls */
    std::uint32_t line;                /* the `line` argument of these */
    std::string format;                /* the format as given */
    bytes message;                     /* ucast, ucastv: the message, assembled */
    std::vector<std::size_t> pieces;   /* ucastv: the length of each piece */
    std::vector<const void *> bases;   /* ucastv: the address of each piece */
    std::vector<std::uint32_t> ifhs;   /* sanitizer: the handles of the entries (the first 1,024) */
    std::vector<std::uint32_t> spares; /* sanitizer: the second words of these */
};

/*
 * The link of one class to the L2VPN process, registered or not, whichever client registers it. Obtained
 * from world.link_of(); valid as long as the world. A link keeps its record when the class is withdrawn and
 * registered again.
 *
 * What is queued while the class is not registered waits for it until the next run(), and is dropped there
 * when the class is still not registered. A withdrawal drops what is queued.
 */
class link {
public:
    [[nodiscard]] std::uint32_t class_id() const;
    [[nodiscard]] bool registered() const;
    [[nodiscard]] std::uint32_t nodeid() const; /* as given at the latest registration */
    [[nodiscard]] void *cookie() const;         /* the same */

    /* Queues the event "connected" / "disconnected", to be delivered by run(). `peer` and `arg` are handed
     * to the event callback. After down(), sends fail with ENOTCONN until up() or until the class is
     * withdrawn, as on the real platform; before the first up() they succeed. */
    void up(std::uint32_t arg = 0, std::uint32_t peer = 1);
    void down(std::uint32_t arg = 0, std::uint32_t peer = 1);

    /* Queues an event of any number, without changing the link. */
    void event(l2vpn_ipc_evt_t number, std::uint32_t arg = 0, std::uint32_t peer = 1);

    /* Queues a message, header included. The callback gets a copy in a buffer of exactly its size, which is
     * freed after the callback. `class_argument`, when given, is what the callback is told instead of the
     * link's class. Throws std::invalid_argument for a message below the header's 16 bytes: no platform
     * delivers one. */
    void inject(std::span<const std::uint8_t> message,
                std::optional<std::uint32_t> class_argument = std::nullopt);

    /* The messages sent so far, refused ones not among them. Read them while no other thread sends. */
    [[nodiscard]] const std::vector<bytes> &sent() const;
    void clear_sent();

    /* Called with every message that is sent, on the sending thread, with no lock of the world held. One
     * handler a link; an empty one ends it. */
    void on_send(std::function<void(std::span<const std::uint8_t>)> handler);

    link(const link &) = delete;
    link &operator=(const link &) = delete;
    ~link();

private:
    friend class core;
    struct impl;
    explicit link(std::unique_ptr<impl> what);
    std::unique_ptr<impl> impl_;
};

/* What can be set before or during a test. */
struct settings {
    std::uint32_t nodeid = 0x0a000001; /* the answer of platform_get_my_nodeid() */
    std::uint32_t mtu = 65536;         /* of every class without one of its own */
    bool debug_enabled = true;         /* all bits of the two debug bitsets; debug texts are recorded */
    bool ltrace_wanted = true;         /* the answer of l2vpn_check_ltrace_buffer() */
    bool record_reads = false;         /* record also the pure look-ups: qerr_strerror, the bitsets,
                                          l2vpn_debug_get_*, mgd_timer_leaf_running / get_*. Those that
                                          the test had fail are recorded always */
    bool record = true;                /* false: count calls, record none, keep no message (for benchmarks) */
    bool shuffle_equal_timers = false; /* timers of equal expiry come in an order drawn from the seed */
    bool enforce_mtu = true;           /* sends above the MTU fail with EMSGSIZE */
    std::uint64_t max_sends = 1000000; /* after so many, sends fail with ENOBUFS: no endless sending */
    std::uint64_t max_handlers = 1000000; /* one run() or advance() that calls more throws
                                             std::runtime_error, event_mgr_run() ends with ELOOP */
};

class world {
public:
    /* Throws std::logic_error while there is another world. */
    explicit world(std::uint64_t seed = 1);
    ~world();
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    /* The event manager; another one, for tests that need two. */
    [[nodiscard]] event_mgr_p evm();
    [[nodiscard]] event_mgr_p another_evm();

    settings &set;
    void set_mtu(std::uint32_t class_id, std::uint32_t mtu);

    /* The bitsets that the gates see, bit by bit; the pointers can be made null. */
    void set_debug_bit(std::uint32_t id, bool enabled, bool traced);
    void set_debug_bitsets_null(bool enabled, bool traced);

    /* --- time and delivery --- */

    [[nodiscard]] duration now() const;

    /* Delivers everything that is due now: events and messages in their order, posted codes, expired
     * timers; also what the handlers cause. Returns the number of handlers called. Throws std::logic_error
     * from inside a handler, as do step() and advance(): handlers run one at a time. */
    std::size_t run();

    /* Delivers one thing that is due. False when nothing is. */
    bool step();

    /* Moves the clock on by `by`, stopping at every timer on the way to run what is due. */
    std::size_t advance(duration by);

    /* Moves the clock on by `by` at once, so that everything that expires on the way is expired together;
     * delivers nothing. May be called from a handler. */
    void jump(duration by);

    /* Does something when the clock comes to `when`, before the timers of that time, as one of the things
     * that are delivered; with the next delivery when that time is over. For what happens while a program's
     * own loop runs: world.at(10s, [&] { event_mgr_stop(evm); }). */
    void at(duration when, std::function<void()> action);

    /* Posts a code to evm(), as the platform's timers do. A code without a handler is dropped. */
    void post(int code);

    /* The expiry times of the running timers, soonest first. */
    [[nodiscard]] std::vector<duration> timers() const;

    /* --- failures --- */

    /* The k-th call of `function` from now (k from 1) fails, once. What failing is depends on the function:
     * those that return a status return `status`, pointers are null, int results are -1 with errno set to
     * `status` (0 included), the two yes-or-no answers (mgd_timer_leaf_running, l2vpn_check_ltrace_buffer)
     * are no, functions that return nothing do nothing. A failing call has no effect. */
    void fail(fn function, std::uint64_t k, qerrno status);

    /* From the k-th call on all fail. */
    void fail_from(fn function, std::uint64_t k, qerrno status);

    /* Every call fails with this probability, drawn from the seed. */
    void fail_randomly(fn function, double probability, qerrno status);

    /* Every call of `function` asks `answer`, with its number since the world began: a status makes it fail,
     * nothing lets it through. For what the three above cannot say. Asked on the calling thread, with no
     * lock of the world held. */
    void decide(fn function, std::function<std::optional<qerrno>(std::uint64_t number)> answer);

    void clear_failures();

    /* The position-wise torture of a scenario: all calls of the functions that can fail count as one
     * sequence. fail_at(n, s) makes the n-th of them fail with `s` (allocations and other pointers: null);
     * fallible_calls() tells how many there were since the world began or since the last fail_at().
     *
     * The functions that can fail: platform_get_my_nodeid, calloc_named, event_async_attach_event,
     * mgd_timer_tree_new, mgd_timer_parent_new, mgd_timer_leaf_new, mgd_timer_leaf_set_addl_context,
     * wavl_init, wavl_insert, l2vpn_ipc_*, l2vpn_ac_data_sanitize, l2vpn_debug_init. */
    void fail_at(std::uint64_t n, qerrno status, bool persistently = false);
    [[nodiscard]] std::uint64_t fallible_calls() const;

    /* --- what happened --- */

    [[nodiscard]] std::vector<call> calls() const;
    [[nodiscard]] std::vector<call> calls(fn function) const;
    [[nodiscard]] std::uint64_t count(fn function) const;
    void clear_calls(); /* forgets the records; numbers go on */

    /* The debug messages, error reports and syslog lines among the recorded calls, formatted, in order. */
    [[nodiscard]] std::vector<std::string> log() const;
    [[nodiscard]] bool logged(std::string_view text) const;

    /* A line for every call, for a failing test's output. Holds no address: two runs of the same calls from
     * the same seed have the same transcript. */
    [[nodiscard]] std::string transcript() const;

    /* Called before a call of `function` does anything, on the calling thread, with no lock of the world
     * held: for letting another thread in at exactly that point. An empty hook ends it. */
    void before(fn function, std::function<void()> hook);

    /* --- state of the platform --- */

    [[nodiscard]] link &link_of(std::uint32_t class_id);
    [[nodiscard]] std::size_t live_leaves() const;
    [[nodiscard]] std::size_t live_trees() const;
    [[nodiscard]] std::size_t live_parents() const;
    [[nodiscard]] std::size_t clients() const; /* nodes in the tree initialised last */

    /* The handler and context record attached to a code; null when there is none. */
    [[nodiscard]] const event_context_t *attached(int code) const;

    /* The callbacks registered for a class, to call them directly. */
    [[nodiscard]] l2vpn_ipc_msg_cb_t msg_cb(std::uint32_t class_id) const;
    [[nodiscard]] l2vpn_ipc_evt_cb_t evt_cb(std::uint32_t class_id) const;
    [[nodiscard]] l2vpn_ipc_client_t ipc_client() const;

    /* Random numbers of the seed, for tests that want their choices to replay. */
    std::uint64_t random();
    std::uint64_t random(std::uint64_t below); /* 0 to below - 1 */

private:
    explicit world(std::shared_ptr<core> core);
    std::shared_ptr<core> core_;
    event_mgr_p main_evm_;
};

} // namespace l2vpn::sim

#endif
