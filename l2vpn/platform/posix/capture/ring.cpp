#include "capture/ring.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace l2vpn::capture {
namespace {

constexpr std::size_t ready_at_once = std::size_t{16} << 20; // a few milliseconds

std::uint64_t time_of(clockid_t clock) noexcept
{
    struct timespec time {};
    ::clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

ring_header new_header(observer by, std::span<const std::byte> map)
{
    ring_header head{};
    head.magic = ring_magic;
    head.version = ring_version;
    head.byte_order = byte_order_mark;
    head.file_size = map.size();
    head.started_wall = time_of(CLOCK_REALTIME);
    head.started_monotonic = time_of(CLOCK_MONOTONIC);
    head.pid = static_cast<std::uint32_t>(::getpid());
    head.by = static_cast<std::uint32_t>(by);
    std::memcpy(head.process.data(), program_invocation_short_name,
                ::strnlen(program_invocation_short_name, head.process.size() - 1));
    head.slot_count = (map.size() - slots_offset) / sizeof(slot);
    return head;
}

/* Copies pieces one behind the other, a bit at a time. */
class piece_reader {
public:
    piece_reader(const iovec *pieces, std::size_t left) : piece_(pieces), left_(left) {}

    void read(std::span<std::uint8_t> to) noexcept
    {
        while (!to.empty() && left_ > 0) {
            const std::size_t part = std::min({to.size(), left_, piece_->iov_len - done_});
            if (part > 0) {
                std::memcpy(to.data(), static_cast<const std::uint8_t *>(piece_->iov_base) + done_, part);
            }
            to = to.subspan(part);
            left_ -= part;
            done_ += part;
            if (done_ == piece_->iov_len) {
                ++piece_;
                done_ = 0;
            }
        }
    }

private:
    const iovec *piece_;
    std::size_t left_;
    std::size_t done_ = 0; /* of the present piece */
};

} // namespace

std::uint64_t ring::size_of_file(std::uint64_t size)
{
    return slots_offset + size / sizeof(slot) * sizeof(slot);
}

std::unique_ptr<ring> ring::create(const std::string &path, observer by, std::uint64_t size,
                                   std::uint32_t snap, qerrno &cause, std::string &problem)
{
    const auto file_size = static_cast<std::size_t>(size_of_file(size));
    const auto begin = [by](std::span<std::byte> map) {
        const ring_header head = new_header(by, map);
        std::memcpy(map.data(), &head, sizeof head);
    };
    trace::mapped_file made = trace::make_mapped(trace::ring_file, path, file_size, begin, cause, problem);
    if (!made.map.empty()) {
        // The space is taken already; the pages would be met one by one, by the first messages.
        (void)::madvise(made.map.data(), std::min(made.map.size(), ready_at_once), MADV_POPULATE_WRITE);
    }
    return made.map.empty() ? nullptr : std::unique_ptr<ring>(new ring(path, std::move(made), snap));
}

ring::ring(std::string path, trace::mapped_file made, std::uint32_t snap)
    : path_(std::move(path)), file_(std::move(made.file)), map_(made.map),
      header_(reinterpret_cast<ring_header *>(map_.data())),
      slots_(reinterpret_cast<slot *>(map_.data() + slots_offset),
             static_cast<std::size_t>(header_->slot_count)),
      by_(static_cast<observer>(header_->by)), pid_(header_->pid)
{
    const std::size_t quarter = slots_.size() / 4 * slot_room - sizeof(record_prefix);
    most_ = static_cast<std::uint32_t>(snap == 0 ? quarter : std::min<std::size_t>(snap, quarter));
}

ring::~ring()
{
    ::munmap(map_.data(), map_.size());
}

void ring::release_file() noexcept
{
    (void)::flock(file_.get(), LOCK_UN);
    file_.reset();
}

/* False: a thread a lap behind is still writing there, or one a lap ahead has been there. */
bool ring::write_slot(std::uint64_t number, const slot &made) noexcept
{
    slot &to = slots_[static_cast<std::size_t>(number % slots_.size())];
    std::uint64_t holds = std::atomic_ref(to.sequence).load(std::memory_order_relaxed);
    if (holds % 2 != 0 || holds > 2 * number + 1 ||
        !std::atomic_ref(to.sequence)
             .compare_exchange_strong(holds, 2 * number + 1, std::memory_order_acq_rel)) {
        return false;
    }
    // Others read meanwhile: every access is atomic, and none is seen before the ones above it.
    auto *target = reinterpret_cast<std::uint64_t *>(&to);
    const auto *from = reinterpret_cast<const std::byte *>(&made);
    for (std::size_t word = 1; word < sizeof(slot) / sizeof *target; ++word) {
        std::uint64_t value = 0;
        std::memcpy(&value, from + word * sizeof value, sizeof value);
        std::atomic_ref(target[word]).store(value, std::memory_order_release);
    }
    std::atomic_ref(to.sequence).store(2 * number + 2, std::memory_order_release);
    return true;
}

void ring::write(record_head head, const iovec *pieces, std::uint32_t count) noexcept
{
    std::uint64_t length = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        length += pieces[i].iov_len;
    }
    const auto kept = static_cast<std::size_t>(std::min<std::uint64_t>(length, most_));
    head.by = by_;
    head.length = static_cast<std::uint32_t>(length);
    head.number = std::atomic_ref(header_->records).fetch_add(1, std::memory_order_relaxed);

    slot made{};
    record_prefix prefix{};
    prefix.wall = time_of(CLOCK_REALTIME);
    prefix.length = static_cast<std::uint32_t>(head_length + kept);
    put_head(head, prefix.head.data());
    std::memcpy(made.bytes.data(), &prefix, sizeof prefix);
    made.count = static_cast<std::uint32_t>((sizeof prefix + kept + slot_room - 1) / slot_room);

    piece_reader message(pieces, kept);
    std::span<std::uint8_t> room = std::span(made.bytes).subspan(sizeof prefix);
    const std::uint64_t first =
        std::atomic_ref(header_->next).fetch_add(made.count, std::memory_order_relaxed);
    for (made.index = 0; made.index < made.count; ++made.index) {
        message.read(room);
        room = made.bytes;
        if (!write_slot(first + made.index, made)) {
            std::atomic_ref(header_->lost).fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
}

} // namespace l2vpn::capture
