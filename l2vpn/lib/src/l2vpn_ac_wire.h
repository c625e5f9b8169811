/*
 * Byte order. A conversion is a program: a list of steps over one record, each the width and the offset of a
 * field, known at compile time. A step reverses the bytes of its field, so the same program converts to the
 * wire and back; what no step names travels as it lies. Records may be unaligned. On a big-endian host a
 * program does nothing.
 */
#ifndef L2VPN_AC_WIRE_H
#define L2VPN_AC_WIRE_H

#include "l2vpn_ac_block.h"

#include <l2vpn/l2vpn_ac_msg.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr bool l2vpn_ac_host_is_wire = std::endian::native == std::endian::big;

static_assert(std::endian::native == std::endian::big || std::endian::native == std::endian::little);

inline uint16_t l2vpn_ac_reverse(uint16_t value)
{
    return __builtin_bswap16(value);
}
inline uint32_t l2vpn_ac_reverse(uint32_t value)
{
    return __builtin_bswap32(value);
}
inline uint64_t l2vpn_ac_reverse(uint64_t value)
{
    return __builtin_bswap64(value);
}

/* Host order to wire order and back. */
template <typename T>
inline T l2vpn_ac_convert(T value)
{
    return l2vpn_ac_host_is_wire ? value : l2vpn_ac_reverse(value);
}

/* The field type of a width in bytes. There is no other width. */
template <size_t width>
struct l2vpn_ac_field;
template <>
struct l2vpn_ac_field<2> {
    using type = uint16_t;
};
template <>
struct l2vpn_ac_field<4> {
    using type = uint32_t;
};
template <>
struct l2vpn_ac_field<8> {
    using type = uint64_t;
};

struct l2vpn_ac_step {
    size_t offset;
    size_t width;
};

/* The steps by their field types, at an offset in bytes. */
constexpr l2vpn_ac_step u16(size_t offset)
{
    return {offset, 2};
}
constexpr l2vpn_ac_step u32(size_t offset)
{
    return {offset, 4};
}
constexpr l2vpn_ac_step u64(size_t offset)
{
    return {offset, 8};
}

template <l2vpn_ac_step step>
inline void l2vpn_ac_convert_field(std::byte *record)
{
    typename l2vpn_ac_field<step.width>::type value;
    std::memcpy(&value, record + step.offset, sizeof value);
    value = l2vpn_ac_convert(value);
    std::memcpy(record + step.offset, &value, sizeof value);
}

/* Two words side by side: as one of twice the size, whose halves change places. */
template <size_t offset>
inline void l2vpn_ac_convert_pair(std::byte *record)
{
    uint64_t words;
    std::memcpy(&words, record + offset, sizeof words);
    if (!l2vpn_ac_host_is_wire)
        words = std::rotl(l2vpn_ac_reverse(words), 32);
    std::memcpy(record + offset, &words, sizeof words);
}

template <l2vpn_ac_step... steps>
struct l2vpn_ac_program {
    /* Where the last step ends, 0 if there is none; beyond every record if steps overlap or go back. */
    static constexpr size_t end()
    {
        size_t reached = 0;
        bool ordered = true;
        ((ordered = ordered && steps.offset >= reached, reached = steps.offset + steps.width), ...);
        return ordered ? reached : SIZE_MAX;
    }

    static inline constexpr size_t reach = end();

    /* Where the byte comes from that a conversion brings to `offset`. */
    static constexpr size_t source(size_t offset)
    {
        size_t result = offset;
        ((result = offset >= steps.offset && offset < steps.offset + steps.width
                       ? 2 * steps.offset + steps.width - 1 - offset
                       : result),
         ...);
        return l2vpn_ac_host_is_wire ? offset : result;
    }

    /* The first byte of all steps. */
    static inline constexpr size_t begin = std::min({SIZE_MAX, steps.offset...});

    static void convert([[maybe_unused]] std::byte *record) { convert_from<0>(record); }

    /* This program followed by more steps. */
    template <l2vpn_ac_step... more>
    using then = l2vpn_ac_program<steps..., more...>;

private:
    static constexpr size_t count = sizeof...(steps);
    static constexpr std::array<l2vpn_ac_step, count> step = {steps...};

    static constexpr bool is_pair(size_t i)
    {
        return i + 1 < count && step[i].width == 4 && step[i + 1].width == 4 &&
               step[i + 1].offset == step[i].offset + 4;
    }

    template <size_t i>
    static void convert_from([[maybe_unused]] std::byte *record)
    {
        if constexpr (is_pair(i)) {
            l2vpn_ac_convert_pair<step[i].offset>(record);
            convert_from<i + 2>(record);
        } else if constexpr (i < count) {
            l2vpn_ac_convert_field<step[i]>(record);
            convert_from<i + 1>(record);
        }
    }
};

/*
 * Asks for the memory `distance` bytes from `at`, where a loop will be soon. Processors follow short strides by
 * themselves; long ones they lose at every page. Any address will do.
 */
inline void l2vpn_ac_prefetch(const void *at, ptrdiff_t distance)
{
    const uintptr_t soon = reinterpret_cast<uintptr_t>(at) + static_cast<uintptr_t>(distance);
    __builtin_prefetch(reinterpret_cast<const void *>(soon));
}

/* The header, in either direction. */
inline void l2vpn_ac_convert_hdr(l2vpn_ac_msg_hdr_t *hdr)
{
    using program = l2vpn_ac_program<u32(0), u32(4), u32(8), u32(12)>;
    static_assert(program::reach == L2VPN_AC_HDR_LEN);
    program::convert(reinterpret_cast<std::byte *>(hdr));
}

/* An array of records that lie back to back, `stride` bytes each, one after the other. */
template <typename program, size_t stride>
inline void l2vpn_ac_convert_plain(std::byte *record, size_t count)
{
    static_assert(program::reach <= stride);
    for (; count > 0; --count, record += stride)
        program::convert(record);
}

#if L2VPN_AC_BLOCKS

/* The same where records fill blocks whole: there a program is one permutation of a block's bytes. */
template <typename program, size_t stride>
inline void l2vpn_ac_convert_dense(std::byte *record, size_t count)
{
    static_assert(program::reach <= stride && L2VPN_AC_BLOCK_SIZE % stride == 0);
    static constexpr l2vpn_ac_block_pattern pattern = [] {
        l2vpn_ac_block_pattern result{};
        for (size_t i = 0; i < result.size(); ++i)
            result[i] = static_cast<uint8_t>(i / stride * stride + program::source(i % stride));
        return result;
    }();
    const auto convert = [](std::byte *at) {
        l2vpn_ac_block_store(at, l2vpn_ac_block_permute<pattern>(l2vpn_ac_block_load(at)));
    };
    size_t left = count * stride;
    for (; left >= 2 * L2VPN_AC_BLOCK_SIZE; left -= 2 * L2VPN_AC_BLOCK_SIZE) {
        convert(record);
        convert(record + L2VPN_AC_BLOCK_SIZE);
        record += 2 * L2VPN_AC_BLOCK_SIZE;
    }
    if (left >= L2VPN_AC_BLOCK_SIZE) {
        convert(record);
        record += L2VPN_AC_BLOCK_SIZE;
        left -= L2VPN_AC_BLOCK_SIZE;
    }
    l2vpn_ac_convert_plain<program, stride>(record, left / stride);
}

#endif

/* An array of records that lie back to back, `stride` bytes each. */
template <typename program, size_t stride>
inline void l2vpn_ac_convert_records(std::byte *record, size_t count)
{
#if L2VPN_AC_BLOCKS
    if constexpr (L2VPN_AC_BLOCK_SIZE % stride == 0)
        l2vpn_ac_convert_dense<program, stride>(record, count);
    else
#endif
        l2vpn_ac_convert_plain<program, stride>(record, count);
}

/* An array of 32-bit words: interface handles. */
inline void l2vpn_ac_convert_words(uint32_t *words, size_t count)
{
    l2vpn_ac_convert_records<l2vpn_ac_program<u32(0)>, sizeof *words>(reinterpret_cast<std::byte *>(words),
                                                                      count);
}

/* Words from number `from` on, each followed by a word of zeros in the array of such pairs that `to` is. */
inline void l2vpn_ac_spread_plain(const uint32_t *words, size_t from, size_t count, std::byte *to)
{
    for (size_t i = from; i < count; ++i) {
        const uint32_t spread[] = {words[i], 0};
        memcpy(to + i * sizeof spread, spread, sizeof spread);
    }
}

/* All of them; by blocks where there are any. */
inline void l2vpn_ac_spread_words(const uint32_t *words, size_t count, std::byte *to)
{
    size_t i = 0;
#if L2VPN_AC_BLOCKS
    for (; count - i >= 4; i += 4)
        l2vpn_ac_block_store_spread(to + i * 8, l2vpn_ac_block_load(words + i));
#endif
    l2vpn_ac_spread_plain(words, i, count, to);
}

#endif
