/*
 * An owner in a process of its own, forked from the test: it does what it is given, says something, and lives until
 * it is killed, as kill -9 does.
 */
#ifndef TESTS_CAPTURE_FORKED_OWNER_H
#define TESTS_CAPTURE_FORKED_OWNER_H

#include "forked.h"

namespace process_test {

class forked_owner : public system_test::forked {
public:
    /* Returns once the child has closed the descriptor that `be_one` is called with there; so must every other that
     * it has made of it. */
    template <typename Work>
    explicit forked_owner(const Work &be_one)
        : forked([&be_one](int to) {
              be_one(to);
              close(to);
              return pause(); /* no signal has a handler */
          }),
          m_said(all_it_says())
    {
    }
    const std::string &said() const { return m_said; }

private:
    std::string m_said;
};

} // namespace process_test

#endif
