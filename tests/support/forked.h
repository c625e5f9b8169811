/*
 * A piece of a test in a process of its own, forked from the test's. What it says comes through a pipe. It ends
 * when its work returns, or is killed: with the test at the latest.
 */
#ifndef TESTS_SUPPORT_FORKED_H
#define TESTS_SUPPORT_FORKED_H

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace system_test {

class forked {
public:
    /* What `work`, called with the pipe's end in the child, returns is the exit status. */
    explicit forked(const std::function<int(int to)> &work)
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "no pipe for a child");
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ < 0)
            throw std::system_error(errno, std::generic_category(), "no child");
        if (pid_ == 0) {
            constexpr rlimit no_core{0, 0};
            const bool ready = setrlimit(RLIMIT_CORE, &no_core) == 0 &&
                               prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
            const auto run = [&]() noexcept { return work(ends[1]); }; /* nobody catches out here */
            _exit(ready ? run() : 127);
        }
        close(ends[1]);
        from_ = ends[0];
    }
    ~forked()
    {
        end();
        close(from_);
    }
    forked(const forked &) = delete;
    forked &operator=(const forked &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    /* True as soon as it has said something; false if it ended without. */
    [[nodiscard]] bool is_ready() const
    {
        char told = 0;
        return read(from_, &told, 1) == 1;
    }
    /* What it says until it closes its end of the pipe, or is no more. */
    [[nodiscard]] std::string all_it_says() const
    {
        std::string said;
        std::array<char, 512> room{};
        for (ssize_t got = 0; (got = read(from_, room.data(), room.size())) > 0;)
            said.append(room.data(), static_cast<std::size_t>(got));
        return said;
    }

    /* As kill -9 does. */
    void end()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait();
        }
    }
    /* Its exit status; -signal when a signal ended it. */
    int wait()
    {
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int from_ = -1;
};

} // namespace system_test

#endif
