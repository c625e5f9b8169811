/*
 * Tables for people: aligned columns, no wider than the terminal where that can be had.
 */
#ifndef L2VPNCTL_TABLE_H
#define L2VPNCTL_TABLE_H

#include <cstdint>
#include <string>
#include <vector>

namespace l2vpnctl {

/* How the output looks. */
struct style {
    bool colour = false;
    size_t width = 0;  /* 0: as wide as it gets */
    size_t height = 0; /* of a terminal; 0: there is none */
};

enum class tint : uint8_t { plain, good, busy, bad, heading };

struct cell {
    std::string text;
    tint colour = tint::plain;
};

struct column {
    std::string title;
    bool right = false;   /* aligned right: numbers */
    bool elastic = false; /* may be cut when the table is too wide */
};

class table {
public:
    explicit table(std::vector<column> columns) : m_columns(std::move(columns)) {}

    /* One cell a column; `below` is printed under the row as it is. */
    void add(std::vector<cell> cells, std::string below = {});
    bool empty() const { return m_rows.empty(); }
    std::string print(const style &how) const;

private:
    struct row {
        std::vector<cell> cells;
        std::string below;
    };

    std::vector<size_t> widths(size_t most) const;

    std::vector<column> m_columns;
    std::vector<row> m_rows;
};

std::string tinted(const std::string &text, tint colour, const style &how);

} // namespace l2vpnctl

#endif
