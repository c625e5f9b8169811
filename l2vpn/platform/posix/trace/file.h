/*
 * Making the file of a ring: of a trace, or of recorded messages.
 */
#ifndef PLATFORM_POSIX_TRACE_FILE_H
#define PLATFORM_POSIX_TRACE_FILE_H

#include "unique_fd.h"

#include <platform/qerr.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace l2vpn::trace {

/* How all these files begin. */
struct file_head {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t byte_order;
    std::uint64_t file_size;
    std::uint64_t started_wall;
    std::uint64_t started_monotonic;
    std::uint32_t pid;
};

struct file_kind {
    std::array<char, 8> magic;
    std::string_view name_end;
    const char *name;
    std::size_t kept; /* predecessors, which are evidence: PATH.1, PATH.2 */
};
extern const file_kind trace_file;
extern const file_kind ring_file;

/* Where this process's file is, unless told otherwise: NAME-PID.trace. */
[[nodiscard]] std::string path_of_process(const std::string &directory, std::string_view program,
                                          const file_kind &kind);

/* Removes such files of processes of this name that have ended, kept predecessors too, but for the newest `keep`. */
void remove_dead(const std::string &directory, std::string_view program, std::size_t keep,
                 const file_kind &kind);

/* A file of `size` zero bytes, allocated and locked, under a name of its own beside `path`. It becomes
 * `path` by move_in_place(), which replaces nothing but an empty file and one of its kind of a process that has
 * ended, unless those are kept; it is removed again when it was not moved. */
class new_file {
public:
    explicit new_file(const file_kind &kind) : kind_(kind) {}
    ~new_file();
    new_file(const new_file &) = delete;
    new_file &operator=(const new_file &) = delete;

    /* EOK, or the errno with a line for people in `problem`. */
    [[nodiscard]] qerrno make(const std::string &path, std::uint64_t size, std::string &problem);
    [[nodiscard]] qerrno move_in_place(std::string &problem);

    [[nodiscard]] int fd() const noexcept { return fd_.get(); }
    [[nodiscard]] platform_posix::unique_fd take() noexcept { return std::move(fd_); }

private:
    const file_kind &kind_;
    std::string path_;
    std::string temporary_; /* empty: there is none (any more) */
    platform_posix::unique_fd fd_;
};

} // namespace l2vpn::trace

#endif
