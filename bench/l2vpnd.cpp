#include "l2vpnd.h"

#include "measure.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int patience_ms = 60000;

using steady = std::chrono::steady_clock;

bool s_up;

qerrno on_status(l2vpn_ac_client_hd_t, uint32_t status, uint32_t)
{
    s_up = status == L2VPN_AC_STATUS_UP;
    return EOK;
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

/* A line of what the kernel says of this program, in bytes. */
double own_memory(const char *line)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double kib = 0;
        if (word == line && status >> kib)
            return kib * 1024;
    }
    fail("/proc/self/status: has no " + std::string(line));
}

} // namespace

void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

folder::folder()
{
    if (mkdtemp(name_) == nullptr)
        fail("mkdtemp: " + std::string(strerror(errno)));
    setenv("L2VPN_RUNTIME_DIR", name_, 1);
}

folder::~folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
}

process::process(const char *program, bool records) : id_(fork())
{
    if (id_ < 0)
        fail("fork: " + std::string(strerror(errno)));
    if (id_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM); /* whatever ends the benchmark */
        execl(program, program, "--max-acs", std::to_string(acs_max).c_str(), "--capture",
              records ? "on" : "off", static_cast<char *>(nullptr));
        warn("%s", program);
        _exit(1);
    }
}

process::~process()
{
    kill(id_, SIGTERM);
    waitpid(id_, nullptr, 0);
}

void process::settle() const
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

double process::cpu_ns() const
{
    return number_in(proc("schedstat"));
}

double process::user_ticks() const
{
    return number_in(proc("stat"), 13);
}

double process::system_ticks() const
{
    return number_in(proc("stat"), 14);
}

double process::resident() const
{
    return number_in(proc("statm"), 1) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

std::string process::proc(const char *file) const
{
    return "/proc/" + std::to_string(id_) + "/" + file;
}

void warm_memory(size_t bytes)
{
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("no memory");
    madvise(memory, bytes, MADV_HUGEPAGE);
    memset(memory, 1, bytes);
    munmap(memory, bytes);
}

watch::watch(const process &of) : of_(of)
{
    of.settle();
    cpu_ns_ = of.cpu_ns();
    user_ticks_ = of.user_ticks();
    system_ticks_ = of.system_ticks();
    resident_ = of.resident();
}

watch::spent watch::finish() const
{
    of_.settle();
    return {(of_.cpu_ns() - cpu_ns_) / 1e6, of_.user_ticks() - user_ticks_,
            of_.system_ticks() - system_ticks_, resident_, of_.resident()};
}

linked_owner::linked_owner() : resident_(own_memory("VmRSS:")), events_(event_mgr_new())
{
    static l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = on_status;
    if (events_ == nullptr || l2vpn_ac_process_connect(events_, 0, 0, &callbacks, &client_) != EOK)
        fail("the library does not connect");
}

void linked_owner::wait_for(bool up)
{
    const steady::time_point deadline = steady::now() + std::chrono::milliseconds(patience_ms);
    while (s_up != up && steady::now() < deadline)
        event_mgr_dispatch(events_, 100);
    if (s_up != up)
        fail(up ? "the L2VPN process does not come up" : "the L2VPN process does not go away");
}

std::span<const operation> operations()
{
    static constexpr operation all[] = {
        {"create",
         [](l2vpn_ac_client_hd_t client, create_job &job) {
             return l2vpn_ac_create(client, 0, job.count, job.handles.data(), job.definitions.data(),
                                    job.infos.data());
         }},
        {"update",
         [](l2vpn_ac_client_hd_t client, create_job &job) {
             return l2vpn_ac_update(client, 0, job.count, job.handles.data(), job.infos.data());
         }},
        {"delete", [](l2vpn_ac_client_hd_t client,
                      create_job &job) { return l2vpn_ac_delete(client, 0, job.count, job.handles.data()); }},
    };
    return all;
}

own_cost make(const operation &op, const linked_owner &by, create_job &job)
{
    std::ofstream most("/proc/self/clear_refs");
    if (!(most << "5" << std::flush)) /* the most that was needed is what is needed now */
        fail("/proc/self/clear_refs: cannot be written");
    const double mine = thread_time();
    const steady::time_point begin = steady::now();
    const qerrno status = op.request(by.client(), job);
    const double ms = milliseconds(steady::now() - begin), cpu_ms = (thread_time() - mine) / 1e6;
    if (status != EOK || !s_up)
        fail(std::string(op.name) + " failed");
    return {ms, cpu_ms, own_memory("VmHWM:") - by.resident()};
}

nlohmann::ordered_json figures(const operation &op, const own_cost &own, const watch::spent &spent)
{
    constexpr double mib = 1 << 20;
    const double user = spent.user_ticks / std::max(spent.user_ticks + spent.system_ticks, 1.0);
    return {{"what", op.name},
            {"send_ms", own.ms},
            {"send_cpu_ms", own.cpu_ms},
            {"owner_mib", own.bytes / mib},
            {"store_cpu_ms", spent.cpu_ms},
            {"store_user_ms", spent.cpu_ms * user},
            {"store_system_ms", spent.cpu_ms * (1 - user)},
            {"before_mib", spent.bytes_before / mib},
            {"after_mib", spent.bytes_after / mib}};
}
