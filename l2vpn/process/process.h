/*
 * The L2VPN process itself: owners come, say what they have, and go.
 *
 * This is the whole of its behaviour towards owners, without sockets: the service (service.h) brings links and
 * messages in, the transport given at construction takes messages out, the control verbs look and command.
 *
 * Threads and locks: one thread, the event manager's, and no lock. Nothing here blocks or waits.
 *
 * Rules that hold everywhere:
 *   - A message is taken whole or dropped whole. A dropped message changes nothing but a counter (and, when it
 *     was sound but did not fit, the state of its batch).
 *   - An AC belongs to the owner that created it last. Only that owner can update or delete it, and it goes
 *     when that owner's link ends, whether its batch was complete or not: the owner creates it anew when it is
 *     up again.
 *   - An AC that is created again is as good as new: what was told to its owner about it no longer counts. Its
 *     cross-connect keeps its id.
 *
 * Odd on purpose: a peer that joins late, twice or never is served all the same. JOIN tells that an owner is
 * there, and the link has told that already.
 */
#ifndef L2VPND_PROCESS_H
#define L2VPND_PROCESS_H

#include "log.h"
#include "owner.h"

#include <platform/qerr.h>
#include <tuple>

namespace l2vpnd {

/* The trace records of the process: a message each, with its owner, class, type, size and fate. */
enum trace_id : uint32_t { trace_received = 0x4C320001, trace_dropped, trace_sent };

struct process_options {
    uint32_t nodeid = 1;
    uint32_t max_acs = 4'000'000;
    uint32_t max_owners = 4096;
    uint32_t max_mstp = 1'000'000; /* roots, port states and protections of all owners */
    bool auto_provision = false;

    bool operator==(const process_options &other) const = default;
};

/* Takes messages to owners; the part of <platform/ipc_server.h> that the process needs. */
class transport {
public:
    virtual ~transport() = default;
    virtual qerrno send(const owner &to, bytes message) = 0;
    virtual uint64_t queued(const owner &to) = 0;
};

class l2vpn_process {
public:
    l2vpn_process(const process_options &options, transport &out, event_log &log);

    /* A link opened. EOK: `*made` is the new owner. EINVAL: no such class; EUSERS: there are too many. */
    qerrno accept(l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t &info, owner **made);
    void received(owner &from, bytes raw);
    /* The link ended; `gone` is no more when this returns. */
    void closed(owner &gone, qerrno reason);

    /* False for a class whose ACs cannot be provisioned, and for a link too narrow for one of them. */
    static bool can_provision(const owner &of);
    /* What is to be told to the owner about an AC of its own, now or as soon as its link takes it. */
    void want(owner &of, uint32_t slot, bool provisioned, ac_asker asker = ac_asker::an_operator);
    /* Sends what waits, as far as the owner's queue has room. */
    void send_waiting(owner &to);
    void send_all_waiting();
    /* Sends one message at once. */
    qerrno send(owner &to, uint32_t type, bytes message);

    const process_options &options() const { return m_options; }
    /* For batches that are completed from now on. */
    void set_auto_provision(bool wanted) { m_options.auto_provision = wanted; }
    const ac_table &acs() const { return m_acs; }
    const owner_table &owners() const { return m_owners; }
    owner &owner_at(uint32_t slot) { return m_owners.at(slot); }
    const record_budget &mstp_budget() const { return m_mstp_budget; }
    const event_log &log() const { return m_log; }
    time_t since() const { return m_since; }
    uint64_t owners_refused() const { return m_owners_refused; }
    uint64_t owners_seen() const { return m_owners_seen; }
    /* Bytes in the owner's link's queue. */
    uint64_t queued(const owner &of) const { return m_out.queued(of); }
    /* So little waits in the link's own queue that more may be put there. */
    bool has_room(const owner &of) const;
    uint64_t reconnects() const { return m_reconnects; }
    /* Of all owners that are and were. */
    counters totals() const;

private:
    using handler = drop (l2vpn_process::*)(owner &from, const message &msg, const batch_step &step);
    struct handler_row {
        uint32_t type;
        handler fn;
    };
    static const std::array<handler_row, message_types> s_handlers;

    drop take(owner &from, bytes raw, message &msg);
    drop on_join(owner &from, const message &msg, const batch_step &step);
    drop on_create(owner &from, const message &msg, const batch_step &step);
    drop on_update(owner &from, const message &msg, const batch_step &step);
    drop on_delete(owner &from, const message &msg, const batch_step &step);
    drop on_vid_map(owner &from, const message &msg, const batch_step &step);
    drop on_state(owner &from, const message &msg, const batch_step &step);
    drop on_protected(owner &from, const message &msg, const batch_step &step);
    drop on_is_root(owner &from, const message &msg, const batch_step &step);

    /* A client library has one link a class; where a peer has more, the latest of each class counts, so that
     * ending batches takes no longer however many links a client opens. */
    struct client_links {
        std::array<uint32_t, class_count> latest; /* the owner's slot, or no_slot */
        uint32_t count;
    };

    /* Of links that have ended: pid, class, node. A pid that is given anew counts as the same process. */
    using link_key = std::tuple<pid_t, uint32_t, uint32_t>;
    struct ended_links {
        uint32_t links; /* so many there were */
        uint64_t when;  /* in the order of ends */
    };

    static uint64_t client_of(const owner &o);
    void know_again(owner &fresh);
    void remember(const owner &gone) noexcept;
    void note_waiting(owner &of);
    void end_batches(owner &from, uint32_t type, const batch_step &step);
    void end_batch(owner &of, uint32_t type);
    bool fits(const owner &from, const message &msg) const;
    uint32_t handle_at(const owner &from, const message &msg, uint32_t i) const;
    uint32_t claim(owner &from, uint32_t handle, uint32_t now, uint32_t number);
    uint32_t find_own(const owner &from, uint32_t handle) const;
    void settle(owner &of);
    void move(owner &of, uint32_t slot, ac_stage stage);
    void tell_waiting(owner &to);
    qerrno tell_some(owner &to);

    process_options m_options;
    transport &m_out;
    event_log &m_log;
    ac_table m_acs;
    record_budget m_mstp_budget;
    owner_table m_owners;
    std::map<uint64_t, client_links> m_links; /* by client */
    std::map<link_key, ended_links> m_ended;  /* the latest, as many as there can be owners */
    uint64_t m_ends = 0;
    counters m_gone;
    uint32_t m_last_xcid = 0;
    uint64_t m_owners_refused = 0;
    uint64_t m_owners_seen = 0;
    uint64_t m_reconnects = 0;
    time_t m_since;
};

} // namespace l2vpnd

#endif
