/*
 * One line of comma-separated values. Blanks around a value do not count; a value in double quotes may hold
 * commas, and a quote written twice.
 */
#ifndef OWNER_CSV_H
#define OWNER_CSV_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace owner {

struct csv_cell {
    std::string text;
    std::size_t column; // where it begins, from 1
};

// Empty when the line could be divided, else the reason, with the column in `column`.
std::string split_csv(std::string_view line, std::vector<csv_cell> &cells, std::size_t &column);

} // namespace owner

#endif
