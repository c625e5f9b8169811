/*
 * l2vpn_bench_process L2VPND ACS FILE: an owner on the Linux platform hands ACs to the L2VPN process, which decodes
 * and stores them. Adds what that cost both, the process's memory, and what the ring of the owner's latest messages
 * adds to a small request, to the figures in FILE.
 */
#include "job.h"
#include "measure.h"

#include <platform/config.h>
#include <platform/event_loop.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <err.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int patience_ms = 60000;
constexpr long acs_max = 2000000;

using steady = std::chrono::steady_clock;

bool s_up;

qerrno on_status(l2vpn_ac_client_hd_t, uint32_t status, uint32_t)
{
    s_up = status == L2VPN_AC_STATUS_UP;
    return EOK;
}

double first_number(const std::string &path, int skip = 0)
{
    std::ifstream file(path);
    double number = 0;
    for (int i = 0; i <= skip; ++i) {
        if (!(file >> number))
            errx(1, "%s: cannot be read", path.c_str());
    }
    return number;
}

/* l2vpnd in a folder of its own, until the end of this object. */
class process {
public:
    explicit process(const char *program)
    {
        char name[] = "/tmp/l2vpn-bench.XXXXXX";
        if (mkdtemp(name) == nullptr)
            err(1, "mkdtemp");
        folder_ = name;
        setenv("L2VPN_RUNTIME_DIR", name, 1);
        id_ = fork();
        if (id_ < 0)
            err(1, "fork");
        if (id_ == 0) {
            execl(program, program, "--max-acs", std::to_string(acs_max).c_str(),
                  static_cast<char *>(nullptr));
            err(1, "%s", program);
        }
    }
    ~process()
    {
        kill(id_, SIGTERM);
        waitpid(id_, nullptr, 0);
        std::filesystem::remove_all(folder_);
    }
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    double cpu_ns() const { return first_number(proc("schedstat")); }
    double resident() const
    {
        return first_number(proc("statm"), 1) * static_cast<double>(sysconf(_SC_PAGESIZE));
    }

    /* Waits until it has nothing to do any more, but for a minute at most. */
    void settle() const
    {
        constexpr double busy_ns = 1e6; /* of the 100 ms that are looked at */
        double before = cpu_ns();
        for (int looks = 0; looks < 600; ++looks) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            const double now = cpu_ns();
            if (now - before < busy_ns)
                return;
            before = now;
        }
        errx(1, "l2vpnd is busy without end");
    }

private:
    std::string proc(const char *file) const { return "/proc/" + std::to_string(id_) + "/" + file; }

    std::string folder_;
    pid_t id_;
};

void wait_for_up(event_mgr_p events)
{
    const steady::time_point deadline = steady::now() + std::chrono::milliseconds(patience_ms);
    while (!s_up && steady::now() < deadline)
        event_mgr_dispatch(events, 100);
    if (!s_up)
        errx(1, "the L2VPN process does not come up");
}

/* The owner's own time for an update of one AC, which is one message, with the ring of messages off and on: in
 * turns, the lower quartile of each. */
nlohmann::ordered_json measure_ring(l2vpn_ac_client_hd_t client, create_job &job)
{
    constexpr size_t rounds = 41, requests = 100;
    constexpr uint32_t size_kib = 256, snap = 160; /* what owners have unless told otherwise */
    std::vector<double> times[2];
    for (size_t round = 0; round < rounds; ++round) {
        for (const bool on : {false, true}) {
            if (platform_capture_set(on ? "on" : "off", size_kib, snap) != EOK)
                errx(1, "no ring of messages");
            double begin = 0;
            for (size_t i = 0; i <= requests; ++i) {
                if (i == 1)
                    begin = thread_time(); /* the first one warms */
                if (l2vpn_ac_update(client, 0, 1, job.handles.data(), job.infos.data()) != EOK)
                    errx(1, "update failed");
            }
            times[on].push_back((thread_time() - begin) / requests);
        }
    }
    for (std::vector<double> &of : times)
        std::sort(of.begin(), of.end());
    return {{"off_ns", times[false][rounds / 4]}, {"on_ns", times[true][rounds / 4]}};
}

nlohmann::ordered_json measure_create(const process &of, uint32_t acs)
{
    const event_mgr_p events = event_mgr_new();
    l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = on_status;
    l2vpn_ac_client_hd_t client = nullptr;
    if (events == nullptr || l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client) != EOK)
        errx(1, "the library does not connect");
    wait_for_up(events);

    create_job job(0, 65536, acs);
    of.settle();
    const double cpu_before = of.cpu_ns(), memory_before = of.resident(), mine_before = thread_time();
    const steady::time_point begin = steady::now();
    if (l2vpn_ac_create(client, 0, acs, job.handles.data(), job.definitions.data(), job.infos.data()) != EOK)
        errx(1, "create failed");
    const std::chrono::duration<double, std::milli> took = steady::now() - begin;
    const double mine = thread_time() - mine_before;
    of.settle();
    if (!s_up)
        errx(1, "the link broke");
    const double store = of.cpu_ns() - cpu_before, bytes = of.resident() - memory_before;
    return {{"acs", acs},
            {"send_ms", took.count()},
            {"send_cpu_ms", mine / 1e6},
            {"store_cpu_ms", store / 1e6},
            {"bytes_per_ac", bytes / acs},
            {"ring", measure_ring(client, job)}};
}

} // namespace

int main(int argc, char **argv)
{
    const long acs = argc == 4 ? strtol(argv[2], nullptr, 10) : 0;
    if (acs < 1 || acs > acs_max)
        errx(2, "usage: l2vpn_bench_process L2VPND ACS FILE");
    nlohmann::ordered_json all = nlohmann::ordered_json::parse(std::ifstream(argv[3]), nullptr, false);
    if (!all.is_object())
        errx(1, "%s: holds no figures", argv[3]);
    all["process"].push_back(measure_create(process(argv[1]), static_cast<uint32_t>(acs)));
    std::ofstream file(argv[3]);
    file << all.dump(1) << '\n';
    if (!file.flush())
        errx(1, "%s: cannot be written", argv[3]);
    return 0;
}
