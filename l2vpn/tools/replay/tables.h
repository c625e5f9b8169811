/*
 * What a process holds, as rows that can be compared, wherever they come from: the process itself, a file that
 * was saved from it, or an account of the messages.
 */
#ifndef L2VPNCTL_REPLAY_TABLES_H
#define L2VPNCTL_REPLAY_TABLES_H

#include "control_link.h"

#include <array>
#include <map>
#include <optional>

namespace l2vpnctl {

/* A table that l2vpnctl shows: its verb, the member of its JSON document, and what its rows have that two
 * processes told the same do not agree on. */
struct table_kind {
    const char *verb;
    const char *rows;
    std::string (*key)(const json &row); /* for people, too */
    std::array<std::string_view, 2> ignored;
};

inline constexpr size_t table_count = 3;
extern const std::array<table_kind, table_count> table_kinds;

using table_rows = std::map<std::string, json>; /* by key */

struct tables {
    std::array<std::optional<table_rows>, table_count> of; /* nothing: not known */

    void add(size_t kind, json row);
    uint64_t count(size_t kind) const { return of[kind] ? of[kind]->size() : 0; }
};

struct difference {
    const char *table; /* member of the JSON document; null: none */
    std::string text;
    json expected; /* the rows; null: there is none */
    json found;
};

/* What `found` has otherwise, of all that `expected` tells. */
std::vector<difference> compare(const tables &expected, const tables &found);

/* A number as l2vpnctl prints it. Throws json::exception where it has a fraction, an exponent or a sign, or does not
 * fit: converting such a one would be undefined. */
uint64_t whole_number(const json &value);

/* Adds what was saved with `l2vpnctl show ... --json`. Throws failure. */
void read_tables(const std::string &path, bool with_owners, tables &to);

} // namespace l2vpnctl

#endif
