/*
 * A simulation is a list of steps. Each says all there is to say about itself, in terms that hold wherever
 * it stands ("two limits and one more", "the client of class 4"), so that any of them can be left out.
 */
#ifndef TESTS_SIMULATION_STEP_H
#define TESTS_SIMULATION_STEP_H

#include "codec.h"

#include <platform/sim.h>

#include <optional>
#include <string>

namespace simulation {

using l2vpn::sim::fn;

enum class op : std::uint8_t {
    /* calls of the library */
    connect,
    disconnect,
    create,
    update,
    remove,
    root,
    port_request,
    vid_map,
    protect,
    /* what the L2VPN process and its link do */
    process_up,
    process_down,
    process_restart,
    event,
    inject,
    automatic, /* the process answers creates, deletes, roots and JOINs from now on, or no more */
    /* time and delivery */
    run,
    turn,
    advance,
    jump,
    post,
    /* the platform */
    fail,
    heal,
    gate,    /* of the debug messages */
    compact, /* whether compact records are wanted */
    mtu,
    enforce_mtu,
    shuffle, /* of timers that expire together */
    /* steps within steps */
    react,  /* the next callback of the class takes the inner step */
    calm,   /* forgets these */
    die,    /* the inner steps in a process of their own, which ends in a fatal assertion, or not */
    resync, /* hands the class's inventory over anew, and looks what the process holds */
    count_
};
inline constexpr std::size_t op_count = static_cast<std::size_t>(op::count_);

[[nodiscard]] const char *name_of(op what);

/* Whether it is a call of the library. */
[[nodiscard]] constexpr bool is_call(op what)
{
    return what >= op::connect && what <= op::protect;
}

/* Which client a call is for. */
enum class whom : std::uint8_t { current, stale, null, bogus, count_ };

/* What is odd about a connect. */
enum class oddity : std::uint8_t {
    none,
    nodeid,
    invalid_nodeid,
    no_callbacks,
    no_evm,
    class_too_large,
    no_hd,
    no_status_cb,
    another_evm, /* fatal once the library is initialised */
    count_
};

/* What is odd about the arrays of a request, as bits. */
inline constexpr std::uint32_t null_first = 1;  /* the handles, or the MSTP records */
inline constexpr std::uint32_t null_second = 2; /* the definitions */
inline constexpr std::uint32_t null_third = 4;  /* the information */
inline constexpr std::uint32_t handle_of_0 = 8; /* among the handles, so that the platform refuses them */
inline constexpr std::uint32_t handle_of_ones = 16;

/* Bits of a gate. */
inline constexpr std::uint32_t gate_disabled = 1;
inline constexpr std::uint32_t gate_untraced = 2;
inline constexpr std::uint32_t gate_null_enabled = 4;
inline constexpr std::uint32_t gate_null_traced = 8;

/* So many times the limit of the moment, and so many more. */
struct amount {
    std::uint32_t limits = 0;
    std::int32_t more = 0;
};

struct step {
    op what = op::run;
    std::uint32_t class_id = 0;
    whom client = whom::current;
    std::uint32_t variant = 0; /* an oddity, array bits, gate bits, an event's number, a code, yes or no */
    std::uint32_t flags = 0;   /* of a request; bit N of a connect: the N-th callback is null; an argument */
    std::uint64_t value = 0;   /* content, node id, nanoseconds, MTU, status, bogus handle */
    amount size{};
    fn function = fn::count_; /* to fail: from its `size.more`-th call, for good with a variant */
    bytes message{};
    std::optional<std::uint32_t> class_argument{};
    std::vector<step> inner{};
};

/* One line, for people. */
[[nodiscard]] std::string to_string(const step &what);

/* The scenario of a seed, of about `length` steps. */
[[nodiscard]] std::vector<step> generate(std::uint64_t seed, std::uint32_t length);

/* A message of the process, sound or not, that is safe to deliver to any client: it never has data of a
 * class without a layout. (generate_message.cpp) */
class random_source;
[[nodiscard]] step random_message(random_source &random, std::uint32_t class_id);

/* A provision message whose data has a length that is right, whether or not there is a layout. */
[[nodiscard]] bytes provision_message(random_source &random, std::uint32_t class_id, std::uint32_t bulk,
                                      std::uint32_t flags);

} // namespace simulation

#endif
