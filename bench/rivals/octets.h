/*
 * Octets that stand for a number where an encoder has no arrays so small: read and written as they lie. And the octet of
 * class 6 that is made of bit-fields, as the library's wire has it.
 */
#ifndef BENCH_OCTETS_H
#define BENCH_OCTETS_H

#include <l2vpn/l2vpn_ac_api.h>

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

inline uint8_t bits_of(const l2vpn_ac_info_class6_t &from)
{
    return static_cast<uint8_t>(from.bit_a << 7 | from.bit_b << 6 | from.bit_c << 5 | from.bit_d << 4 |
                                from.bits_e << 2 | from.bits_f);
}

inline void set_bits(l2vpn_ac_info_class6_t &to, uint8_t bits)
{
    to.bit_a = (bits & 0x80) != 0;
    to.bit_b = (bits & 0x40) != 0;
    to.bit_c = (bits & 0x20) != 0;
    to.bit_d = (bits & 0x10) != 0;
    to.bits_e = bits >> 2 & 3;
    to.bits_f = bits & 3;
}

#endif
