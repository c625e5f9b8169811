/* A number of the host's made one of the network's where it lies, at any address, and back. */
#ifndef BENCH_SWAP_H
#define BENCH_SWAP_H

#include <cstddef>
#include <cstdint>
#include <cstring>

template <typename T>
void swap_at(std::byte *at)
{
    T value;
    memcpy(&value, at, sizeof value);
    if constexpr (sizeof value == 2)
        value = __builtin_bswap16(value);
    else if constexpr (sizeof value == 8)
        value = __builtin_bswap64(value);
    else
        value = __builtin_bswap32(value);
    memcpy(at, &value, sizeof value);
}

#endif
