/*
 * Making the file of a trace ring.
 */
#ifndef PLATFORM_POSIX_TRACE_FILE_H
#define PLATFORM_POSIX_TRACE_FILE_H

#include "unique_fd.h"

#include <platform/qerr.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace l2vpn::trace {

/* Where this process's trace is, unless told otherwise: NAME-PID.trace. */
[[nodiscard]] std::string path_of_process(const std::string &directory, std::string_view program);

/* Removes such traces of processes of this name that have ended, but for the newest `keep`. */
void remove_dead(const std::string &directory, std::string_view program, std::size_t keep);

/* A file of `size` zero bytes, allocated and locked, under a name of its own beside `path`. It becomes
 * `path` by move_in_place(), which replaces nothing but an empty file and the trace of a process that has
 * ended; it is removed again when it was not moved. */
class new_file {
public:
    new_file() = default;
    ~new_file();
    new_file(const new_file &) = delete;
    new_file &operator=(const new_file &) = delete;

    /* EOK, or the errno with a line for people in `problem`. */
    [[nodiscard]] qerrno make(const std::string &path, std::uint64_t size, std::string &problem);
    [[nodiscard]] qerrno move_in_place(std::string &problem);

    [[nodiscard]] int fd() const noexcept { return fd_.get(); }
    [[nodiscard]] platform_posix::unique_fd take() noexcept { return std::move(fd_); }

private:
    std::string path_;
    std::string temporary_; /* empty: there is none (any more) */
    platform_posix::unique_fd fd_;
};

} // namespace l2vpn::trace

#endif
