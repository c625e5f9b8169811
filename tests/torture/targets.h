/*
 * What can be made to fail: every function of the platform, and the functions of the C library that the AC
 * library uses, with what their failure is.
 */
#ifndef TESTS_TORTURE_TARGETS_H
#define TESTS_TORTURE_TARGETS_H

#include <platform/sim.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace torture {

using l2vpn::sim::fn;

enum class failing {
    fails,  /* a status, a null pointer or a negative number: counts as a call that can fail */
    denies, /* finds nothing, or says no */
    waits,  /* a lock that another thread holds: the call goes on, after a wait */
    dies    /* means corrupted state: the library aborts */
};

struct target {
    std::string_view name;      /* as a command names it */
    failing how;                /* what comes of it */
    std::vector<int> statuses;  /* the statuses, or values of errno, that it is tried with */
    std::optional<fn> function; /* of the platform; nothing: the C library's */
};

/* All of them, and the functions of the platform that cannot fail: together the whole platform. */
std::span<const target> targets();
std::span<const fn> infallible();

const target &target_of(fn function);
/* Throws std::invalid_argument for a name that is none. */
const target &target_named(std::string_view name);

/* The target that stands for all that `fails`, in one sequence. */
inline constexpr std::string_view any_call = "any";

/* One injected failure: of the `at`-th call, or of all from that one on. */
struct plan {
    const target *what; /* null: of any call that can fail */
    std::uint64_t at;
    bool persistently;
    int status;
};

} // namespace torture

#endif
