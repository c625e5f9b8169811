#include "table.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace l2vpnctl {

namespace {

constexpr size_t gap = 2;
constexpr size_t shortest = 8; /* a cut column keeps this much */

const char *sequence(tint colour)
{
    switch (colour) {
    case tint::good:
        return "\033[32m";
    case tint::busy:
        return "\033[33m";
    case tint::bad:
        return "\033[31m";
    case tint::heading:
        return "\033[1m";
    default:
        return "";
    }
}

std::string fitted(const std::string &text, size_t width, bool right)
{
    if (text.size() > width) {
        return text.substr(0, width - 1) + "~";
    }
    const std::string pad(width - text.size(), ' ');
    return right ? pad + text : text + pad;
}

} // namespace

std::string tinted(const std::string &text, tint colour, const style &how)
{
    return how.colour && colour != tint::plain ? sequence(colour) + text + "\033[0m" : text;
}

void table::add(std::vector<cell> cells, std::string below)
{
    m_rows.push_back({std::move(cells), std::move(below)});
}

std::vector<size_t> table::widths(size_t most) const
{
    std::vector<size_t> width;
    for (const column &c : m_columns) {
        width.push_back(c.title.size());
    }
    for (const row &r : m_rows) {
        for (size_t i = 0; i < width.size(); i++) {
            width[i] = std::max(width[i], r.cells[i].text.size());
        }
    }
    size_t whole = std::accumulate(width.begin(), width.end(), gap * (width.size() - 1));
    for (size_t i = 0; most != 0 && i < width.size() && whole > most; i++) {
        if (m_columns[i].elastic) {
            const size_t least = std::max(shortest, m_columns[i].title.size());
            const size_t cut = std::min(whole - most, width[i] > least ? width[i] - least : 0);
            width[i] -= cut;
            whole -= cut;
        }
    }
    return width;
}

std::string table::print(const style &how) const
{
    const std::vector<size_t> width = widths(how.width);
    std::string out;
    const auto line = [&](const auto &text_of, const auto &tint_of) {
        std::string text;
        for (size_t i = 0; i < width.size(); i++) {
            const bool last = i + 1 == width.size();
            std::string part = fitted(text_of(i), width[i], m_columns[i].right);
            if (last) {
                part.erase(part.find_last_not_of(' ') + 1);
            }
            text += tinted(part, tint_of(i), how) + (last ? "" : std::string(gap, ' '));
        }
        out += text + "\n";
    };
    line([&](size_t i) { return m_columns[i].title; }, [](size_t) { return tint::heading; });
    for (const row &r : m_rows) {
        line([&](size_t i) { return r.cells[i].text; }, [&](size_t i) { return r.cells[i].colour; });
        out += r.below;
    }
    return out;
}

} // namespace l2vpnctl
