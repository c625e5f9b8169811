/*
 * Making the file of a ring: of a trace, or of recorded messages.
 */
#ifndef PLATFORM_POSIX_TRACE_FILE_H
#define PLATFORM_POSIX_TRACE_FILE_H

#include "unique_fd.h"

#include <platform/qerr.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

/* Removes such files of processes of this name that have ended, kept predecessors too, but for the newest `keep`,
 * and what processes of this name have left half made. An empty name is any. Returns the sizes
 * of those that are left, the newest first. */
std::vector<std::uint64_t> remove_dead(const std::string &directory, std::string_view program,
                                       std::size_t keep, const file_kind &kind);

/* A file of this process's, mapped. */
struct mapped_file {
    platform_posix::unique_fd file; /* open for its lock: it says that the file is in use */
    std::span<std::byte> map;       /* empty: there is none */
};

/*
 * Makes a file of `size` bytes, allocated, locked and mapped, which `begin` gives its head. It is made under a name
 * of its own and becomes `path` complete: a process that still maps an older one keeps it. Nothing is replaced but
 * an empty file and one of its kind of a process that has ended, unless those are kept. On failure nothing stays,
 * the errno is in `cause` and a line for people in `problem`.
 */
[[nodiscard]] mapped_file make_mapped(const file_kind &kind, const std::string &path, std::size_t size,
                                      const std::function<void(std::span<std::byte>)> &begin, qerrno &cause,
                                      std::string &problem);

} // namespace l2vpn::trace

#endif
