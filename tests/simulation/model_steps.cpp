/*
 * How the model takes steps: what they mean for the platform, and for the owners.
 */
#include "model.h"

#include <utility>

namespace simulation {

namespace {

/* Thrown when the subject did not come to a call that the model comes to. */
struct parted {};

} // namespace

void model::take(const step &what, taken_over given)
{
    given_ = std::move(given);
    calls_taken_ = 0;
    contexts_taken_ = 0;
    platform_.begin_step();
    try {
        take_inner(what);
    } catch (const parted &) {
        platform_.say({"a call that was not made", {}});
    }
    if (calls_taken_ != given_.calls.size())
        platform_.say({"calls", {calls_taken_}});
}

const settled &model::next_call(std::size_t &number)
{
    if (calls_taken_ >= given_.calls.size())
        throw parted{};
    number = calls_taken_++;
    return given_.calls[number];
}

void model::take_inner(const step &what)
{
    platform_.seen().hit(what.what);
    if (is_call(what.what)) {
        std::size_t number = 0;
        const settled &call = next_call(number);
        if (call.what != what.what)
            throw parted{};
        take_call(what, call, number);
    } else if (what.what == op::resync) {
        take_resync(what);
    } else if (what.what == op::die) {
        take_death(what);
    } else if (what.what == op::react) {
        reactions_[what.class_id].push_back(what.inner.at(0));
    } else if (what.what == op::calm) {
        reactions_.clear();
    } else {
        take_outside(what);
    }
}

void model::take_call(const step &what, const settled &call, std::size_t number)
{
    platform_.say({"call", {number}, name_of(what.what)});
    event result{"return", {}, name_of(what.what)};
    std::uint64_t handle_number = 0;
    switch (what.what) {
    case op::connect:
        result.numbers = {connect(what, handle_number)};
        result.numbers.push_back(handle_number);
        break;
    case op::disconnect:
        result.numbers = {disconnect(call.handle)};
        break;
    case op::create:
    case op::update:
    case op::remove:
        result.numbers = {ac_request(what, call, number), 1};
        break;
    case op::protect:
        result.numbers = {protect(what, call), 1};
        break;
    default:
        result.numbers = {mstp_request(what, call, number), 1};
        break;
    }
    platform_.say(std::move(result));
}

void model::take_outside(const step &what)
{
    switch (what.what) {
    case op::process_down:
    case op::process_restart:
        platform_.link_down(what.class_id);
        platform_.link_event(what.class_id, 1, what.flags);
        if (what.what == op::process_down)
            break;
        [[fallthrough]];
    case op::process_up:
        platform_.link_up(what.class_id);
        platform_.link_event(what.class_id, 0, what.flags);
        break;
    case op::event:
        platform_.link_event(what.class_id, what.variant, what.flags);
        break;
    case op::inject:
        platform_.inject(what.class_id, what.class_argument.value_or(what.class_id), what.message);
        break;
    case op::automatic:
        platform_.process.set_automatic(what.class_id, what.variant != 0);
        break;
    case op::run:
        deliver_all();
        break;
    case op::turn:
        if (const auto item = platform_.next())
            deliver(*item);
        break;
    case op::advance:
        advance(what.value);
        break;
    case op::jump:
        platform_.jump(what.value);
        break;
    case op::post:
        platform_.post(what.variant);
        break;
    case op::fail:
        platform_.fail(what.function, static_cast<std::uint64_t>(what.size.more), what.variant != 0,
                       static_cast<std::uint32_t>(what.value));
        break;
    case op::heal:
        platform_.heal();
        break;
    case op::gate:
        platform_.gate = what.variant;
        break;
    case op::compact:
        platform_.records_wanted = what.variant == 0;
        break;
    case op::mtu:
        platform_.set_mtu(what.class_id, static_cast<std::uint32_t>(what.value));
        break;
    case op::enforce_mtu:
        platform_.enforce_mtu = what.variant != 0;
        break;
    default:
        platform_.shuffle = what.variant != 0;
        break;
    }
}

/* --- delivery ---------------------------------------------------------------------------------------- */

void model::deliver(const delivery &item)
{
    if (item.what == delivery::posted)
        handle_timers();
    else if (item.what == delivery::link_event)
        handle_event(item);
    else
        handle_message(item);
}

void model::deliver_all()
{
    while (const auto item = platform_.next())
        deliver(*item);
}

void model::advance(std::uint64_t by)
{
    const std::uint64_t end = platform_.now() + by;
    deliver_all();
    for (;;) {
        const std::uint64_t stop = platform_.next_due().value_or(end);
        if (stop >= end)
            break;
        platform_.move_clock(stop);
        deliver_all();
    }
    platform_.move_clock(end);
    deliver_all();
}

void model::call_back(const client &of, const std::string &name, std::vector<std::uint64_t> arguments,
                      bytes data)
{
    event called{"callback", {of.class_id, of.number}, name, std::move(data)};
    called.numbers.insert(called.numbers.end(), arguments.begin(), arguments.end());
    platform_.say(std::move(called));

    std::deque<step> &waiting = reactions_[of.class_id];
    if (in_child_ || waiting.empty())
        return;
    const step reaction = std::move(waiting.front());
    waiting.pop_front();
    hit(depth_ == 0 ? feature::reaction : feature::reaction_within_reaction);
    platform_.spoil();
    ++depth_;
    take_inner(reaction);
    --depth_;
}

/* --- steps of more than one call --------------------------------------------------------------------- */

void model::take_resync(const step &what)
{
    std::size_t number = 0;
    bool known = false;
    step create = what;
    create.what = op::create;
    create.variant = 0;
    for (int i = 0; i < 2; ++i) {
        const settled &call = next_call(number);
        known = find(call.handle) != nullptr;
        take_call(create, call, number);
    }
    const arrays &meant = *given_.calls.at(number).given;
    const std::uint32_t all = inventory_size(what);
    const bool certain = known && platform_.clean();
    if (certain)
        hit(feature::resynced);
    platform_.say(
        {"held",
         {what.class_id,
          certain ? all : platform_.process.holds(what.class_id, meant.first, meant.second, meant.third)}});
}

/* The inner steps are taken by a copy, which then goes the way of the child. */
void model::take_death(const step &what)
{
    coverage unseen;
    model child = *this;
    child.platform_.set_seen(unseen);
    for (auto &[address, one] : child.clients_)
        one = std::make_shared<client>(*one);
    child.in_child_ = true;
    if (what.variant == 1)
        child.platform_.nodeid = invalid_nodeid;
    child.calls_taken_ = 0;

    std::string fate;
    try {
        for (const step &inner : what.inner) {
            if (is_call(inner.what)) {
                child.take_call(inner, given_.calls.at(child.calls_taken_++), 0);
            } else {
                ++child.calls_taken_;
                child.take_outside(inner);
            }
        }
    } catch (const fatal_assertion &assertion) {
        fate = assertion.text;
    }
    calls_taken_ = what.inner.size();

    const bool data = what.inner.at(0).what == op::inject;
    if (fate.empty())
        hit(feature::no_death);
    else if (fate == "size == 0")
        hit(data ? feature::death_by_data : feature::death_by_info);
    else if (fate == "fn != NULL")
        hit(feature::death_by_timer);
    else
        hit(fate.starts_with("evm") ? feature::death_by_evm : feature::death_by_nodeid);
    platform_.say({"fate", {}, fate});
}

} // namespace simulation
