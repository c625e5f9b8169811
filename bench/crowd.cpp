#include "crowd.h"

#include "l2vpnd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr time_t patience_s = 120;

using steady = std::chrono::steady_clock;

void say(int socket, const own_cost &cost)
{
    if (send(socket, &cost, sizeof cost, MSG_NOSIGNAL) != sizeof cost)
        fail("nobody listens to an owner");
}

void wait_for_go(int socket)
{
    char go;
    if (recv(socket, &go, sizeof go, 0) != sizeof go)
        fail("nobody lets an owner go on");
}

/* An owner's life. The arrays that requests are not to share are copied before; the information is only read. */
void live(int socket, create_job &job, uint32_t number)
{
    job.definitions = std::vector<l2vpn_ac_defn_t>(job.definitions);
    for (ifhtype &handle : job.handles)
        handle += number * job.count;
    linked_owner self;
    self.wait_for(true);
    say(socket, {});
    for (const operation &op : operations()) {
        wait_for_go(socket);
        say(socket, make(op, self, job));
    }
    wait_for_go(socket); /* never: the end comes first */
}

/* An owner's process, until the end of this object. */
class member {
public:
    member(create_job &job, uint32_t number)
    {
        int ends[2];
        const timeval patience = {patience_s, 0};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0 ||
            setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0)
            fail("socketpair: " + std::string(strerror(errno)));
        socket_ = ends[0];
        id_ = fork();
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); /* other members have this end, too: it does not tell the end */
            close(ends[0]);
            try {
                live(ends[1], job, number);
            } catch (const std::exception &error) {
                warnx("owner %u: %s", number, error.what());
            }
            _exit(1); /* whatever there is besides is not this process's */
        }
        close(ends[1]);
        if (id_ < 0) {
            close(socket_);
            fail("fork: " + std::string(strerror(errno)));
        }
    }
    ~member()
    {
        close(socket_);
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    member(const member &) = delete;
    member &operator=(const member &) = delete;

    void go() const
    {
        if (send(socket_, "", 1, MSG_NOSIGNAL) != 1)
            fail("an owner has ended");
    }
    own_cost done() const
    {
        own_cost cost;
        if (recv(socket_, &cost, sizeof cost, 0) != sizeof cost)
            fail("an owner has ended, or takes too long");
        return cost;
    }

private:
    pid_t id_;
    int socket_;
};

} // namespace

nlohmann::ordered_json measure_crowd(const char *program, uint32_t owners, uint32_t acs)
{
    const folder runtime;
    setenv("L2VPN_SEND_TIMEOUT_MS", "60000", 1); /* each waits for all others */
    const process by(program);
    create_job job(0, 65536, acs);
    std::vector<std::unique_ptr<member>> all;
    for (uint32_t i = 0; i < owners; ++i)
        all.push_back(std::make_unique<member>(job, i));
    for (const auto &each : all)
        each->done();

    warm_memory(size_t{owners} * acs * bytes_an_ac);
    nlohmann::ordered_json requests;
    for (const operation &op : operations()) {
        const watch spending(by);
        const steady::time_point begin = steady::now();
        for (const auto &each : all)
            each->go();
        own_cost most = {}, sum = {};
        for (const auto &each : all) {
            const own_cost cost = each->done();
            most = {std::max(most.ms, cost.ms), 0, std::max(most.bytes, cost.bytes)};
            sum.cpu_ms += cost.cpu_ms;
        }
        const double total = milliseconds(steady::now() - begin);
        requests.push_back(figures(op, {total, sum.cpu_ms, most.bytes}, spending.finish()));
        requests.back()["longest_ms"] = most.ms;
    }
    return {{"owners", owners}, {"acs", acs}, {"requests", std::move(requests)}};
}
