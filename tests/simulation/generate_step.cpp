/*
 * Single steps.
 */
#include "generator.h"

#include <cerrno>
#include <chrono>

namespace simulation {

namespace {

using namespace std::chrono_literals;

struct weight {
    op what;
    std::uint32_t parts;
};

constexpr weight weights[] = {
    {op::connect, 9}, {op::disconnect, 4},  {op::create, 12},      {op::update, 8},
    {op::remove, 7},  {op::root, 6},        {op::port_request, 6}, {op::vid_map, 6},
    {op::protect, 3}, {op::process_up, 7},  {op::process_down, 3}, {op::process_restart, 2},
    {op::event, 2},   {op::inject, 12},     {op::automatic, 2},    {op::run, 7},
    {op::turn, 4},    {op::advance, 8},     {op::jump, 3},         {op::post, 2},
    {op::fail, 12},   {op::heal, 3},        {op::gate, 2},         {op::compact, 1},
    {op::mtu, 4},     {op::enforce_mtu, 1}, {op::shuffle, 1},      {op::react, 12},
    {op::resync, 2},
};

/* What a callback may do; handlers run one at a time, so none of them delivers. */
constexpr weight weights_inside[] = {
    {op::connect, 6},    {op::disconnect, 14},  {op::create, 8},  {op::update, 6},  {op::remove, 6},
    {op::root, 4},       {op::port_request, 4}, {op::vid_map, 4}, {op::protect, 2}, {op::inject, 4},
    {op::process_up, 3}, {op::process_down, 3}, {op::event, 1},   {op::jump, 2},    {op::post, 1},
    {op::fail, 6},       {op::heal, 1},         {op::react, 3},
};

op drawn(random_source &random, std::span<const weight> from)
{
    std::uint32_t sum = 0;
    for (const weight &each : from)
        sum += each.parts;
    std::uint32_t at = random.below(sum);
    for (const weight &each : from) {
        if (at < each.parts)
            return each.what;
        at -= each.parts;
    }
    return op::run;
}

constexpr fn failing_at_init[] = {
    fn::platform_get_my_nodeid,
    fn::event_async_attach_event,
    fn::mgd_timer_tree_new,
    fn::mgd_timer_parent_new,
    fn::wavl_init,
    fn::l2vpn_ipc_client_init,
    fn::l2vpn_debug_init,
};

fn one_of(random_source &random, std::span<const fn> functions)
{
    return functions[random.below(static_cast<std::uint32_t>(functions.size()))];
}

} // namespace

step generator::any()
{
    return make(drawn(random_, weights));
}

step generator::any_inside()
{
    return make(drawn(random_, weights_inside));
}

step generator::make(op what)
{
    const std::uint32_t class_id = some_class();
    switch (what) {
    case op::connect:
        return make_connect(random_.percent(70) ? class_id : random_.below(class_count));
    case op::disconnect:
    case op::create:
    case op::update:
    case op::remove:
    case op::root:
    case op::port_request:
    case op::vid_map:
    case op::protect:
        return request(what, class_id);
    case op::process_up:
    case op::process_down:
    case op::process_restart:
    case op::event: {
        step result = plain(what, class_id);
        result.variant = random_.pick<std::uint32_t>({0, 1, 2, 7, 0xffffffff});
        result.flags = random_.pick<std::uint32_t>({0, 1, 99, 0xffffffff});
        return result;
    }
    case op::inject:
        return random_message(random_, class_id);
    case op::advance:
    case op::jump:
        return plain(what, 0,
                     static_cast<std::uint64_t>(
                         random_
                             .pick<std::chrono::nanoseconds>(
                                 {0s, 1ns, 1s, 1s, 2s, 3'999'999'999ns, 4s, 4s, 5s, 9s, 15s, 60s})
                             .count()));
    case op::post: {
        step result = plain(what, 0);
        result.variant = random_.percent(80) ? 128 : random_.below(200);
        return result;
    }
    case op::fail:
        return failure();
    case op::gate: {
        step result = plain(what, 0);
        result.variant = random_.percent(50) ? 0 : 1U << random_.below(4);
        return result;
    }
    case op::mtu:
        return make_mtu(class_id);
    case op::react: {
        step result = plain(what, class_id);
        result.inner.push_back(any_inside());
        return result;
    }
    default: {
        step result = plain(what, class_id, random_.next());
        result.variant = random_.below(2);
        return result;
    }
    }
}

step generator::make_mtu(std::uint32_t class_id)
{
    if (random_.percent(15))
        return plain(op::mtu, class_id,
                     random_.pick<std::uint32_t>({0, 1, 15, 16, 17, 19, 20, 27, 28, 31, 35, 36, 99, 100}));
    if (random_.percent(60))
        return plain(op::mtu, class_id, 100 + random_.below(2900));
    return plain(op::mtu, class_id,
                 random_.pick<std::uint32_t>({111, 112, 400, 652, 656, 1500, 1516, 9000, 9216, 65536}));
}

step generator::make_connect(std::uint32_t class_id)
{
    step result = plain(op::connect, class_id);
    if (random_.percent(25))
        result.variant = random_.below(static_cast<std::uint32_t>(oddity::another_evm));
    if (random_.percent(30))
        result.flags = random_.below(32) & 0x1e;
    result.value = random_.below(1000);
    return result;
}

step generator::failure()
{
    if (random_.percent(45))
        return failure(random_.pick({fn::l2vpn_ipc_ucast, fn::l2vpn_ipc_ucastv, fn::l2vpn_ipc_ucastv}));
    return failure(one_of(random_, failing));
}

step generator::failure_at_init()
{
    return failure(one_of(random_, failing_at_init));
}

step generator::failure(fn function)
{
    step result = plain(op::fail, 0,
                        random_.pick<std::uint64_t>({2, 5, 11, 12, 22, 32, 90, 105, 107, 110, 4294967295}));
    result.function = function;
    result.size.more = 1 + static_cast<std::int32_t>(random_.below(3));
    result.variant = random_.percent(12) ? 1 : 0;
    const bool may_lie = function == fn::event_async_attach_event || function == fn::l2vpn_ipc_ucast ||
                         function == fn::l2vpn_ipc_ucastv;
    if (may_lie && random_.percent(function == fn::event_async_attach_event ? 40 : 8)) {
        result.value = 0;   /* a failure without a cause; a message that is lost */
        result.variant = 0; /* for good, it would never end a limit of 0 */
    }
    return result;
}

step generator::request(op what, std::uint32_t class_id)
{
    step result = plain(what, class_id, random_.next());
    if (random_.percent(12))
        result.client = random_.pick({whom::stale, whom::null, whom::bogus});
    result.flags = random_.percent(50) ? 0
                                       : random_.pick<std::uint32_t>({1, 2, 3, 4, 8, 0x10, 0x20, 0x30, 0xc,
                                                                      0x100, 0x101, 0x80000002, 0xffffffff});
    result.size = random_.pick<amount>({{0, 0},
                                        {0, 1},
                                        {0, static_cast<std::int32_t>(2 + random_.below(12))},
                                        {1, -1},
                                        {1, 0},
                                        {1, 1},
                                        {2, 0},
                                        {2, 1},
                                        {3, 2}});
    if (random_.percent(10))
        result.variant = 1U << random_.below(5);
    return result;
}

step generator::first_call_of(fn function, std::uint64_t status)
{
    step result = plain(op::fail, 0, status);
    result.function = function;
    result.size.more = 1;
    return result;
}

} // namespace simulation
