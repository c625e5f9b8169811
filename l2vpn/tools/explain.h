/*
 * The explanation of one AC: the verdict, what happened in order of time, and what was searched for it.
 */
#ifndef L2VPNCTL_EXPLAIN_H
#define L2VPNCTL_EXPLAIN_H

#include "chain.h"

#include <optional>

namespace l2vpnctl {

/* A recording that was looked through. */
struct searched_source {
    std::string name;
    std::string path;
    uint64_t records = 0;
    uint64_t messages = 0;
    uint64_t from = 0; /* times of the first and the last record */
    uint64_t to = 0;
    uint64_t overwritten = 0; /* records before the first one that is there */
    uint64_t lost = 0;        /* those missing behind it */
    uint64_t cut = 0;         /* messages that were not kept as far as they name ACs */
    uint64_t refused = 0;     /* links */
};

struct explanation {
    /* Stable codes, each with a text of its own: the verdict's, and those of notes. */
    struct remark {
        std::string code;
        std::string text;
    };

    std::string asked;
    std::optional<ac_key> key; /* none: no AC is known, or more than one */
    std::string name;
    json candidates = json::array();
    uint64_t more_candidates = 0;
    std::optional<json> process; /* what it says of itself */
    std::optional<json> row;     /* what it holds of the AC */
    bool was_asked = false;      /* the process */
    uint64_t asked_at = 0;
    bool was_held = false; /* by the process, when it was asked before */
    std::string own_ring;
    remark verdict;
    std::vector<chain_step> steps;
    uint64_t left_out = 0;
    std::optional<chain_step> last_fault;
    std::vector<remark> notes;
    std::vector<searched_source> searched;

    void note(std::string code, std::string text) { notes.push_back({std::move(code), std::move(text)}); }
    /* Comes to the verdict. */
    void judge(const chain &story);
    void note_owner();

    json to_json() const;
    std::string to_text() const;
    /* Why there is nothing to be explained. */
    std::string in_one_line() const;
};

/* Nanoseconds since 1970. */
uint64_t time_now();

} // namespace l2vpnctl

#endif
