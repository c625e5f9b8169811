/*
 * Which batches are open on which link, told from the messages alone. docs/process.md has the rules.
 */
#ifndef L2VPNCTL_REPLAY_BATCH_ACCOUNT_H
#define L2VPNCTL_REPLAY_BATCH_ACCOUNT_H

#include "play.h"

#include <array>

namespace l2vpnctl {

struct told_batch {
    link_id link;
    uint32_t type = 0;
    uint64_t first = 0; /* the place of its first message, as it was given */
    uint64_t messages = 0;
    uint64_t records = 0;
};

class batch_account {
public:
    /* Whether a message that was taken is part of a batch. What it closes is added to `closed`. */
    bool follow(const link_id &link, const captured &record, const l2vpn::capture::reading &message,
                uint64_t place, std::vector<told_batch> &closed);
    void up(const link_id &link, const captured &record);
    /* The batches of the link that stay without their end are added to `left`. */
    void down(const link_id &link, std::vector<told_batch> &left);
    std::vector<told_batch> open() const;

private:
    /* A client library has one batch for all its classes, so what ends one ends it on all its links. */
    using client = std::pair<uint32_t, uint32_t>; /* observer and pid */

    static client client_of(const link_id &link, const captured &record);

    std::map<std::pair<link_id, uint32_t>, told_batch> m_open; /* by link and type */
    std::map<client, std::map<uint32_t, link_id>> m_links;     /* the latest of each class */
};

} // namespace l2vpnctl

#endif
