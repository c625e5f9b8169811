/*
 * A program run by a test: its environment is the given one and nothing else, its output is collected, its
 * life is bounded.
 */
#ifndef TESTS_PLATFORM_CHILD_H
#define TESTS_PLATFORM_CHILD_H

#include "temp_folder.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace child_test {

struct outcome {
    int status = -1; /* as waitpid() gives it */
    std::string out;
    std::string err;

    [[nodiscard]] int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
    [[nodiscard]] int signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }
};

class child {
public:
    /* `largest_file`, when given, limits the size of the files that it may write. */
    child(std::vector<std::string> command, std::vector<std::string> environment, rlim_t largest_file = 0)
    {
        // The sanitizers' own settings are not what is tested.
        for (const char *name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char *value = std::getenv(name); value != nullptr) {
                environment.push_back(std::string(name) + "=" + value);
            }
        }
        std::array<int, 2> out{};
        std::array<int, 2> err{};
        EXPECT_EQ(::pipe2(out.data(), O_CLOEXEC), 0);
        EXPECT_EQ(::pipe2(err.data(), O_CLOEXEC), 0);
        const auto arguments = pointers(command);
        const auto variables = pointers(environment);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(err[1], STDERR_FILENO);
            if (largest_file != 0) {
                const rlimit limit{.rlim_cur = largest_file, .rlim_max = largest_file};
                ::setrlimit(RLIMIT_FSIZE, &limit);
            }
            const rlimit no_core{.rlim_cur = 0, .rlim_max = 0};
            ::setrlimit(RLIMIT_CORE, &no_core);
            ::execve(arguments[0], arguments.data(), variables.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        fds_ = {out[0], err[0]};
    }
    ~child()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (const int fd : fds_) {
            ::close(fd);
        }
    }
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    /* Waits for a whole line on its standard output that begins with `start`, and returns the rest of it. */
    std::string line_after(const std::string &start)
    {
        while (true) {
            if (const auto found = collected_[0].find(start); found != std::string::npos) {
                const auto end = collected_[0].find('\n', found);
                if (end != std::string::npos) {
                    return collected_[0].substr(found + start.size(), end - found - start.size());
                }
            }
            if (!collect()) {
                ADD_FAILURE() << "no line \"" << start << "\": " << collected_[0] << collected_[1];
                return "";
            }
        }
    }

    void kill(int signal) const { ::kill(pid_, signal); }

    /* Waits for its end. */
    outcome wait()
    {
        while (collect()) {
        }
        outcome result{.out = collected_[0], .err = collected_[1]};
        ::waitpid(pid_, &result.status, 0);
        pid_ = -1;
        return result;
    }

private:
    static std::vector<char *> pointers(std::vector<std::string> &texts)
    {
        std::vector<char *> all;
        for (std::string &text : texts) {
            all.push_back(text.data());
        }
        all.push_back(nullptr);
        return all;
    }

    /* Reads some; false when both outputs have ended, or it takes too long: then the child is killed. */
    bool collect()
    {
        std::array<pollfd, 2> polled{};
        bool open = false;
        for (std::size_t index = 0; index < 2; ++index) {
            polled[index] = {.fd = ended_[index] ? -1 : fds_[index], .events = POLLIN, .revents = 0};
            open = open || !ended_[index];
        }
        if (!open) {
            return false;
        }
        if (::poll(polled.data(), polled.size(), 30'000) == 0) {
            ADD_FAILURE() << "the child takes too long";
            ::kill(pid_, SIGKILL);
            return false;
        }
        for (std::size_t index = 0; index < 2; ++index) {
            if (polled[index].revents == 0) {
                continue;
            }
            std::array<char, 4096> bytes{};
            const ssize_t length = ::read(fds_[index], bytes.data(), bytes.size());
            if (length > 0) {
                collected_[index].append(bytes.data(), static_cast<std::size_t>(length));
            } else {
                ended_[index] = true;
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    std::array<int, 2> fds_{-1, -1};
    std::array<bool, 2> ended_{};
    std::array<std::string, 2> collected_;
};

inline outcome run(std::vector<std::string> command, std::vector<std::string> environment = {},
                   rlim_t largest_file = 0)
{
    return child(std::move(command), std::move(environment), largest_file).wait();
}

/* A directory that goes with the test. */
class directory {
public:
    directory() = default;
    ~directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_ = new_temp_folder();
};

} // namespace child_test

#endif
