/*
 * The trace file of this process, mapped and being written.
 *
 * write() may be called by any number of threads: a record's number is taken by one atomic addition, its
 * slot by one compare-and-exchange, and nothing waits. All space is allocated when the file is made, so
 * that a full disk shows then and not as SIGBUS later.
 */
#ifndef PLATFORM_POSIX_TRACE_RING_H
#define PLATFORM_POSIX_TRACE_RING_H

#include "trace/file.h"
#include "trace/format.h"
#include "unique_fd.h"

#include <platform/qerr.h>

#include <atomic>
#include <cstdarg>
#include <memory>
#include <span>
#include <string>

namespace l2vpn::trace {

/* What a record says beside its format and values. */
struct origin {
    record_kind kind;
    std::uint64_t id;
    const char *function = nullptr;
    std::uint32_t line = 0;
};

/* Words in the mapped file that others read meanwhile: every access is atomic. */
inline void store_word(std::uint64_t &word, std::uint64_t value,
                       std::memory_order order = std::memory_order_release) noexcept
{
    std::atomic_ref(word).store(value, order);
}

class ring {
public:
    /* Makes the file `path` with a ring of `size` bytes and maps it. Null on failure, with the errno in
     * `cause` and a line for people in `problem`. */
    [[nodiscard]] static std::unique_ptr<ring> create(const std::string &path, std::uint64_t size,
                                                      qerrno &cause, std::string &problem);
    ~ring();
    ring(const ring &) = delete;
    ring &operator=(const ring &) = delete;

    void write(const origin &from, int error, const char *format, va_list values) noexcept;

    [[nodiscard]] std::span<lock_site, lock_count> locks() noexcept;
    [[nodiscard]] const std::string &path() const noexcept { return path_; }

    /* What a dying process says, made beforehand: it ends with a newline. */
    [[nodiscard]] const std::string &farewell() const noexcept { return farewell_; }

    /* The file is not in use by this process any more. It stays mapped, which would keep its lock. */
    void release_file() noexcept;
    /* The same in a child, whose parent goes on with the file and its lock. */
    void leave_file() noexcept { file_.reset(); }

private:
    ring(std::string path, mapped_file made);

    [[nodiscard]] std::uint16_t number_of(const char *what) noexcept;
    static void complete(text &entry, const char *what) noexcept;

    std::string path_;
    std::string farewell_;
    platform_posix::unique_fd file_; /* open for its lock: it says that the file is in use */
    std::span<std::byte> map_;
    header *header_;
    std::span<text> texts_;
    std::span<record> records_;
};

/* The calling thread's id as the kernel has it, asked for once a thread. */
[[nodiscard]] std::uint32_t thread_id() noexcept;

/* In a forked child: the thread has a new one. */
void forget_thread_id() noexcept;

} // namespace l2vpn::trace

#endif
