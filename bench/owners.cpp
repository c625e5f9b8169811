/*
 * Many owners in one process, each a client with a thread of its own: how long the longest of them waits for the
 * library's lock, and what memory all need that is not their arrays. Owners in processes of their own share no lock.
 */
#include "client.h"
#include "counting_platform.h"
#include "job.h"
#include "results.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr uint32_t owners = 64;
constexpr uint32_t acs = 20000;

using steady = std::chrono::steady_clock;

/* Of this process, in bytes. */
double peak_memory()
{
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    return static_cast<double>(used.ru_maxrss) * 1024;
}

double milliseconds(steady::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

} // namespace

void measure_owners(results &to)
{
    std::fprintf(stderr, "  %u owners with %u ACs each\n", owners, acs);
    struct owner {
        bench_client client{0, 65536};
        create_job job{0, 65536, acs};
    };
    std::vector<std::unique_ptr<owner>> all;
    for (uint32_t i = 0; i < owners; ++i)
        all.push_back(std::make_unique<owner>());

    counting::longest_wait();
    const double memory_before = peak_memory();
    const steady::time_point begin = steady::now();
    std::vector<std::thread> threads;
    for (const auto &each : all) {
        threads.emplace_back([&client = each->client, &job = each->job] {
            must(l2vpn_ac_create(client.handle(), 0, acs, job.handles.data(), job.definitions.data(),
                                 job.infos.data()),
                 "create");
            must(l2vpn_ac_update(client.handle(), 0, acs, job.handles.data(), job.infos.data()), "update");
            must(l2vpn_ac_delete(client.handle(), 0, acs, job.handles.data()), "delete");
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    const double total = milliseconds(steady::now() - begin);
    to.add("owners", {{"owners", owners},
                      {"acs_each", acs},
                      {"requests", 3 * owners},
                      {"total_ms", total},
                      {"memory_mib", (peak_memory() - memory_before) / (1 << 20)},
                      {"longest_wait_ms", counting::longest_wait() / 1e6}});
}
