/*
 * What is observed of the library, and predicted by the model: calls of the platform, callbacks, returns.
 */
#ifndef TESTS_SIMULATION_EVENT_H
#define TESTS_SIMULATION_EVENT_H

#include "step.h"

#include <memory>

namespace simulation {

/*
 * One event. Clients, timers and arrays go by their numbers in the order of their making, never by address.
 *
 *   what        numbers                                                          text, data
 *   call        {its number in the step}                                         name
 *   callback    {owner, client, ...}                                             name, arrays
 *   return      {status, restored} or, of a connect, {status, client or 0}       name of the call
 *   ucast       {class, destination, options, status}                            message
 *   ucastv      {class, destination, options, status, piece lengths...,
 *                array and offset of each piece after the header}                message
 *   others      the arguments that matter, the status last                       text of a log, a name
 */
struct event {
    std::string what;
    std::vector<std::uint64_t> numbers;
    std::string text{};
    bytes data{};

    bool operator==(const event &) const = default;
};

[[nodiscard]] std::string to_string(const event &what);

/* The arrays of a request, in host order. */
struct arrays {
    bytes first;  /* the handles, or the MSTP records */
    bytes second; /* the definitions */
    bytes third;  /* the information */
};

/* What a call was given when its step was taken: the step's terms in numbers. The subject settles them, the
 * model takes them over. */
struct settled {
    op what;
    std::uint64_t handle = 0; /* an address */
    std::uint32_t count = 0;
    std::shared_ptr<const arrays> given{};
};

/* The number by which events name one of the three arrays of the step's n-th settled call. */
[[nodiscard]] constexpr std::uint64_t array_number(std::size_t call, std::size_t which)
{
    return call * 4 + which + 1; /* which: 0 to 2 */
}

/* What the model takes over from the subject for one step: what is not for the library to decide. */
struct taken_over {
    std::vector<settled> calls{};
    std::vector<std::uint64_t> contexts{}; /* where the allocator put the clients' contexts */
};

/* So many gathered sends of one step go through, then they fail: a limit of 0 goes on until one does. */
inline constexpr std::uint32_t sends_of_step = 64;
inline constexpr qerrno out_of_sends = 105;

/* What stands in a handle that a connect is to write. */
inline constexpr std::uint64_t unwritten_handle = 0x5a5a5a5a;

/* The inventory of a class's owner, as a resync hands it over. */
[[nodiscard]] std::uint32_t inventory_size(const step &what);

} // namespace simulation

#endif
