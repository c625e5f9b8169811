#include "tables.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace l2vpnctl {

namespace {

constexpr int deepest = 6; /* document, list, row, definition, list, value */

} // namespace

void read_tables(const std::string &path, bool with_owners, tables &to)
{
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw failure{exit_failed, path + ": " + strerror(errno)};
    }
    /* What is deeper than any table is none, and is not kept. */
    const auto is_shallow = [](int depth, json::parse_event_t /*event*/, json & /*value*/) {
        return depth <= deepest;
    };
    const json document = json::parse(file, is_shallow, false);
    bool any = false;
    for (size_t i = 0; i < table_count && document.is_object(); i++) {
        const auto rows = document.find(table_kinds[i].rows);
        if (rows == document.end() || !rows->is_array()) {
            continue;
        }
        any = true;
        to.of[i] = to.of[i].value_or(table_rows());
        try {
            for (json row : *rows) {
                row["owner"] = std::to_string(whole_number(row.at("owner")));
                if (!with_owners) {
                    row.erase("owner");
                }
                to.add(i, std::move(row));
            }
        } catch (const json::exception &) {
            throw failure{exit_failed,
                          path + ": a row of \"" + table_kinds[i].rows + "\" is not as l2vpnctl prints it"};
        }
    }
    if (!any) {
        throw failure{exit_failed,
                      path + ": no table of ACs, spanning trees or batches, as l2vpnctl show acs, mstp or "
                             "batches prints it with --json"};
    }
}

} // namespace l2vpnctl
