#include "csv.h"

#include "text.h"

namespace owner {

namespace {

// Takes a quoted value that begins at `at`; leaves `at` behind the closing quote.
bool take_quoted(std::string_view line, std::size_t &at, std::string &text)
{
    for (++at; at < line.size(); ++at) {
        if (line[at] != '"') {
            text += line[at];
        } else if (at + 1 < line.size() && line[at + 1] == '"') {
            text += '"';
            ++at;
        } else {
            ++at;
            return true;
        }
    }
    return false;
}

} // namespace

std::string split_csv(std::string_view line, std::vector<csv_cell> &cells, std::size_t &column)
{
    cells.clear();
    for (std::size_t at = 0;; ++at) {
        at = std::min(line.find_first_not_of(" \t", at), line.size());
        csv_cell cell{{}, at + 1};
        if (at < line.size() && line[at] == '"') {
            column = at + 1;
            if (!take_quoted(line, at, cell.text))
                return "a quote that is not closed";
            at = std::min(line.find_first_not_of(" \t", at), line.size());
            column = at + 1;
            if (at < line.size() && line[at] != ',')
                return "text behind a closing quote";
        } else {
            const std::size_t end = std::min(line.find(',', at), line.size());
            cell.text = trim(line.substr(at, end - at));
            at = end;
        }
        cells.push_back(std::move(cell));
        if (at >= line.size())
            return {};
    }
}

} // namespace owner
