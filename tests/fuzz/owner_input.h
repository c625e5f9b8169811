/*
 * What the owner's two readers of text files have in common.
 */
#ifndef TESTS_FUZZ_OWNER_INPUT_H
#define TESTS_FUZZ_OWNER_INPUT_H

#include "memory_file.h"

#include "text.h"

#include <sstream>

namespace fuzz {

/* READ(path, faults) tells whether the file was right. If not, at least one line says what and where, and
 * each begins with the file's name. */
template <typename Read>
bool read_text(bytes content, const Read &read)
{
    static const memory_file file;
    file.hold(content);
    owner::fault_list faults(file.path());
    const bool right = read(file.path(), faults);
    FUZZ_CHECK(right == faults.empty());

    std::ostringstream printed;
    faults.print(printed);
    const std::string text = printed.str();
    FUZZ_CHECK(is_plain(text));
    FUZZ_CHECK(right == text.empty() && (right || text.back() == '\n'));
    std::istringstream lines(text);
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        FUZZ_CHECK(line.starts_with(file.path() + ":") && line.size() > file.path().size() + 2);
    FUZZ_CHECK(count <= 21);
    return right;
}

} // namespace fuzz

#endif
