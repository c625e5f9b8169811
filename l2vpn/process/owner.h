/*
 * The owners: one for every link, that is for every class that a client process has registered.
 */
#ifndef L2VPND_OWNER_H
#define L2VPND_OWNER_H

#include "ac_table.h"
#include "batch.h"
#include "mstp_table.h"

#include <map>
#include <memory>
#include <platform/ipc_server.h>
#include <vector>

namespace l2vpnd {

/* What was counted, of one owner or of the process. */
struct counters {
    std::array<uint64_t, message_types> received{};
    std::array<uint64_t, message_types> records{}; /* in the messages received */
    std::array<uint64_t, message_types> sent{};
    std::array<uint64_t, drop_count> dropped{};
    uint64_t bytes_received = 0;
    uint64_t bytes_sent = 0;
    uint64_t send_failures = 0;
    uint64_t acs_created = 0;
    uint64_t acs_replaced = 0;   /* created again by their owner */
    uint64_t acs_outdated = 0;   /* created over a link that had a successor, which had created them */
    uint64_t acs_taken_over = 0; /* created again by another owner of the same node and class */
    uint64_t acs_updated = 0;
    uint64_t acs_deleted = 0;
    uint64_t acs_withdrawn = 0; /* gone with their owner's link */
    uint64_t acs_provisioned = 0;
    uint64_t acs_unprovisioned = 0;
    uint64_t unknown_updates = 0; /* ACs named in an UPDATE or a DELETE that the owner does not have */
    uint64_t unknown_deletes = 0;
    batch_counters batch;

    uint64_t all_received() const; /* those that were dropped included */
    uint64_t all_dropped() const;
};

struct owner {
    owner(uint32_t at, l2vpn_ipc_peer_t link, const l2vpn_ipc_peer_info_t &about, record_budget &budget);

    uint32_t slot;
    l2vpn_ipc_peer_t peer;
    l2vpn_ipc_peer_info_t info;
    time_t since;
    time_t waiting_since = 0; /* all the time since then something is to be sent; 0: nothing is */
    uint32_t reconnects = 0;  /* links of the same class that its client process had before */
    counters count;
    batches batch;
    std::array<ac_list, static_cast<size_t>(ac_stage::count)> acs;
    mstp_table mstp;

    ac_list &list(ac_stage stage) { return acs[static_cast<size_t>(stage)]; }
    const ac_list &list(ac_stage stage) const { return acs[static_cast<size_t>(stage)]; }
    uint64_t ac_count() const;
};

/* All owners, by id, and by the small slot number that an AC's head holds. */
class owner_table {
public:
    explicit owner_table(uint32_t max_owners) : m_max_owners(max_owners) {}

    owner &add(l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t &info, record_budget &budget);
    void remove(owner &gone);
    owner &at(uint32_t slot) { return *m_slots[slot]; }
    const owner &at(uint32_t slot) const { return *m_slots[slot]; }
    /* The owner with the lowest id above `id`; null when there is none. */
    owner *after(uint64_t id) const;
    bool full() const { return m_by_id.size() >= m_max_owners; }
    size_t size() const { return m_by_id.size(); }

private:
    uint32_t m_max_owners;
    std::vector<std::unique_ptr<owner>> m_slots;
    std::vector<uint32_t> m_free;
    std::map<uint64_t, owner *> m_by_id;
};

} // namespace l2vpnd

#endif
