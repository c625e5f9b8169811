/*
 * What the links record, and whether they do: one ring a process, or none.
 */
#ifndef PLATFORM_POSIX_CAPTURE_CAPTURE_H
#define PLATFORM_POSIX_CAPTURE_CAPTURE_H

#include "capture/ring.h"

#include <atomic>
#include <sys/types.h>

namespace l2vpn::capture {

extern std::atomic<ring *> in_use;

/* Nothing is recorded: the cost is a load and a branch. */
inline bool is_off() noexcept
{
    return in_use.load(std::memory_order_acquire) == nullptr;
}

/* As a pid: the recorder's own, which its ring knows. */
constexpr std::uint32_t this_process = UINT32_MAX;

/* The link that a record is about. */
struct link_facts {
    std::uint32_t class_id;
    std::uint32_t nodeid;
    std::uint64_t link;
    std::uint32_t pid;
    std::uint32_t uid;
    const char *name;
};

/* Any thread. Keeps errno. */
void record(record_kind kind, flow direction, const link_facts &about, qerrno status,
            const iovec *pieces = nullptr, std::uint32_t count = 0) noexcept;

/* The name of a running program, as far as it can be told. */
[[nodiscard]] std::array<char, 16> name_of_process(pid_t pid);

/* An owner begins, or a link of it: its ring is made, as the environment says, unless there is one or cannot be. */
void begin_owner();

} // namespace l2vpn::capture

#endif
