/*
 * The ring of this process's latest messages, mapped and being written.
 *
 * write() may be called by any number of threads: a record's slots are taken by one atomic addition, each by
 * one compare-and-exchange, and nothing waits, for a reader least of all. All space is allocated when the
 * file is made, so that a full disk shows then and not as SIGBUS later.
 */
#ifndef PLATFORM_POSIX_CAPTURE_RING_H
#define PLATFORM_POSIX_CAPTURE_RING_H

#include "capture/format.h"
#include "trace/file.h"

#include <platform/qerr.h>

#include <memory>
#include <string>
#include <sys/uio.h>

namespace l2vpn::capture {

class ring {
public:
    /* Makes the file `path` with a ring of `size` bytes, which keeps `snap` bytes of a message (0: all, as far
     * as a quarter of the ring takes it). Null on failure, with the errno in `cause` and a line for people in
     * `problem`. */
    [[nodiscard]] static std::unique_ptr<ring> create(const std::string &path, observer by,
                                                      std::uint64_t size, std::uint32_t snap, qerrno &cause,
                                                      std::string &problem);
    /* What that file takes. */
    [[nodiscard]] static std::uint64_t size_of_file(std::uint64_t size);
    ~ring();
    ring(const ring &) = delete;
    ring &operator=(const ring &) = delete;

    /* Length, number, observer and the rest of what the ring knows are filled in. */
    void write(record_head head, const iovec *pieces, std::uint32_t count) noexcept;

    [[nodiscard]] const std::string &path() const noexcept { return path_; }
    [[nodiscard]] observer by() const noexcept { return by_; }
    [[nodiscard]] std::uint32_t pid() const noexcept { return pid_; }

    /* The file is not in use by this process any more. It stays mapped, which would keep its lock. */
    void release_file() noexcept;
    /* The same in a child, whose parent goes on with the file and its lock. */
    void leave_file() noexcept { file_.reset(); }

private:
    ring(std::string path, trace::mapped_file made, std::uint32_t snap);

    [[nodiscard]] bool write_slot(std::uint64_t number, const slot &made) noexcept;

    std::string path_;
    platform_posix::unique_fd file_; /* open for its lock: it says that the file is in use */
    std::span<std::byte> map_;
    ring_header *header_;
    std::span<slot> slots_;
    observer by_;
    std::uint32_t pid_;
    std::uint32_t most_; /* bytes of a message that are kept */
};

} // namespace l2vpn::capture

#endif
