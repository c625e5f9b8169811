/*
 * One call of a contract function, from its hook to its record: every function goes through here.
 *
 *     before-hook -> count and verdict -> the work, or the failing -> record
 *
 * A call that works under the lock is recorded under the same hold of it, so that the order of the records
 * is the order of the effects. errno is what the work made it when the call returns, whatever the
 * recording did to it.
 */
#ifndef L2VPN_SIM_CALLS_H
#define L2VPN_SIM_CALLS_H

#include "core.h"

#include <cerrno>
#include <type_traits>

namespace l2vpn::sim {

/* The result of functions that return nothing. */
struct nothing {};

template <class Value>
[[nodiscard]] std::uint64_t as_number(Value value)
{
    if constexpr (std::is_pointer_v<Value>)
        return reinterpret_cast<std::uintptr_t>(value);
    else if constexpr (std::is_same_v<Value, nothing>)
        return 0;
    else
        return static_cast<std::uint64_t>(value);
}

/* The arguments of a call, as they are recorded. */
template <class... Values>
[[nodiscard]] std::array<std::uint64_t, sizeof...(Values)> arguments(Values... values)
{
    return {as_number(values)...};
}

using argument_list = std::span<const std::uint64_t>;

class invocation {
public:
    /* Runs the hook, counts the call and asks for its verdict. Takes no lock that it keeps. */
    explicit invocation(fn function);

    /* Null without a world. */
    [[nodiscard]] core *world() const { return world_.get(); }
    [[nodiscard]] bool failing() const { return status_.has_value(); }
    [[nodiscard]] qerrno status() const { return status_.value_or(EOK); }

    /* Under the lock: a record of this call, for what else there is to say; null when none is kept. Valid
     * until the lock is released. */
    call *record(argument_list args, std::int64_t result) const;

    /* What a failing call returns. */
    template <class Result>
    [[nodiscard]] Result failure() const
    {
        if constexpr (std::is_same_v<Result, qerrno>) {
            return status();
        } else if constexpr (std::is_same_v<Result, int>) {
            if (traits_of(function_).result == returns::answer)
                return 0;
            errno = static_cast<int>(status());
            return -1;
        } else {
            return Result{};
        }
    }

private:
    fn function_;
    std::uint64_t number_ = 0;
    std::shared_ptr<core> world_;
    std::optional<qerrno> status_;
};

inline constexpr auto no_details = [](call &) {};

/* A call whose work, `work(core &)`, is done under the lock. Without a world it is `otherwise`. `details`
 * adds to the record. */
template <class Result, class Work, class Details = decltype(no_details)>
Result invoke(fn function, argument_list args, Result otherwise, const Work &work,
              const Details &details = no_details)
{
    const invocation self(function);
    if (self.world() == nullptr)
        return otherwise;
    Result result{};
    int error = 0;
    {
        const std::lock_guard guard(self.world()->lock);
        result = self.failing() ? self.template failure<Result>() : work(*self.world());
        error = errno;
        if (call *entry = self.record(args, static_cast<std::int64_t>(as_number(result))))
            details(*entry);
    }
    errno = error;
    return result;
}

/* The same for work that takes the lock itself when it needs it, or that needs no world. */
template <class Result, class Work>
Result invoke_unlocked(fn function, argument_list args, const Work &work)
{
    const invocation self(function);
    if (self.world() == nullptr)
        return work(nullptr);
    const Result result = self.failing() ? self.template failure<Result>() : work(self.world());
    const std::lock_guard guard(self.world()->lock);
    self.record(args, static_cast<std::int64_t>(as_number(result)));
    return result;
}

} // namespace l2vpn::sim

#endif
