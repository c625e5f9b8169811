/*
 * Text that people write: files read whole, numbers, UTF-8, and the list of what is wrong with a file.
 *
 * Parsers return an empty string when the text is right, else the reason why not, as the end of a sentence
 * that begins with the text's name.
 */
#ifndef OWNER_TEXT_H
#define OWNER_TEXT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace owner {

// Everything that is wrong with one file, in the order of its lines.
class fault_list {
public:
    explicit fault_list(std::string path) : path_(std::move(path)) {}

    // `line` and `column` count from 1; 0 means the file as a whole.
    void add(std::size_t line, std::size_t column, const std::string &what);
    bool empty() const { return faults_.empty(); }
    void print(std::ostream &out) const; // the first 20, and how many more

private:
    std::string path_;
    std::vector<std::string> faults_;
};

// Reads a file of 256 MiB at most. Lines are without their ends; a byte order mark is dropped.
bool read_lines(const std::string &path, std::vector<std::string> &lines, fault_list &faults);

std::string_view trim(std::string_view text);
std::vector<std::string_view> words(std::string_view text);

std::string parse_number(std::string_view text, uint64_t min, uint64_t max, uint64_t &number);
std::string parse_ipv4(std::string_view text, uint64_t &number);
std::string parse_hex(std::string_view text, std::size_t bytes, std::string &out);
std::string check_text(std::string_view text, std::size_t max_bytes); // UTF-8 without NUL

std::string to_hex(std::string_view bytes);

std::string concat(std::initializer_list<std::string_view> parts);

// "1 AC", "2 ACs".
std::string counted(std::size_t number, std::string_view what, std::string_view plural_ending = "s");

// The text in quotes, shortened, with what cannot be printed as '?': for messages.
std::string quoted(std::string_view text);

} // namespace owner

#endif
