/*
 * The functions of the contract as data: one row a function, in the order of `fn`.
 */
#ifndef L2VPN_SIM_FUNCTIONS_H
#define L2VPN_SIM_FUNCTIONS_H

#include <platform/sim.h>

namespace l2vpn::sim {

/* What a function returns, hence how its failing looks. */
enum class returns : std::uint8_t {
    nothing, /* failing: nothing done */
    status,  /* the status */
    pointer, /* null */
    number,  /* -1, the status in errno */
    answer   /* 0, "no" */
};

struct traits {
    fn function;
    const char *name;
    returns result;
    bool fallible; /* counts in the sequence of fail_at() */
    bool look_up;  /* recorded with settings.record_reads only */
    /* How the recorded arguments are printed, a letter each: d decimal, x hexadecimal, p pointer or handle,
     * t time, s the call's text in place of its address. */
    const char *print;
};

[[nodiscard]] const traits &traits_of(fn function);

} // namespace l2vpn::sim

#endif
