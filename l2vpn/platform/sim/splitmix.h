/*
 * The one source of randomness: splitmix64, the same numbers from the same seed everywhere.
 */
#ifndef L2VPN_SIM_SPLITMIX_H
#define L2VPN_SIM_SPLITMIX_H

#include <cstdint>

namespace l2vpn::sim {

class splitmix {
public:
    explicit splitmix(std::uint64_t seed) : state_(seed) {}

    std::uint64_t operator()()
    {
        state_ += 0x9e3779b97f4a7c15u;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
        return z ^ (z >> 31);
    }

    /* 0 to below - 1, all alike; 0 for a `below` of 0. */
    std::uint64_t operator()(std::uint64_t below)
    {
        if (below == 0)
            return 0;
        const std::uint64_t uneven = (0 - below) % below; /* 2^64 modulo below */
        std::uint64_t drawn = (*this)();
        while (drawn < uneven)
            drawn = (*this)();
        return drawn % below;
    }

    /* True with this probability. */
    bool chance(double probability) { return static_cast<double>((*this)() >> 11) * 0x1p-53 < probability; }

private:
    std::uint64_t state_;
};

} // namespace l2vpn::sim

#endif
