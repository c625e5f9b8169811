/*
 * What recorded messages tell of one AC: who created it, in which message, what became of it.
 *
 * The process's records are followed as the process itself follows the messages: batches, owners, what is dropped.
 * What they cannot tell is whether a sound message found room in the tables. The records of owners add what left
 * them, or did not.
 */
#ifndef L2VPNCTL_CHAIN_H
#define L2VPNCTL_CHAIN_H

#include "batch.h"
#include "describe.h"
#include "recorders.h"

#include <deque>
#include <set>

namespace l2vpnctl {

using l2vpn::capture::captured;
using l2vpnd::json;

struct ac_key {
    uint32_t node;
    uint32_t class_id;
    uint32_t handle;
    bool operator<(const ac_key &other) const
    {
        return std::tie(node, class_id, handle) < std::tie(other.node, other.class_id, other.handle);
    }
};

/* One thing that happened to the AC, or to a link that carried it. */
struct chain_step {
    uint64_t time;
    size_t source;
    std::string code;
    bool is_fault;
    l2vpn::capture::record_head head;
    std::string type;       /* of the message; empty: it was none */
    uint32_t index = 0;     /* of the AC in it */
    uint32_t count = 0;     /* ACs in it */
    const char *batch = ""; /* alone, opens, inside, closes, whole or not-known; empty: the type has none */
    uint64_t message = 0;   /* the how manieth of the link; 0: not known */
    std::string why;        /* for people */
};

/* Where the AC stands after the records of one process. */
struct standing {
    enum class place : uint8_t { unheard, held, deleted, withdrawn, dropped };
    place where = place::unheard;
    uint64_t link = 0; /* of its owner, or of the one that had it last */
    uint64_t since = 0;
    bool is_created = false; /* its CREATE is among the records */
    bool in_doubt = false;   /* what is missing may have been about it */
    bool batched = false;
    bool provisioned = false;
    bool send_failed = false;
    bool unprovisioned = false;
};

class chain {
public:
    explicit chain(const ac_key &of) : m_key(of) {}

    void take(size_t source, const captured &record);

    /* In the order of time. */
    std::vector<chain_step> steps() const;
    uint64_t left_out() const { return m_left_out; }
    const chain_step *last_fault() const { return m_last_fault ? &*m_last_fault : nullptr; }
    /* After the latest records that tell of the AC, of this source or of all. Null: no process's do. */
    const standing *latest(std::optional<size_t> source) const;

private:
    struct link_state {
        std::optional<captured> up; /* its record, until it is told of */
        bool is_known = false;      /* from its beginning on */
        bool is_told = false;       /* it has carried the AC */
        uint32_t class_id = 0;
        uint32_t pid = 0;
        uint64_t messages = 0;
        l2vpnd::batches batches;
        std::array<bool, l2vpnd::message_types> batch_is_known{};
    };
    using link_map = std::map<uint64_t, link_state>;
    struct recorder_state {
        size_t source;
        l2vpn::capture::observer by;
        link_map links;
        standing now;
    };

    recorder_state &recorder_of(size_t source, const captured &record);
    void take_message(recorder_state &of, size_t source, const captured &record);
    void take_request(recorder_state &of, link_state &on, chain_step made);
    void take_told(recorder_state &of, link_state &on, chain_step made);
    void take_link_end(recorder_state &of, size_t source, const captured &record);
    static chain_step step_of(size_t source, const captured &record, std::string code, bool is_fault,
                              std::string why);
    static const char *follow(link_state &on, const l2vpn::capture::reading &message, bool &ends);
    static bool is_latest(const recorder_state &of, uint64_t number, const link_state &on);
    static bool is_outdated(const recorder_state &of, uint64_t number, const link_state &on);
    void close_batches(recorder_state &of, const link_state &on, chain_step made);
    void tell(link_state &on, chain_step made);
    void add(chain_step made);

    ac_key m_key;
    recorders m_recorders{recorders::join::without_gap};
    std::vector<recorder_state> m_states; /* of each */
    std::vector<chain_step> m_first;
    std::deque<chain_step> m_last;
    uint64_t m_left_out = 0;
    std::optional<chain_step> m_last_fault;
    std::set<uint32_t> m_pids; /* of owners that named the AC */
};

/* Of an AC that the message names, or would name if it were sound. */
std::optional<uint32_t> index_of(const captured &record, const l2vpn::capture::reading &message,
                                 uint32_t handle);

/* Why the process drops a message, as its counters call it; null: it is sound, as far as it was kept. */
const char *drop_code(const l2vpn::capture::reading &message);

} // namespace l2vpnctl

#endif
