/*
 * What a process holds, told from the messages of a capture alone, by docs/process.md: it knows no limits, and shares
 * nothing with the process but what the records of the wire look like.
 */
#ifndef L2VPNCTL_REPLAY_ACCOUNT_H
#define L2VPNCTL_REPLAY_ACCOUNT_H

#include "batch_account.h"
#include "tables.h"

namespace l2vpnctl {

class account {
public:
    void take(const captured &record);
    tables result() const;

private:
    using octets = std::vector<uint8_t>;
    using bytes = std::span<const uint8_t>;
    using ac_key = std::array<uint32_t, 3>; /* node, class, handle */

    struct ac {
        link_id owner;
        octets definition;
        octets info;
        bool batched = false;
        bool provisioned = false;
    };
    struct owner {
        uint32_t node = 0;
        uint32_t class_id = 0;
        uint32_t pid = 0;            /* of the client process; 0: not known */
        std::vector<ac_key> batched; /* of the open CREATE batch */
        std::map<std::pair<uint32_t, octets>, octets>
            records; /* roots, states, protections: by type and key */
        std::map<uint32_t, uint32_t> vlans;
        std::map<uint32_t, uint32_t> gathered; /* of the open batch */
    };

    void up(const captured &record);
    void down(const link_id &link);
    void take_message(const captured &record);
    void end_batch(const told_batch &batch);
    void create(const captured &record, const l2vpn::capture::reading &message, bool inside);
    void change(const captured &record, const l2vpn::capture::reading &message);
    void spanning_tree(const captured &record, const l2vpn::capture::reading &message, bool inside);
    bool is_outdated(const link_id &link, const ac &held);
    ac *own(const captured &record, uint32_t handle);

    std::map<ac_key, ac> m_acs;
    std::map<link_id, owner> m_owners;
    batch_account m_batches;
};

} // namespace l2vpnctl

#endif
