#include "generator.h"

#include <utility>

namespace simulation {

namespace {

constexpr std::uint32_t roomy_class = 8; /* the largest information */

} // namespace

generator::generator(std::uint64_t seed) : random_(seed)
{
    const std::uint32_t count = 2 + random_.below(4);
    for (std::uint32_t i = 0; i < count; ++i)
        classes_.push_back(random_.below(class_count));
}

std::uint32_t generator::some_class()
{
    return classes_[random_.below(static_cast<std::uint32_t>(classes_.size()))];
}

step generator::plain(op what, std::uint32_t class_id, std::uint64_t value)
{
    step result;
    result.what = what;
    result.class_id = class_id;
    result.value = value;
    return result;
}

std::vector<step> generator::scenario(std::uint32_t length)
{
    if (random_.percent(15))
        steps_.push_back(make(random_.pick({op::create, op::update, op::root, op::protect, op::post})));
    while (random_.percent(25))
        steps_.push_back(failure_at_init());
    if (random_.percent(20))
        half_initialised();
    for (const std::uint32_t class_id : classes_)
        begin(class_id);
    while (steps_.size() < length) {
        if (random_.percent(4))
            story();
        else
            steps_.push_back(any());
    }
    finish();
    return std::move(steps_);
}

void generator::begin(std::uint32_t class_id)
{
    if (random_.percent(80))
        steps_.push_back(make_mtu(class_id));
    step connect = plain(op::connect, class_id, random_.below(1000));
    connect.variant = static_cast<std::uint32_t>(random_.percent(15) ? oddity::nodeid : oddity::none);
    connect.flags = random_.percent(20) ? random_.below(32) & 0x1e : 0;
    steps_.push_back(connect);
    if (random_.percent(60))
        steps_.push_back(plain(op::process_up, class_id));
    if (random_.percent(50))
        steps_.push_back(plain(op::run, class_id));
}

/* The end of a scenario: all is well again, and what the process holds is what the owners meant. */
void generator::finish()
{
    for (const op what : {op::heal, op::calm, op::gate, op::enforce_mtu, op::run})
        steps_.push_back(plain(what, 0));
    steps_.push_back(plain(op::disconnect, roomy_class));
    steps_.push_back(plain(op::mtu, roomy_class, 65536));
    steps_.push_back(plain(op::connect, roomy_class));
    for (std::uint32_t class_id = 0; class_id < class_count; ++class_id)
        steps_.push_back(plain(op::process_restart, class_id));
    steps_.push_back(plain(op::run, 0));
    for (std::uint32_t class_id = 0; class_id < class_count; ++class_id)
        steps_.push_back(plain(op::resync, class_id, random_.next()));
    steps_.push_back(plain(op::advance, 0, an_hour));
}

std::vector<step> generate(std::uint64_t seed, std::uint32_t length)
{
    return generator(seed).scenario(length);
}

} // namespace simulation
