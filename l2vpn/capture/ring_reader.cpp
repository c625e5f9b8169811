/*
 * Slots may be overwritten while they are read. So the count of slots begun is read again behind them: of what
 * was read, the slots of the latest lap alone count. Reading copies instead of mapping the file, so that
 * a file cut meanwhile is an error and not a signal.
 */
#include "ring_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vpn::capture {
namespace {

constexpr std::uint64_t slots_at_once = 4096;

} // namespace

bool ring_reader::fill(std::span<std::byte> to, std::uint64_t offset) const
{
    while (!to.empty()) {
        const ssize_t got = ::pread(file_.get(), to.data(), to.size(), static_cast<off_t>(offset));
        if (got < 0 && errno != EINTR) {
            throw bad_file(::strerrordesc_np(errno));
        }
        if (got == 0) {
            return false;
        }
        const auto length = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        to = to.subspan(length);
        offset += length;
    }
    return true;
}

ring_header ring_reader::read_header() const
{
    ring_header head{};
    if (!fill(std::as_writable_bytes(std::span(&head, 1)), 0)) {
        throw bad_file("truncated while it was read");
    }
    return head;
}

ring_reader::ring_reader(const std::string &path)
    : file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
{
    struct stat found {};
    if (!file_ || ::fstat(file_.get(), &found) < 0) {
        throw bad_file(::strerrordesc_np(errno));
    }
    if (!S_ISREG(found.st_mode)) {
        throw bad_file(S_ISDIR(found.st_mode) ? "is a directory, not a capture ring" : "not a capture ring");
    }
    const auto size = static_cast<std::uint64_t>(found.st_size);
    ring_header head{};
    const auto room = std::as_writable_bytes(std::span(&head, 1));
    const std::size_t there = std::min<std::size_t>(size, room.size());
    if (!fill(room.first(there), 0) || there < ring_magic.size() || head.magic != ring_magic) {
        throw bad_file(size == 0 ? "empty, not a capture ring" : "not a capture ring");
    }
    if (there < room.size()) {
        throw bad_file("truncated: only " + std::to_string(there) + " bytes are there");
    }
    if (head.byte_order == __builtin_bswap32(byte_order_mark)) {
        throw bad_file("written on a machine of the other byte order");
    }
    if (head.version != ring_version) {
        throw bad_file("a capture ring of version " + std::to_string(head.version) +
                       "; this program reads version " + std::to_string(ring_version));
    }
    if (size < head.file_size) {
        throw bad_file("truncated: " + std::to_string(size) + " of " + std::to_string(head.file_size) +
                       " bytes are there");
    }
    if (head.byte_order != byte_order_mark || head.file_size != size || head.slot_count == 0 ||
        head.file_size < slots_offset || head.slot_count != (size - slots_offset) / sizeof(slot)) {
        throw bad_file("damaged: the header does not fit the file of " + std::to_string(size) + " bytes");
    }
    process_.assign(head.process.data(), ::strnlen(head.process.data(), head.process.size()));
    pid_ = head.pid;
    slot_count_ = head.slot_count;
}

void ring_reader::skip()
{
    position_ = read_header().next;
    skipped_ = true;
}

bool ring_reader::writer_ended() const
{
    if (::flock(file_.get(), LOCK_SH | LOCK_NB) < 0) {
        return false;
    }
    ::flock(file_.get(), LOCK_UN);
    return true;
}

std::uint64_t ring_reader::lost() const
{
    const std::uint64_t read = taken_ == 0 ? 0 : highest_ + 1;
    const std::uint64_t end = std::max(all_, read);
    const std::uint64_t begin = skipped_ ? std::min(lowest_, end) : 0;
    return end - begin - std::min(end - begin, taken_);
}

std::vector<slot> ring_reader::read_slots(std::uint64_t first, std::uint64_t count) const
{
    std::vector<slot> slots(count);
    const std::uint64_t at = first % slot_count_;
    const std::uint64_t before_end = std::min(count, slot_count_ - at);
    const auto bytes = std::as_writable_bytes(std::span(slots));
    if (!fill(bytes.first(before_end * sizeof(slot)), slots_offset + at * sizeof(slot)) ||
        !fill(bytes.subspan(before_end * sizeof(slot)), slots_offset)) {
        throw bad_file("truncated while it was read");
    }
    return slots;
}

void ring_reader::take_record(std::span<const std::uint8_t> bytes, std::vector<captured> &to)
{
    record_prefix prefix{};
    std::memcpy(&prefix, bytes.data(), sizeof prefix); /* a slot is larger */
    constexpr std::size_t begin = offsetof(record_prefix, head);
    captured made{};
    if (prefix.length > bytes.size() - begin || !parse(bytes.subspan(begin, prefix.length), made)) {
        return; /* damaged: lost */
    }
    made.time = prefix.wall;
    lowest_ = std::min(lowest_, made.head.number);
    highest_ = std::max(highest_, made.head.number);
    ++taken_;
    to.push_back(std::move(made));
}

void ring_reader::read(std::vector<captured> &to)
{
    const bool final = writer_ended();
    const ring_header head = read_header();
    const std::uint64_t end = head.next;
    if (final) {
        all_ = head.records;
    }
    if (end < position_) {
        throw bad_file("damaged: it has fewer records than before");
    }
    position_ = std::max(position_, end - std::min(end, slot_count_));
    std::vector<std::uint8_t> record;
    std::uint32_t next_index = 0;
    for (std::uint64_t at = position_; at < end;) {
        const std::uint64_t count = std::min({end - at, slots_at_once, slot_count_});
        const std::vector<slot> slots = read_slots(at, count);
        const std::uint64_t begun = read_header().next;
        const std::uint64_t oldest = begun - std::min(begun, slot_count_);
        for (const slot &found : slots) {
            const std::uint64_t number = at++;
            const bool sound = number >= oldest && found.sequence == 2 * number + 2 &&
                               found.index < found.count && found.count <= slot_count_;
            if (!sound && !final && number >= oldest && begun - number < slot_count_ / 2) {
                return; /* it is being written: next time */
            }
            if (!sound || found.index != (found.index == 0 ? 0 : next_index)) {
                next_index = 0;
                position_ = at;
                continue;
            }
            if (found.index == 0) {
                record.clear();
                position_ = number;
            }
            record.insert(record.end(), found.bytes.begin(), found.bytes.end());
            next_index = found.index + 1;
            if (next_index == found.count) {
                take_record(record, to);
                next_index = 0;
                position_ = at;
            }
        }
    }
}

} // namespace l2vpn::capture
