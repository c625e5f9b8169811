/*
 * What the fuzz targets share. A target is one function over the real code, linked with libFuzzer.
 */
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

using bytes = std::span<const uint8_t>;

[[noreturn]] inline void fail(const char *what, const char *file, int line)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    abort();
}

#define FUZZ_CHECK(condition)                                                                                \
    ((condition) ? static_cast<void>(0) : fuzz::fail(#condition, __FILE__, __LINE__))

/* The input, taken from its front. Numbers are in network byte order; behind the end there are zeros. */
class input {
public:
    input(const uint8_t *data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    bytes take(size_t count)
    {
        const bytes taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    bytes rest() { return take(rest_.size()); }
    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }
    uint64_t u64() { return number(8); }

private:
    uint64_t number(size_t width)
    {
        uint64_t value = 0;
        for (const uint8_t byte : take(width))
            value = value << 8 | byte;
        return value;
    }

    bytes rest_;
};

/* A copy that ends where its memory does: whoever reads one byte more is seen. */
class exact {
public:
    explicit exact(bytes from) : size_(from.size()), bytes_(new uint8_t[from.size()])
    {
        std::copy(from.begin(), from.end(), bytes_.get());
    }
    uint8_t *data() const { return bytes_.get(); }
    size_t size() const { return size_; }
    operator bytes() const { return {data(), size()}; }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

/* Reads every byte, as a receiver would. A copy is checked as a whole, which takes no time. */
inline void read_all(const void *from, size_t size)
{
    static uint8_t to[4096];
    const auto *at = static_cast<const uint8_t *>(from);
    for (size_t length = 0; size > 0; at += length, size -= length) {
        length = std::min(size, sizeof to);
        memcpy(to, at, length);
        __asm__ volatile("" : : : "memory"); /* as if it were used */
    }
}

inline uint32_t be32(bytes from, size_t at)
{
    return uint32_t{from[at]} << 24 | uint32_t{from[at + 1]} << 16 | uint32_t{from[at + 2]} << 8 |
           from[at + 3];
}

inline void put_be32(uint8_t *to, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

/* Lines for people hold nothing that a terminal would obey. */
inline bool is_plain(std::string_view text)
{
    return std::none_of(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7F';
    });
}

} // namespace fuzz

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed);

/*
 * Most random changes of a message make a message of the wrong length, and never come further. So half of
 * them are made right again: behind `PREFIX` bytes of the input stands a header, and the count of records
 * in it and the input's end are set to agree. SIZE_OF_EACH(data) tells the bytes of a record, 0: unknown.
 */
#define FUZZ_MESSAGE_MUTATOR(PREFIX, SIZE_OF_EACH)                                                           \
    extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)    \
    {                                                                                                        \
        size = LLVMFuzzerMutate(data, size, max_size);                                                       \
        constexpr size_t payload = (PREFIX) + 16;                                                            \
        if (seed % 2 == 0 || size < payload)                                                                 \
            return size;                                                                                     \
        const size_t each = SIZE_OF_EACH(data);                                                              \
        const size_t count = each == 0 ? 0 : (size - payload) / each;                                        \
        fuzz::put_be32(data + (PREFIX) + 8, static_cast<uint32_t>(count));                                   \
        return payload + count * each;                                                                       \
    }

#endif
