/*
 * Octets that stand for a number where an encoder has no arrays so small: read and written as they lie.
 */
#ifndef BENCH_OCTETS_H
#define BENCH_OCTETS_H

#include <cstdint>
#include <cstring>

template <typename T>
T raw(const uint8_t *octets)
{
    T value;
    memcpy(&value, octets, sizeof value);
    return value;
}

template <typename T>
void unraw(uint8_t *octets, T value)
{
    memcpy(octets, &value, sizeof value);
}

#endif
