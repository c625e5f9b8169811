/*
 * The client's end of the control socket: one request, the rows of its answer, its result.
 */
#ifndef L2VPNCTL_CONTROL_LINK_H
#define L2VPNCTL_CONTROL_LINK_H

#include "json.h"

#include <chrono>
#include <functional>
#include <string>

namespace l2vpnctl {

using l2vpnd::json;

enum exit_status {
    exit_ok = 0,
    exit_failed = 1,
    exit_usage = 2,
    exit_unreachable = 3,
    exit_broken = 4,
    exit_unknown = 5,
    exit_ambiguous = 6
};

/* Thrown with one line for people. */
struct failure {
    exit_status status;
    std::string text;
};

/* Of an errno or a status. */
std::string meaning_of(int cause);

/* The control socket under a runtime directory; an empty one is the platform's default. */
std::string control_path(const std::string &runtime_dir);

/* To be thrown where json::exception tells that an answer of the process lacks something, or has it otherwise. */
failure odd_answer(const std::string &path);

class control_link {
public:
    using clock = std::chrono::steady_clock;

    /* Throws failure. From now on everything together takes `patience` at most. */
    control_link(std::string path, std::chrono::milliseconds patience);
    ~control_link();
    control_link(const control_link &) = delete;
    control_link &operator=(const control_link &) = delete;

    /* Calls `row` for each row of the answer and returns its result. Throws failure, also when the process
     * refuses the request; and json::exception. */
    json ask(const std::string &verb, const json &args, const std::function<void(const json &row)> &row);

private:
    /* Throws failure: `why` is what is wrong with the process's answer. */
    [[noreturn]] void broken(const std::string &why) const;
    [[nodiscard]] std::chrono::milliseconds time_left() const;
    void wait_for(short events);
    void send(const std::string &line);
    std::string read_line();

    std::string m_path;
    std::chrono::milliseconds m_patience;
    clock::time_point m_deadline;
    int m_fd = -1;
    std::string m_in;
    size_t m_begin = 0; /* of what is not yet taken in m_in */
};

} // namespace l2vpnctl

#endif
