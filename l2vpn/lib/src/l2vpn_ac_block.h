/*
 * Sixteen bytes at a time: SSE2 on x86-64 and NEON on arm64, which every such machine has. Elsewhere there
 * are no blocks, and the plain loops beside their users do all the work; on these machines they do what is
 * left of an array, and say what the blocks mean.
 */
#ifndef L2VPN_AC_BLOCK_H
#define L2VPN_AC_BLOCK_H

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr size_t L2VPN_AC_BLOCK_SIZE = 16;

/* Byte i of a permuted block is byte pattern[i] of the block. */
using l2vpn_ac_block_pattern = std::array<uint8_t, L2VPN_AC_BLOCK_SIZE>;

#if defined(__SSE2__)

#include <emmintrin.h>

#define L2VPN_AC_BLOCKS 1

using l2vpn_ac_block = __m128i;

inline l2vpn_ac_block l2vpn_ac_block_load(const void *at)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(at));
}

inline void l2vpn_ac_block_store(void *at, l2vpn_ac_block block)
{
    _mm_storeu_si128(static_cast<__m128i *>(at), block);
}

/*
 * SSE2 has no permutation of bytes, but reversed fields are made of what it has: the two bytes of each half
 * exchanged, then the halves of each eight bytes shuffled. Multiplied by 256, a half has its bytes in the two halves of
 * the product, where they come to be exchanged; a half that is to stay is multiplied by 1.
 */
template <l2vpn_ac_block_pattern pattern>
struct l2vpn_ac_block_steps {
    /* The half that comes to the place of half `h`, in its eight bytes. */
    static constexpr int half(size_t h) { return pattern[2 * h] / 2 % 4; }
    static constexpr int shuffle(size_t first)
    {
        return half(first) | half(first + 1) << 2 | half(first + 2) << 4 | half(first + 3) << 6;
    }
    static constexpr bool kept(size_t i) { return pattern[i] == i; }

    static constexpr int in_order = 0 | 1 << 2 | 2 << 4 | 3 << 6;
    static constexpr int low = shuffle(0);
    static constexpr int high = shuffle(4);

    static constexpr bool possible()
    {
        for (size_t i = 0; i < pattern.size(); ++i) {
            const size_t source = i / 8 * 8 + static_cast<size_t>(half(i / 2)) * 2;
            if (kept(i) != kept(i ^ 1) || (!kept(i) && pattern[i] != source + 1 - i % 2))
                return false;
        }
        return true;
    }
    static_assert(possible());

    static constexpr std::array<uint16_t, L2VPN_AC_BLOCK_SIZE / 2> factors = [] {
        std::array<uint16_t, L2VPN_AC_BLOCK_SIZE / 2> result{};
        for (size_t h = 0; h < result.size(); ++h)
            result[h] = kept(2 * h) ? 1 : 256;
        return result;
    }();
};

template <l2vpn_ac_block_pattern pattern>
inline l2vpn_ac_block l2vpn_ac_block_permute(l2vpn_ac_block block)
{
    using steps = l2vpn_ac_block_steps<pattern>;
    const __m128i factors = l2vpn_ac_block_load(steps::factors.data());
    __m128i result = _mm_or_si128(_mm_mullo_epi16(block, factors), _mm_mulhi_epu16(block, factors));
    if constexpr (steps::low != steps::in_order)
        result = _mm_shufflelo_epi16(result, steps::low);
    if constexpr (steps::high != steps::in_order)
        result = _mm_shufflehi_epi16(result, steps::high);
    return result;
}

/* Stores the block's four words, each followed by a word of zeros. */
inline void l2vpn_ac_block_store_spread(void *at, l2vpn_ac_block words)
{
    auto *const blocks = static_cast<__m128i *>(at);
    _mm_storeu_si128(blocks, _mm_unpacklo_epi32(words, _mm_setzero_si128()));
    _mm_storeu_si128(blocks + 1, _mm_unpackhi_epi32(words, _mm_setzero_si128()));
}

#elif defined(__aarch64__) && defined(__ARM_NEON)

#include <arm_neon.h>

#define L2VPN_AC_BLOCKS 1

using l2vpn_ac_block = uint8x16_t;

inline l2vpn_ac_block l2vpn_ac_block_load(const void *at)
{
    return vld1q_u8(static_cast<const uint8_t *>(at));
}

inline void l2vpn_ac_block_store(void *at, l2vpn_ac_block block)
{
    vst1q_u8(static_cast<uint8_t *>(at), block);
}

template <l2vpn_ac_block_pattern pattern>
inline l2vpn_ac_block l2vpn_ac_block_permute(l2vpn_ac_block block)
{
    static constexpr l2vpn_ac_block_pattern table = pattern;
    return vqtbl1q_u8(block, vld1q_u8(table.data()));
}

inline void l2vpn_ac_block_store_spread(void *at, l2vpn_ac_block words)
{
    const uint32x4x2_t spread = {{vreinterpretq_u32_u8(words), vdupq_n_u32(0)}};
    vst2q_u32(static_cast<uint32_t *>(at), spread);
}

#else

#define L2VPN_AC_BLOCKS 0

#endif

#endif
