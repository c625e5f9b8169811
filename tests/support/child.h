/*
 * Programs run by tests: in a folder of their own that goes away, bounded in time, ended by pid.
 */
#ifndef TESTS_SYSTEM_CHILD_H
#define TESTS_SYSTEM_CHILD_H

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace system_test {

using std::chrono::seconds;

// Long enough for a sanitizer build on a busy machine; nothing waits for it to pass.
constexpr seconds patience{60};

class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    std::string write(const std::string &name, const std::string &content) const; // the file's path

private:
    std::string path_;
};

std::string read_file(const std::string &path);

// True as soon as `condition` holds, false when it does not within `limit`.
bool eventually(const std::function<bool()> &condition, seconds limit = patience);

// A running program. Its output goes to files, so that it never waits for a reader.
class child {
public:
    // `program` is a path; `environment` holds NAME=VALUE additions.
    child(const std::string &program, const std::vector<std::string> &arguments,
          const std::vector<std::string> &environment = {});
    ~child(); // SIGKILL, if it still runs
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    std::string out() const;
    std::string err() const;
    bool says(const std::string &text) const; // waits until standard output has it
    // Waits until standard output has a whole line with this in it, and returns what is behind it there.
    std::string line_after(const std::string &text);
    bool running();
    pid_t pid() const { return pid_; }
    void send_signal(int signal);
    // Its exit status; -signal when a signal ended it; -1000 when it had to be killed after `limit`.
    int wait(seconds limit = patience);

private:
    bool reap(bool block);

    temp_dir files_;
    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = -1000;
};

struct result {
    int status;
    std::string out;
    std::string err;
};

result run(const std::string &program, const std::vector<std::string> &arguments,
           const std::vector<std::string> &environment = {});

// The programs of this build, or those in the folder that L2VPN_PROGRAMS names.
std::string binary(const std::string &name);

} // namespace system_test

#endif
