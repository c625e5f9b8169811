/*
 * The L2VPN process and an owner of its on the Linux platform, to be measured together: where they meet, what both
 * spend on a request, and what memory they take for it.
 */
#ifndef BENCH_L2VPND_H
#define BENCH_L2VPND_H

#include "job.h"

#include <platform/event_loop.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <sys/types.h>

inline constexpr long acs_max = 2000000;

/* Errors are thrown, so that on the way out the process is ended and the folder removed. */
[[noreturn]] void fail(const std::string &what);

/* Where the process and its owners meet, until the end of this object. */
class folder {
public:
    folder();
    ~folder();
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;

private:
    char name_[26] = "/tmp/l2vpn-bench.XXXXXX";
};

/* l2vpnd, until the end of this object. */
class process {
public:
    explicit process(const char *program, bool records = true);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    /* Waits until it has nothing to do any more, but for a minute at most. */
    void settle() const;

    double cpu_ns() const;
    double user_ticks() const;
    double system_ticks() const;
    double resident() const; /* in bytes */

private:
    std::string proc(const char *file) const;

    pid_t id_;
};

/* Has the machine hold so much free memory. Where it is a virtual one, its host may have taken back what was free for
 * a while, and giving it again costs several times what is measured here. */
void warm_memory(size_t bytes);
inline constexpr size_t bytes_an_ac = 1024; /* in the process: less */

/* What the process spends from here on. */
class watch {
public:
    /* When it has nothing to do. */
    explicit watch(const process &of);

    struct spent {
        double cpu_ms, user_ticks, system_ticks, bytes_before, bytes_after;
    };
    /* Until it has nothing to do. */
    spent finish() const;

private:
    const process &of_;
    double cpu_ns_, user_ticks_, system_ticks_, resident_;
};

/* The owner that this program is. Made when its arrays are there: what memory it takes from then on is counted. */
class linked_owner {
public:
    linked_owner();

    l2vpn_ac_client_hd_t client() const { return client_; }
    double resident() const { return resident_; } /* at first, in bytes */
    void wait_for(bool up);

private:
    double resident_;
    event_mgr_p events_;
    l2vpn_ac_client_hd_t client_ = nullptr;
};

struct operation {
    const char *name;
    qerrno (*request)(l2vpn_ac_client_hd_t client, create_job &job);
};
std::span<const operation> operations(); /* create, update, delete */

/* What a request costs its owner: time, the thread's own part of it, and the most memory beside the arrays. */
struct own_cost {
    double ms, cpu_ms, bytes;
};
own_cost make(const operation &op, const linked_owner &by, create_job &job);

/* Both, to be written down. Ticks are coarse: they only tell how the clock's time divides. */
nlohmann::ordered_json figures(const operation &op, const own_cost &own, const watch::spent &spent);

inline double milliseconds(std::chrono::steady_clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

#endif
