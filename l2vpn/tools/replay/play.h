/*
 * What is to be played again: the records of one process or, where it kept none, of its owners.
 */
#ifndef L2VPNCTL_REPLAY_PLAY_H
#define L2VPNCTL_REPLAY_PLAY_H

#include "recordings.h"

namespace l2vpnctl {

/* A link, among all that a capture tells of. */
struct link_id {
    uint32_t observer = 0; /* pid of the owner that recorded it; 0: the process did */
    uint64_t number = 0;

    bool operator==(const link_id &other) const = default;
    bool operator<(const link_id &other) const
    {
        return std::pair(observer, number) < std::pair(other.observer, other.number);
    }
    /* As `owner` stands in the process's tables. */
    std::string name() const
    {
        return (observer == 0 ? "" : std::to_string(observer) + ".") + std::to_string(number);
    }
};

inline link_id link_of(const captured &record)
{
    const bool by_process = record.head.by == l2vpn::capture::observer::process;
    return {by_process ? 0 : record.head.pid, record.head.link};
}

/* A message that its receiver got. */
inline bool has_arrived(const captured &record, l2vpn::capture::flow direction)
{
    return record.head.kind == l2vpn::capture::record_kind::message && record.head.direction == direction &&
           record.head.status == 0 && record.head.link != 0;
}

struct play {
    std::vector<captured> records; /* in the order in which they are to be played */
    uint64_t lost = 0;     /* records that are missing among these, or said to be before or behind them */
    uint64_t before = 0;   /* records of the process before the first one here */
    uint64_t left_out = 0; /* of owners, beside those of the process, which say the same */
};

/* Throws failure: a file cannot be read, holds records of two processes, or a message of which a part is missing. */
play read_play(const command_line &line);

} // namespace l2vpnctl

#endif
