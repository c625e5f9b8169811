/*
 * A record may be written while it is read. So every piece is read twice: a record whose two copies agree
 * and are marked complete was not touched in between, because a writer marks it first and last. Reading
 * copies instead of mapping the file, so that a file cut meanwhile is an error and not a signal.
 */
#include "trace_file.h"
#include "trace/values.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace l2vpn::trace_reader {
namespace {

using namespace l2vpn::trace;

constexpr std::uint64_t records_at_once = 4096;

constexpr std::array kind_names{"debug", "entry", "report", "error", "assertion", "syslog"};
static_assert(kind_names.size() == static_cast<std::size_t>(record_kind::count_));

class input {
public:
    explicit input(const std::string &path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        struct stat found {};
        if (fd_ < 0 || ::fstat(fd_, &found) < 0) {
            const int cause = errno;
            close();
            throw bad_file(::strerrordesc_np(cause));
        }
        if (!S_ISREG(found.st_mode)) {
            close();
            throw bad_file(S_ISDIR(found.st_mode) ? "is a directory, not a trace file" : "not a trace file");
        }
        size_ = static_cast<std::uint64_t>(found.st_size);
    }
    ~input() { close(); }
    input(const input &) = delete;
    input &operator=(const input &) = delete;

    [[nodiscard]] std::uint64_t size() const noexcept { return size_; }

    /* Fills `to` from `offset`; false when the file ends before. */
    [[nodiscard]] bool read(std::span<std::byte> to, std::uint64_t offset) const
    {
        while (!to.empty()) {
            const ssize_t length = ::pread(fd_, to.data(), to.size(), static_cast<off_t>(offset));
            if (length < 0 && errno != EINTR) {
                throw bad_file(::strerrordesc_np(errno));
            }
            if (length == 0) {
                return false;
            }
            const std::size_t got = length < 0 ? 0 : static_cast<std::size_t>(length);
            to = to.subspan(got);
            offset += got;
        }
        return true;
    }

    template <typename Element>
    [[nodiscard]] std::vector<Element> elements(std::uint64_t offset, std::uint64_t count) const
    {
        static_assert(std::is_trivially_copyable_v<Element>);
        std::vector<Element> read_elements(count);
        if (!read(std::as_writable_bytes(std::span(read_elements)), offset)) {
            throw bad_file("truncated while it was read");
        }
        return read_elements;
    }

private:
    void close() const
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int fd_;
    std::uint64_t size_ = 0;
};

/* The text in a fixed array, whether it ends in it or not. */
template <std::size_t Size>
std::string text_in(const std::array<char, Size> &bytes)
{
    return {bytes.data(), ::strnlen(bytes.data(), Size)};
}

void check_region(const char *name, const region &found, const region &expected)
{
    if (found.offset != expected.offset || found.count != expected.count) {
        throw bad_file("damaged: the header says that " + std::to_string(found.count) + " " + name +
                       " begin at byte " + std::to_string(found.offset) + ", where " +
                       std::to_string(expected.count) + " begin at byte " + std::to_string(expected.offset));
    }
}

header read_header(const input &file)
{
    header head{};
    const auto bytes = std::as_writable_bytes(std::span(&head, 1));
    const std::uint64_t there = std::min<std::uint64_t>(file.size(), bytes.size());
    if (!file.read(bytes.first(there), 0) || there < magic.size() || head.magic != magic) {
        throw bad_file(file.size() == 0 ? "empty, not a trace file" : "not a trace file");
    }
    if (there < bytes.size()) {
        throw bad_file("truncated: only " + std::to_string(there) + " bytes are there");
    }
    if (head.byte_order == __builtin_bswap32(byte_order_mark)) {
        throw bad_file("written on a machine of the other byte order");
    }
    if (head.byte_order != byte_order_mark) {
        throw bad_file("damaged: no byte-order mark in the header");
    }
    if (head.version != version) {
        throw bad_file("a trace file of version " + std::to_string(head.version) +
                       "; this program reads version " + std::to_string(version));
    }
    if (file.size() < head.file_size) {
        throw bad_file("truncated: " + std::to_string(file.size()) + " of " + std::to_string(head.file_size) +
                       " bytes are there");
    }
    if (file.size() > head.file_size || head.file_size < records_offset + sizeof(record)) {
        throw bad_file("damaged: the file has " + std::to_string(file.size()) + " bytes, the header says " +
                       std::to_string(head.file_size));
    }
    check_region("texts", head.texts, {.offset = texts_offset, .count = text_count});
    check_region("locks", head.locks, {.offset = locks_offset, .count = lock_count});
    check_region("records", head.records,
                 {.offset = records_offset, .count = (head.file_size - records_offset) / sizeof(record)});
    return head;
}

std::string text_at(const std::vector<text> &texts, std::uint16_t number, const char *otherwise)
{
    if (number == 0 || number > texts.size() || texts[number - 1U].ready != 1) {
        return otherwise;
    }
    return text_in(texts[number - 1U].bytes);
}

/* Whether a record is complete, where it should be and what it should be. */
bool is_sound(const record &found, const record &again, std::uint64_t slot, const header &head)
{
    return std::memcmp(&found, &again, sizeof found) == 0 && found.sequence % 2 == 0 &&
           (found.sequence - 2) / 2 % head.records.count == slot && found.kind < record_kind::count_ &&
           found.used <= found.values.size();
}

entry entry_of(const record &found, const std::vector<text> &texts)
{
    const std::string format = text_at(texts, found.format, "(format not known)");
    const bool is_error = found.kind == record_kind::error;
    return {.number = (found.sequence - 2) / 2,
            .wall = found.wall,
            .monotonic = found.monotonic,
            .thread = found.thread,
            .kind = kind_names[static_cast<std::size_t>(found.kind)],
            .id = is_error ? found.id & 0xFFFFFFFF : found.id,
            .function = text_at(texts, found.function, ""),
            .line = found.line,
            .text = render(format, std::span(found.values).first(found.used)),
            .cut = found.cut != 0};
}

void read_records(const input &file, const header &head, contents &into)
{
    for (std::uint64_t first = 0; first < head.records.count; first += records_at_once) {
        const std::uint64_t count = std::min(records_at_once, head.records.count - first);
        const std::uint64_t offset = head.records.offset + first * sizeof(record);
        const auto once = file.elements<record>(offset, count);
        const auto twice = file.elements<record>(offset, count);
        // After the records: what they name may be new.
        const auto texts = file.elements<text>(head.texts.offset, head.texts.count);
        for (std::size_t index = 0; index < count; ++index) {
            if (once[index].sequence == 0) {
                continue;
            }
            if (is_sound(once[index], twice[index], first + index, head)) {
                into.entries.push_back(entry_of(once[index], texts));
            } else {
                ++into.damaged;
            }
        }
    }
    std::ranges::sort(into.entries, {}, &entry::number);
}

void read_locks(const input &file, const header &head, contents &into)
{
    for (const lock_site &site : file.elements<lock_site>(head.locks.offset, head.locks.count)) {
        if (site.function[0] != '\0') {
            into.locks.push_back({.function = text_in(site.function),
                                  .line = site.line,
                                  .waiting = site.waiting,
                                  .count = site.count,
                                  .total = site.total,
                                  .longest = site.longest,
                                  .mutex = site.mutex});
        }
    }
    std::ranges::sort(into.locks, std::ranges::greater(), &lock_row::total);
}

} // namespace

contents read_file(const std::string &path)
{
    const input file(path);
    const header head = read_header(file);
    contents read{.process = text_in(head.process),
                  .pid = head.pid,
                  .started = head.started_wall,
                  .begun = head.next,
                  .lost = head.lost,
                  .damaged = 0,
                  .entries = {},
                  .locks = {}};
    read_records(file, head, read);
    read_locks(file, head, read);
    return read;
}

} // namespace l2vpn::trace_reader
