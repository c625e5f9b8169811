/*
 * A scenario: what one program does with the library, step by step.
 *
 * Clients stand in numbered slots. A step that needs a client uses the slot's handle, null when its connect
 * has failed; what comes from the L2VPN process for a slot without a client is left out. No slot is connected
 * a second time: its first client may still be there when a disconnect has failed.
 */
#ifndef TESTS_TORTURE_SCENARIO_H
#define TESTS_TORTURE_SCENARIO_H

#include <platform/sim.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace torture {

using l2vpn::sim::fn;

inline constexpr unsigned slots = 4;

enum class op {
    connect,
    connect_nodeid,
    disconnect,
    create,
    update,
    remove,
    root,
    port_request,
    vid_map,
    protect,
    event,   /* `number` with `arg` */
    message, /* type `number`, `count` records, `flags`, `payload` bytes */
    advance, /* the clock by `number` seconds */
    refuse,  /* the `number`-th call from now of `function` fails with `status` */
    during,  /* `nested` happens inside the next callback */
    sweep,   /* the harness's own: withdraws what failed clean-ups have left registered */
};

/* An argument that a step gives wrongly. */
enum class wrong { nothing, callbacks, status_cb, event_manager, handle, array };

struct step {
    op what;
    unsigned slot = 0;
    std::uint32_t class_id = 0; /* of a connect; the class argument of a message */
    std::uint32_t flags = 0;
    std::uint32_t count = 0;
    std::uint32_t number = 0;
    std::uint32_t arg = 0;
    std::uint32_t payload = 0;
    bool bare = false; /* a client with status_cb alone */
    wrong argument = wrong::nothing;
    fn function = fn::count_;
    std::uint32_t status = 0;
    std::vector<step> nested = {};
};

std::string to_string(const step &s);

struct scenario {
    std::string name;
    std::uint32_t mtu;
    std::vector<step> steps;
};

std::span<const scenario> scenarios();

/* Throws std::invalid_argument for a name that is none. */
const scenario &scenario_named(const std::string &name);

/* Inbound messages that the library must drop, to be thrown in between any two steps of a scenario. */
struct malformed {
    std::string name;
    step message;
};

std::span<const malformed> malformed_messages();

} // namespace torture

#endif
