/*
 * What a page tells of records, column by column. page/data.js reads it in the same order.
 */
#ifndef L2VPNCTL_TIMELINE_STORY_H
#define L2VPNCTL_TIMELINE_STORY_H

#include "batch_account.h"
#include "packed.h"
#include "recorders.h"

#include <functional>

namespace l2vpnctl {

class story {
public:
    /* `part` takes the details of some records, as they become complete. */
    explicit story(std::function<void(const std::string &part)> part) : m_part(std::move(part)) {}

    void take(size_t source, const captured &record, uint64_t lost);
    /* Everything else, when the last record was taken: the page's parts by name. */
    std::vector<std::pair<const char *, std::string>> finish(const std::string &title, uint64_t lost);
    uint64_t records() const { return m_records; }

private:
    using lane_key = std::tuple<size_t, uint32_t, uint32_t, uint32_t>; /* run, pid, node, class */

    /* Where and when somebody recorded: a process, each time it ran, or an owner. */
    struct run {
        uint64_t process; /* from 1 on, of processes alone; 0: an owner */
        uint64_t first;   /* records */
        uint64_t last;
    };

    link_id link_of(const captured &record) const;
    void take_run(const recorders::place &at, const captured &record);
    uint64_t lane_of(const captured &record);
    void take_batches(const captured &record, const l2vpn::capture::reading &message);
    void add_batch(const told_batch &batch, uint64_t end, uint64_t last);
    void add_named(const captured &record, const l2vpn::capture::reading &message);
    uint64_t type_of(const l2vpn::capture::reading &message);
    void add_details(const captured &record, const l2vpn::capture::reading &message);
    void end_part();

    std::function<void(const std::string &part)> m_part;
    uint64_t m_records = 0;
    uint64_t m_lost = 0;
    uint64_t m_first_time = 0;
    uint64_t m_latest_time = 0;
    packed m_rows;

    recorders m_recorders{recorders::join::with_gap};
    std::vector<run> m_runs; /* of each recorder */
    uint64_t m_processes = 0;
    size_t m_run = 0; /* of the record that is looked at */

    std::map<lane_key, uint64_t> m_lanes;
    std::map<link_id, uint64_t> m_lane_of_link;
    json m_lane_rows = json::array();
    std::map<uint32_t, uint64_t> m_types;
    json m_type_names = json::array();

    /* What is named: node, class, handle, and the name that it has by then. */
    std::map<std::tuple<uint32_t, uint32_t, uint32_t, std::string>, uint64_t> m_named;
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, std::string> m_names;
    packed m_handles;
    std::string m_named_names;

    batch_account m_account;
    std::set<link_id> m_up; /* links that it knows */
    packed m_batches;
    uint64_t m_batch_count = 0;

    std::string m_details;
    uint64_t m_in_part = 0;
    json m_parts = json::array(); /* the first record of each */
};

} // namespace l2vpnctl

#endif
