/*
 * Plays records into a process: each client of the capture is a process of its own here, too, because the process
 * tells clients apart by their pids; each link is a link.
 *
 * One record is taken before the next one of another link goes out: a packet that was read from its socket is handled
 * before any other is, so that is when the socket holds none any more.
 */
#ifndef L2VPNCTL_REPLAY_PLAYER_H
#define L2VPNCTL_REPLAY_PLAYER_H

#include "play.h"
#include "tables.h"
#include "unique_fd.h"

#include <memory>
#include <set>

namespace l2vpnctl {

class client_process;

class player {
public:
    /* Into the process of this control socket. Throws failure, as all of these. */
    player(std::string control, const std::vector<captured> &records, std::chrono::milliseconds patience);
    ~player();
    player(const player &) = delete;
    player &operator=(const player &) = delete;

    /* Of a process that has owners of others: they and theirs are left alone. */
    void refuse_collisions(const std::vector<captured> &records);

    void take(const captured &record);
    /* Reads what comes, for so long. */
    void wait(std::chrono::milliseconds time);
    /* What the process holds of what it was told, by the capture's links. */
    tables read_tables();
    /* What became of links beside that, against what the capture says. */
    const std::vector<difference> &surprises() const { return m_surprises; }
    uint64_t links() const { return m_opened; }

private:
    using client = std::pair<uint32_t, uint32_t>; /* observer and pid */
    struct link;

    link *open(const captured &record);
    link *find(const captured &record);
    void close(const link_id &id);
    void send(link &to, const captured &record);
    void provision(link &of, const captured &record);
    void settle();
    void drain();
    void lose(link &gone, const std::string &why);
    uint64_t owner_number(link &of);
    json ask(const std::string &verb, const json &args, const std::function<void(const json &row)> &row);
    std::shared_ptr<client_process> process_of(const captured &record);

    std::string m_control;
    std::string m_service;
    std::chrono::milliseconds m_patience;
    uint32_t m_mtu;
    l2vpn::platform_posix::unique_fd m_epoll;
    std::map<client, std::weak_ptr<client_process>> m_clients; /* that have links */
    std::map<link_id, std::unique_ptr<link>> m_links;          /* that are open */
    std::map<uint64_t, link_id> m_owners;                      /* by the process's own number */
    std::set<link_id> m_refused;
    link *m_latest = nullptr; /* which may not have taken what it was sent */
    std::vector<difference> m_surprises;
    uint64_t m_opened = 0;
};

} // namespace l2vpnctl

#endif
