/*
 * l2vpn_bench_process L2VPND ACS FILE: an owner on the Linux platform hands ACs to the L2VPN process, which decodes
 * and stores them; a few times, to a fresh process each. Adds what that cost both, the process's memory, and what the
 * ring of the owner's latest messages adds to a small request, to the figures in FILE.
 */
#include "job.h"
#include "measure.h"

#include <platform/config.h>
#include <platform/event_loop.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
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

/* Errors are thrown, so that on the way out the process is ended and the folder removed. */
[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

double number_in(const std::string &path, int skip = 0)
{
    std::ifstream file(path);
    std::string word;
    for (int i = 0; i <= skip; ++i) {
        if (!(file >> word))
            fail(path + ": cannot be read");
    }
    return std::stod(word);
}

/* Where the process and its owner meet, until the end of this object. */
class folder {
public:
    folder()
    {
        if (mkdtemp(name_) == nullptr)
            fail("mkdtemp: " + std::string(strerror(errno)));
        setenv("L2VPN_RUNTIME_DIR", name_, 1);
    }
    ~folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(name_, ignored);
    }
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;

private:
    char name_[26] = "/tmp/l2vpn-bench.XXXXXX";
};

/* l2vpnd, until the end of this object. */
class process {
public:
    explicit process(const char *program) : id_(fork())
    {
        if (id_ < 0)
            fail("fork: " + std::string(strerror(errno)));
        if (id_ == 0) {
            execl(program, program, "--max-acs", std::to_string(acs_max).c_str(),
                  static_cast<char *>(nullptr));
            warn("%s", program);
            _exit(1);
        }
    }
    ~process()
    {
        kill(id_, SIGTERM);
        waitpid(id_, nullptr, 0);
    }
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    double cpu_ns() const { return number_in(proc("schedstat")); }
    double user_ticks() const { return number_in(proc("stat"), 13); }
    double system_ticks() const { return number_in(proc("stat"), 14); }
    double resident() const
    {
        return number_in(proc("statm"), 1) * static_cast<double>(sysconf(_SC_PAGESIZE));
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
        fail("l2vpnd is busy without end");
    }

private:
    std::string proc(const char *file) const { return "/proc/" + std::to_string(id_) + "/" + file; }

    pid_t id_;
};

void wait_for(event_mgr_p events, bool up)
{
    const steady::time_point deadline = steady::now() + std::chrono::milliseconds(patience_ms);
    while (s_up != up && steady::now() < deadline)
        event_mgr_dispatch(events, 100);
    if (s_up != up)
        fail(up ? "the L2VPN process does not come up" : "the L2VPN process does not go away");
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
                fail("no ring of messages");
            double begin = 0;
            for (size_t i = 0; i <= requests; ++i) {
                if (i == 1)
                    begin = thread_time(); /* the first one warms */
                if (l2vpn_ac_update(client, 0, 1, job.handles.data(), job.infos.data()) != EOK)
                    fail("update failed");
            }
            times[on].push_back((thread_time() - begin) / requests);
        }
    }
    for (std::vector<double> &of : times)
        std::sort(of.begin(), of.end());
    return {{"off_ns", times[false][rounds / 4]}, {"on_ns", times[true][rounds / 4]}};
}

/* Has the machine hold so much free memory. Where it is a virtual one, its host may have taken back what was free for
 * a while, and giving it again costs several times what is measured here. */
void warm_memory(size_t bytes)
{
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("no memory");
    madvise(memory, bytes, MADV_HUGEPAGE);
    memset(memory, 1, bytes);
    munmap(memory, bytes);
}

/* What one create cost. */
struct cost {
    double send_ms, send_cpu_ms, store_cpu_ms, user_ticks, system_ticks, bytes;
};

cost measure_create(const process &by, l2vpn_ac_client_hd_t client, create_job &job)
{
    constexpr size_t enough_an_ac = 1024;
    by.settle();
    warm_memory(job.count * enough_an_ac);
    const double cpu = by.cpu_ns(), user = by.user_ticks(), system = by.system_ticks(),
                 memory = by.resident(), mine = thread_time();
    const steady::time_point begin = steady::now();
    if (l2vpn_ac_create(client, 0, job.count, job.handles.data(), job.definitions.data(), job.infos.data()) !=
        EOK)
        fail("create failed");
    const std::chrono::duration<double, std::milli> took = steady::now() - begin;
    const double mine_after = thread_time();
    by.settle();
    if (!s_up)
        fail("the link broke");
    return {took.count(),           (mine_after - mine) / 1e6,  (by.cpu_ns() - cpu) / 1e6,
            by.user_ticks() - user, by.system_ticks() - system, by.resident() - memory};
}

nlohmann::ordered_json measure_process(const char *program, uint32_t acs)
{
    const folder runtime;
    const event_mgr_p events = event_mgr_new();
    l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = on_status;
    l2vpn_ac_client_hd_t client = nullptr;
    if (events == nullptr || l2vpn_ac_process_connect(events, 0, 0, &callbacks, &client) != EOK)
        fail("the library does not connect");

    constexpr size_t rounds = 7;
    create_job job(0, 65536, acs);
    std::vector<cost> costs;
    nlohmann::ordered_json ring;
    for (size_t round = 0; round < rounds; ++round) {
        {
            const process by(program);
            wait_for(events, true);
            costs.push_back(measure_create(by, client, job));
            if (round + 1 == rounds)
                ring = measure_ring(client, job);
        }
        wait_for(events, false);
    }
    const auto low = [&costs](double cost::*what) { /* the lower quartile, as everywhere */
                                                    std::ranges::sort(costs, {}, what);
                                                    return costs[rounds / 4].*what;
    };
    /* Ticks are too coarse for one create: they tell how the clock's time divides. */
    double user = 0, system = 0;
    for (const cost &of : costs) {
        user += of.user_ticks;
        system += of.system_ticks;
    }
    const double store = low(&cost::store_cpu_ms), share = user / std::max(user + system, 1.0);
    return {{"acs", acs},
            {"send_ms", low(&cost::send_ms)},
            {"send_cpu_ms", low(&cost::send_cpu_ms)},
            {"store_cpu_ms", store},
            {"store_user_ms", store * share},
            {"store_system_ms", store * (1 - share)},
            {"bytes_per_ac", low(&cost::bytes) / acs},
            {"ring", std::move(ring)}};
}

} // namespace

int main(int argc, char **argv)
try {
    const long acs = argc == 4 ? strtol(argv[2], nullptr, 10) : 0;
    if (acs < 1 || acs > acs_max)
        errx(2, "usage: l2vpn_bench_process L2VPND ACS FILE");
    nlohmann::ordered_json all = nlohmann::ordered_json::parse(std::ifstream(argv[3]), nullptr, false);
    if (!all.is_object())
        fail(std::string(argv[3]) + ": holds no figures");
    all["process"].push_back(measure_process(argv[1], static_cast<uint32_t>(acs)));
    std::ofstream file(argv[3]);
    file << all.dump(1) << '\n';
    if (!file.flush())
        fail(std::string(argv[3]) + ": cannot be written");
    return 0;
} catch (const std::exception &error) {
    errx(1, "%s", error.what());
}
