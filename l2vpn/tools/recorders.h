/*
 * Whose records are read. Each process that recorded is one recorder each time it ran, in however many files its
 * records are: they are numbered from 0 on, and so are its links. Threads that record at the same moment may swap
 * places, also where one part of a capture ends and the next begins.
 */
#ifndef L2VPNCTL_RECORDERS_H
#define L2VPNCTL_RECORDERS_H

#include "captured.h"

#include <map>
#include <optional>
#include <set>
#include <tuple>

namespace l2vpnctl {

class recorders {
public:
    /* What a file goes on with that another one has begun: only the number that is due there or, where both say that
     * they are of the same ring, any higher one. */
    enum class join : uint8_t { without_gap, with_gap };

    struct place {
        size_t recorder; /* from 0 on */
        bool is_new;
        uint64_t missing; /* numbers before this one that have not come; of a new one, all */
    };

    explicit recorders(join how) : m_join(how) {}

    place take(size_t source, const l2vpn::capture::captured &record);

private:
    using interface = std::shared_ptr<const std::string>;

    struct state {
        l2vpn::capture::observer by;
        uint32_t pid;      /* of an owner */
        interface from;    /* where it was met first */
        uint64_t next = 0; /* the number that is due */
        uint64_t late = 0; /* of the 64 before it, those that are missing: the nearest is the lowest bit */
        std::set<uint64_t> links = {}; /* that were up */

        bool has_name() const { return from && !from->empty(); }
        bool may_be(const state &like) const;
        bool awaits(uint64_t number) const;
        bool was_up(const l2vpn::capture::record_head &head) const;
        void note_link(const l2vpn::capture::record_head &head);
        uint64_t follow(uint64_t number, bool is_first);
    };

    std::optional<size_t> find_elsewhere(const state &like, uint64_t number) const;
    std::optional<size_t> find_among(const std::vector<size_t> &known, uint64_t number) const;

    join m_join;
    std::vector<state> m_all;
    /* Of each interface of each source, the latest one last. */
    std::map<std::tuple<size_t, interface, l2vpn::capture::observer, uint32_t>, std::vector<size_t>> m_known;
};

} // namespace l2vpnctl

#endif
