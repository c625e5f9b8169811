/*
 * Calls of the C library, and allocations, that fail to order in the program that calls.cpp is linked into. An
 * order is for the thread that gave it, and for as long as it lives; only calls that can fail count.
 */
#ifndef TESTS_UNIT_FAILING_CALLS_H
#define TESTS_UNIT_FAILING_CALLS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace failing {

/* What an allocation is called. */
inline constexpr std::string_view allocation = "new";

struct failure {
    std::string_view call; /* empty: nothing has failed */
    int cause = 0;
};

class order {
public:
    /* The `at`-th call from now on fails, whichever it is, with an errno of its own. A few calls fail only when
     * they are ordered by their name. */
    explicit order(unsigned at) : m_left(at) {}
    /* The `at`-th such call fails so, and the next ones behind it, whichever they are, as often as `then` says. */
    order(std::string_view call, int cause, unsigned at = 1, unsigned then = 0)
        : m_call(call), m_cause(cause), m_left(at), m_then(then)
    {
    }
    order(const order &) = delete;
    order &operator=(const order &) = delete;
    ~order() { end(); }

    void begin();
    void end();
    [[nodiscard]] const failure &failed() const { return m_failed; }
    /* All of it was carried out. */
    [[nodiscard]] bool is_done() const { return m_left == 0 && m_then == 0; }

    /* Asked by the calls: the errno that this one fails with, 0: it does not. */
    int cause_for(std::string_view call);

private:
    std::string_view m_call;
    int m_cause = 0;
    unsigned m_left;
    unsigned m_then = 0;
    failure m_failed;
};

/* What failed of the calls that `work` makes when the `at`-th of them does. */
template <typename Work>
failure fail_at(unsigned at, const Work &work)
{
    order ordered(at);
    ordered.begin();
    work();
    ordered.end();
    return ordered.failed();
}

/* The same for one call. */
template <typename Work>
failure fail_call(std::string_view call, int cause, const Work &work)
{
    order ordered(call, cause);
    ordered.begin();
    work();
    ordered.end();
    return ordered.failed();
}

/* For messages. */
std::string text_of(const failure &what);

size_t open_descriptors();

} // namespace failing

#endif
