/*
 * An owner in a process of its own, forked from the test: it does what it is given, says something, and lives until
 * it is killed, as kill -9 does.
 */
#ifndef TESTS_CAPTURE_FORKED_OWNER_H
#define TESTS_CAPTURE_FORKED_OWNER_H

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace process_test {

class forked_owner {
public:
    /* Returns once the child has closed the descriptor that `be_one` is called with there; so must every other that
     * it has made of it. */
    template <typename Work>
    explicit forked_owner(const Work &be_one)
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            be_one(ends[1]);
            close(ends[1]);
            for (;;) {
                pause();
            }
        }
        close(ends[1]);
        char byte = 0;
        while (read(ends[0], &byte, 1) == 1) {
            m_said += byte;
        }
        close(ends[0]);
    }
    ~forked_owner() { end(); }
    forked_owner(const forked_owner &) = delete;
    forked_owner &operator=(const forked_owner &) = delete;

    void end()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = -1;
    }
    pid_t pid() const { return m_pid; }
    const std::string &said() const { return m_said; }

private:
    pid_t m_pid = -1;
    std::string m_said;
};

} // namespace process_test

#endif
