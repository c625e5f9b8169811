/*
 * The simulation's own random numbers: the same from the same seed on every machine, whatever library and
 * compiler it is built with.
 */
#ifndef TESTS_SIMULATION_RANDOM_H
#define TESTS_SIMULATION_RANDOM_H

#include <endian.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <vector>

namespace simulation {

class random_source {
public:
    explicit random_source(std::uint64_t seed) : state_(seed) {}

    /* splitmix64 */
    std::uint64_t next()
    {
        state_ += 0x9e3779b97f4a7c15u;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
        return z ^ (z >> 31);
    }

    /* 0 to below - 1; the slight preference for small numbers does no harm here. */
    std::uint32_t below(std::uint32_t limit)
    {
        return limit == 0 ? 0 : static_cast<std::uint32_t>(next() % limit);
    }

    bool percent(std::uint32_t of_100) { return below(100) < of_100; }

    template <class Value>
    Value pick(std::initializer_list<Value> values)
    {
        return values.begin()[below(static_cast<std::uint32_t>(values.size()))];
    }

    /* The bytes of a number's low end come first, on any machine. */
    void fill(std::span<std::uint8_t> into)
    {
        for (; !into.empty(); into = into.subspan(std::min(into.size(), sizeof(std::uint64_t)))) {
            const std::uint64_t word = htole64(next());
            std::memcpy(into.data(), &word, std::min(into.size(), sizeof word));
        }
    }

private:
    std::uint64_t state_;
};

} // namespace simulation

#endif
