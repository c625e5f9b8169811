#include "output.h"

#include "recordings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vpnctl {

namespace {

[[noreturn]] void cannot_write()
{
    if (errno == EINTR && is_stopped()) {
        __fpurge(stdout); /* or the program's end would wait in its turn */
        throw interrupted{exit_failed, "interrupted"};
    }
    throw failure{exit_failed, std::string("cannot write to standard output: ") + strerror(errno)};
}

} // namespace

void write_out(const std::string &text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        cannot_write();
    }
}

void flush_out()
{
    if (fflush(stdout) != 0) {
        cannot_write();
    }
}

style style_of(const std::string &colour)
{
    style how;
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const char *no_colour = getenv("NO_COLOR");
    how.colour =
        colour == "always" || (colour == "auto" && terminal && (no_colour == nullptr || *no_colour == '\0'));
    winsize size{};
    if (terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        how.width = size.ws_col;
        how.height = size.ws_row;
    }
    return how;
}

progress_line::progress_line(bool prints_meanwhile) : m_is_terminal(isatty(STDERR_FILENO) == 1)
{
    struct stat about {};
    if (prints_meanwhile && fstat(STDOUT_FILENO, &about) == 0) {
        m_is_terminal = m_is_terminal && !S_ISFIFO(about.st_mode) && !S_ISSOCK(about.st_mode);
    }
}

void progress_line::tell(const std::string &text)
{
    if (m_is_terminal && text != m_told) {
        fputs(("\r" + text + "\033[K").c_str(), stderr);
        m_told = text;
    }
}

void record_progress::show()
{
    m_line.tell(std::to_string(m_total) + " records");
}

} // namespace l2vpnctl
