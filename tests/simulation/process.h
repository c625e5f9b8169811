/*
 * The L2VPN process of a simulation, as far as owners can see it: it holds the ACs that it is told of, and
 * answers some messages. What it does depends on nothing but the messages it gets.
 */
#ifndef TESTS_SIMULATION_PROCESS_H
#define TESTS_SIMULATION_PROCESS_H

#include "codec.h"

#include <array>
#include <map>

namespace simulation {

/* An AC as it came over the wire. */
struct held_ac {
    bytes defn;
    bytes info;
    bool operator==(const held_ac &) const = default;
};

class l2vpn_process {
public:
    /* Takes a message of a class's link; what it answers on that link. */
    std::vector<bytes> receive(std::uint32_t class_id, byte_view message);

    /* The process has gone away: it remembers nothing of the class. */
    void forget(std::uint32_t class_id) { acs_.at(class_id).clear(); }

    void set_automatic(std::uint32_t class_id, bool answers) { automatic_.at(class_id) = answers; }

    /* How many of these ACs it holds, exactly as they should have come. */
    [[nodiscard]] std::uint32_t holds(std::uint32_t class_id, byte_view ifhs, byte_view defns,
                                      byte_view infos) const;

private:
    using inventory = std::map<std::uint32_t, held_ac>;

    std::array<inventory, class_count> acs_{};
    std::array<bool, class_count> automatic_{};
};

} // namespace simulation

#endif
