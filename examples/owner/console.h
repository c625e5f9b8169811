/*
 * What the owner shows: lines, and below them a progress bar when standard output is a terminal.
 */
#ifndef OWNER_CONSOLE_H
#define OWNER_CONSOLE_H

#include <chrono>
#include <cstddef>
#include <string>

namespace owner {

class console {
public:
    console();

    void line(const std::string &text);
    void error(const std::string &text); // on standard error, with the program's name
    // Shown from 1,000 on, ten times a second; it goes away when `done` reaches `total`.
    void progress(std::size_t done, std::size_t total);

private:
    void erase_bar();

    bool terminal_;
    bool bar_shown_ = false;
    std::chrono::steady_clock::time_point last_drawn_;
};

} // namespace owner

#endif
