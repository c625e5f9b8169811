#include "calls.h"

#include <algorithm>
#include <stdexcept>

namespace l2vpn::sim {

bool core::recorded(fn function, bool failed) const
{
    return set.record && (set.record_reads || failed || !traits_of(function).look_up);
}

function_state &core::state_of(fn function)
{
    const auto number = static_cast<std::size_t>(function);
    if (number >= functions.size())
        throw std::invalid_argument("no function: " + name_of(function));
    return functions[number];
}

void core::add_rule(fn function, std::uint64_t k, bool and_after, qerrno status)
{
    const std::lock_guard guard(lock);
    if (k == 0)
        throw std::invalid_argument(name_of(function) + ": calls are numbered from 1");
    function_state &state = state_of(function);
    state.rules.push_back({state.count + k, and_after, status});
}

std::optional<qerrno> core::count_call(fn function)
{
    function_state &state = state_of(function);
    ++state.count;
    fallible += traits_of(function).fallible ? 1 : 0;

    const auto applies = [](const failure_rule &rule, std::uint64_t number) {
        return number == rule.number || (rule.and_after && number > rule.number);
    };
    std::optional<qerrno> verdict;
    if (state.random && random.chance(state.random->probability))
        verdict = state.random->status;
    const auto rule =
        std::ranges::find_if(state.rules, [&](const auto &r) { return applies(r, state.count); });
    if (rule != state.rules.end())
        verdict = rule->status;
    if (fail_at && traits_of(function).fallible && applies(*fail_at, fallible))
        verdict = fail_at->status;
    return verdict;
}

invocation::invocation(fn function) : function_(function), world_(current_core())
{
    if (world_ == nullptr)
        return;
    const function_state &state = world_->state_of(function);
    std::unique_lock guard(world_->lock);
    if (const auto hook = state.before) {
        guard.unlock();
        (*hook)();
        guard.lock();
    }
    status_ = world_->count_call(function);
    number_ = state.count;
    if (const auto decide = state.decide) {
        guard.unlock();
        const auto answer = (*decide)(number_);
        if (!status_)
            status_ = answer;
    }
}

call *invocation::record(argument_list args, std::int64_t result) const
{
    if (!world_->recorded(function_, failing()))
        return nullptr;
    call &entry = world_->record.emplace_back();
    entry.function = function_;
    entry.number = number_;
    entry.at = world_->now;
    entry.args.assign(args.begin(), args.end());
    entry.result = result;
    entry.failed = failing();
    return &entry;
}

} // namespace l2vpn::sim
