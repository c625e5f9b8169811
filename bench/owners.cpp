/*
 * Many owners in one process: how long the longest of them waits for the library's lock.
 */
#include "client.h"
#include "counting_platform.h"
#include "job.h"
#include "results.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

constexpr uint32_t owners = 64;
constexpr uint32_t acs = 20000;

using steady = std::chrono::steady_clock;

double milliseconds(steady::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

} // namespace

void measure_owners(results &to)
{
    std::fprintf(stderr, "  %u owners with %u ACs each\n", owners, acs);
    /* One registration: the clients differ in nothing that counts here. */
    const bench_client client(0, 65536);
    std::vector<create_job> jobs;
    jobs.reserve(owners);
    for (uint32_t i = 0; i < owners; ++i)
        jobs.emplace_back(0, 65536, acs);

    counting::longest_wait();
    const steady::time_point begin = steady::now();
    std::vector<std::thread> threads;
    for (create_job &job : jobs) {
        threads.emplace_back([&job, &client] {
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
                      {"longest_wait_ms", counting::longest_wait() / 1e6}});
}
