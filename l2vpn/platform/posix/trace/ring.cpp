#include "trace/ring.h"
#include "trace/values.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <sys/file.h>
#include <sys/mman.h>
#include <utility>

namespace l2vpn::trace {
namespace {

constexpr int probes = 16; /* how far a text is looked for before its record goes without */

thread_local std::uint32_t cached_thread_id = 0;

std::uint64_t time_of(clockid_t clock) noexcept
{
    struct timespec time {};
    ::clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

/* FNV-1a, never 0. */
std::uint64_t hash_of(const char *text) noexcept
{
    std::uint64_t hash = 14695981039346656037U;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * 1099511628211U;
    }
    return hash != 0 ? hash : 1;
}

template <std::size_t Size>
void copy_text(std::array<char, Size> &to, const char *from) noexcept
{
    to.fill('\0');
    std::memcpy(to.data(), from, ::strnlen(from, Size - 1));
}

header new_header(std::span<const std::byte> map)
{
    header head{};
    head.magic = magic;
    head.version = version;
    head.byte_order = byte_order_mark;
    head.file_size = map.size();
    head.started_wall = time_of(CLOCK_REALTIME);
    head.started_monotonic = time_of(CLOCK_MONOTONIC);
    head.pid = static_cast<std::uint32_t>(::getpid());
    copy_text(head.process, program_invocation_short_name);
    head.texts = {.offset = texts_offset, .count = text_count};
    head.locks = {.offset = locks_offset, .count = lock_count};
    head.records = {.offset = records_offset, .count = (map.size() - records_offset) / sizeof(record)};
    return head;
}

template <typename Element>
std::span<Element> elements(std::span<std::byte> map, const region &where) noexcept
{
    return {reinterpret_cast<Element *>(map.data() + where.offset), static_cast<std::size_t>(where.count)};
}

} // namespace

std::uint32_t thread_id() noexcept
{
    if (cached_thread_id == 0) {
        cached_thread_id = static_cast<std::uint32_t>(::gettid());
    }
    return cached_thread_id;
}

void forget_thread_id() noexcept
{
    cached_thread_id = 0;
}

std::unique_ptr<ring> ring::create(const std::string &path, std::uint64_t size, qerrno &cause,
                                   std::string &problem)
{
    const auto file_size = static_cast<std::size_t>(records_offset + size);
    const auto begin = [](std::span<std::byte> map) {
        const header head = new_header(map);
        std::memcpy(map.data(), &head, sizeof head);
    };
    mapped_file made = make_mapped(trace_file, path, file_size, begin, cause, problem);
    return made.map.empty() ? nullptr : std::unique_ptr<ring>(new ring(path, std::move(made)));
}

void ring::release_file() noexcept
{
    (void)::flock(file_.get(), LOCK_UN);
    file_.reset();
}

ring::ring(std::string path, mapped_file made)
    : path_(std::move(path)), file_(std::move(made.file)), map_(made.map),
      header_(reinterpret_cast<header *>(map_.data())), texts_(elements<text>(map_, header_->texts)),
      records_(elements<record>(map_, header_->records))
{
    farewell_ = "l2vpn: the trace of " + std::string(program_invocation_short_name) + "[" +
                std::to_string(header_->pid) + "] is in " + path_ + "\n";
}

ring::~ring()
{
    ::munmap(map_.data(), map_.size());
}

std::span<lock_site, lock_count> ring::locks() noexcept
{
    return std::span<lock_site, lock_count>(elements<lock_site>(map_, header_->locks));
}

/* Writes down the text of an entry that holds its hash. Threads that meet at a new text write the same words,
 * so none has to wait for another: whoever names the entry in a record has seen it complete. */
void ring::complete(text &entry, const char *what) noexcept
{
    text made{};
    copy_text(made.bytes, what);
    const auto words = std::bit_cast<std::array<std::uint64_t, sizeof(text) / 8>>(made);
    auto *target = reinterpret_cast<std::uint64_t *>(&entry);
    for (std::size_t word = offsetof(text, bytes) / 8; word < words.size(); ++word) {
        store_word(target[word], words[word]);
    }
    store_word(entry.ready, 1);
}

/* The number of a text, which is written down when it is new. Texts are told apart by their hashes alone:
 * an address may come to hold another text. */
std::uint16_t ring::number_of(const char *what) noexcept
{
    if (what == nullptr) {
        return 0;
    }
    const std::uint64_t hash = hash_of(what);
    for (std::uint64_t probe = hash; probe != hash + probes; ++probe) {
        const auto index = static_cast<std::size_t>(probe % texts_.size());
        text &entry = texts_[index];
        std::uint64_t holds = 0;
        if (!std::atomic_ref(entry.hash).compare_exchange_strong(holds, hash) && holds != hash) {
            continue;
        }
        if (std::atomic_ref(entry.ready).load(std::memory_order_acquire) == 0) {
            complete(entry, what);
        }
        return static_cast<std::uint16_t>(index + 1);
    }
    return 0;
}

void ring::write(const origin &from, int error, const char *format, va_list values) noexcept
{
    record made{};
    made.monotonic = time_of(CLOCK_MONOTONIC);
    made.wall = time_of(CLOCK_REALTIME);
    made.id = from.id;
    made.thread = thread_id();
    made.line = from.line;
    made.kind = from.kind;
    made.format = number_of(format);
    made.function = number_of(from.function);
    const encoded done = encode(made.values, format, error, values);
    made.used = static_cast<std::uint8_t>(done.used);
    made.cut = done.cut ? 1 : 0;

    const std::uint64_t number = std::atomic_ref(header_->next).fetch_add(1, std::memory_order_relaxed);
    record &slot = records_[static_cast<std::size_t>(number % records_.size())];
    // Odd: a thread a lap behind is still writing there. Higher: one a lap ahead has been there.
    std::uint64_t holds = std::atomic_ref(slot.sequence).load(std::memory_order_relaxed);
    if (holds % 2 != 0 || holds > being_written(number) ||
        !std::atomic_ref(slot.sequence)
             .compare_exchange_strong(holds, being_written(number), std::memory_order_acq_rel)) {
        std::atomic_ref(header_->lost).fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const auto words = std::bit_cast<std::array<std::uint64_t, sizeof(record) / 8>>(made);
    auto *target = reinterpret_cast<std::uint64_t *>(&slot);
    for (std::size_t word = 1; word < words.size(); ++word) {
        store_word(target[word], words[word]);
    }
    store_word(slot.sequence, written(number));
}

} // namespace l2vpn::trace
