#include "console.h"

#include <cstdio>
#include <unistd.h>

namespace owner {

namespace {

constexpr std::size_t worth_a_bar = 1000;
constexpr std::size_t bar_cells = 40;
constexpr std::chrono::milliseconds redraw_interval{100};

} // namespace

console::console() : terminal_(isatty(STDOUT_FILENO) == 1) {}

void console::erase_bar()
{
    if (bar_shown_)
        (void)std::fputs("\r\033[K", stdout);
    bar_shown_ = false;
}

void console::line(const std::string &text)
{
    erase_bar();
    (void)std::fprintf(stdout, "%s\n", text.c_str());
    (void)std::fflush(stdout);
}

void console::error(const std::string &text)
{
    erase_bar();
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "l2vpn-owner: %s\n", text.c_str());
}

void console::progress(std::size_t done, std::size_t total)
{
    if (!terminal_ || total < worth_a_bar)
        return;
    if (done >= total) {
        erase_bar();
        (void)std::fflush(stdout);
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (bar_shown_ && now - last_drawn_ < redraw_interval)
        return;
    last_drawn_ = now;
    const std::size_t filled = bar_cells * done / total;
    const std::string bar = std::string(filled, '#') + std::string(bar_cells - filled, '.');
    (void)std::fprintf(stdout, "\r[%s] %zu of %zu", bar.c_str(), done, total);
    (void)std::fflush(stdout);
    bar_shown_ = true;
}

} // namespace owner
