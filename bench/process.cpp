/*
 * l2vpn_bench_process L2VPND [OWNERSx]ACS FILE: an owner on the Linux platform hands ACs to the L2VPN process, changes
 * and withdraws them; a few times, to a fresh process each. Adds what that cost both, the memory of both, what the
 * rings of the latest messages add, the owner's to a small request and the process's to a large one, and what the platform
 * adds to a sendmsg(), to the figures in FILE. With OWNERS that is what so many of them cost, each a process of its own with so many ACs, all at once.
 */
#include "crowd.h"
#include "l2vpnd.h"
#include "measure.h"
#include "sends.h"

#include <platform/config.h>

#include <algorithm>
#include <cstdlib>
#include <err.h>
#include <fstream>
#include <vector>

namespace {

constexpr long owners_max = 1000;

/* The owner's own time for an update of one AC, which is one message, with the ring of messages off and on: in
 * turns, the lower quartile of each. */
nlohmann::ordered_json measure_ring(const linked_owner &owner, create_job &job)
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
                if (l2vpn_ac_update(owner.client(), 0, 1, job.handles.data(), job.infos.data()) != EOK)
                    fail("update failed");
            }
            times[on].push_back((thread_time() - begin) / requests);
        }
    }
    for (std::vector<double> &of : times)
        std::sort(of.begin(), of.end());
    return {{"what", "update of one AC, the owner's own time"},
            {"off_ns", times[false][rounds / 4]},
            {"on_ns", times[true][rounds / 4]}};
}

/* What one request cost, each time. */
struct costs {
    std::vector<own_cost> own;
    std::vector<watch::spent> spent;

    nlohmann::ordered_json low(const operation &op)
    {
        const auto quartile = [](auto &of, auto what) { /* the lower one, as everywhere */
                                                        std::ranges::sort(of, {}, what);
                                                        return of[of.size() / 4].*what;
        };
        watch::spent by = {quartile(spent, &watch::spent::cpu_ms), 0, 0,
                           quartile(spent, &watch::spent::bytes_before),
                           quartile(spent, &watch::spent::bytes_after)};
        for (const watch::spent &each : spent) {
            by.user_ticks += each.user_ticks;
            by.system_ticks += each.system_ticks;
        }
        return figures(
            op,
            {quartile(own, &own_cost::ms), quartile(own, &own_cost::cpu_ms), quartile(own, &own_cost::bytes)},
            by);
    }
};

nlohmann::ordered_json measure_process(const char *program, uint32_t acs)
{
    const folder runtime;
    constexpr uint32_t usual = 200'000;
    nlohmann::ordered_json sends; /* of sizes of their own: once is enough */
    if (acs <= usual)
        sends = measure_sends(acs <= 300 ? 0 : 1);
    create_job job(0, 65536, acs);
    linked_owner owner;
    const std::span<const operation> all = operations();
    std::vector<costs> measured(all.size());
    costs unrecorded; /* the first operation to a process without a ring */
    nlohmann::ordered_json ring;

    constexpr size_t rounds = 5;
    for (size_t round = 0; round < rounds; ++round) {
        for (const bool records : {true, false}) {
            {
                const process by(program, records);
                owner.wait_for(true);
                by.settle();
                warm_memory(acs * bytes_an_ac);
                for (size_t i = 0; i < (records ? all.size() : 1); ++i) {
                    costs &to = records ? measured[i] : unrecorded;
                    const watch spending(by);
                    to.own.push_back(make(all[i], owner, job));
                    to.spent.push_back(spending.finish());
                    if (records && i == 0 && round + 1 == rounds)
                        ring = measure_ring(owner, job);
                }
            }
            owner.wait_for(false);
        }
    }
    nlohmann::ordered_json requests;
    for (size_t i = 0; i < all.size(); ++i)
        requests.push_back(measured[i].low(all[i]));
    const auto store_ns = [](const nlohmann::ordered_json &of) {
        return of["store_cpu_ms"].get<double>() * 1e6;
    };
    nlohmann::ordered_json rings = {ring,
                                    {{"what", std::string(all[0].name) + " of all, l2vpnd's own time"},
                                     {"off_ns", store_ns(unrecorded.low(all[0]))},
                                     {"on_ns", store_ns(requests[0])}}};
    return {{"acs", acs},
            {"requests", std::move(requests)},
            {"rings", std::move(rings)},
            {"sends", std::move(sends)}};
}

} // namespace

int main(int argc, char **argv)
try {
    long owners = 0, acs = 0;
    if (argc == 4) {
        char *end = nullptr;
        acs = strtol(argv[2], &end, 10);
        const bool many = *end == 'x';
        if (many) {
            owners = acs;
            acs = strtol(end + 1, &end, 10);
        }
        if (*end != '\0' || (many && (owners < 1 || owners > owners_max)) ||
            acs > acs_max / std::max(owners, 1L))
            acs = 0;
    }
    if (acs < 1)
        errx(2, "usage: l2vpn_bench_process L2VPND [OWNERSx]ACS FILE");
    nlohmann::ordered_json all = nlohmann::ordered_json::parse(std::ifstream(argv[3]), nullptr, false);
    if (!all.is_object())
        fail(std::string(argv[3]) + ": holds no figures");
    if (owners == 0)
        all["process"].push_back(measure_process(argv[1], static_cast<uint32_t>(acs)));
    else
        all["crowd"].push_back(
            measure_crowd(argv[1], static_cast<uint32_t>(owners), static_cast<uint32_t>(acs)));
    std::ofstream file(argv[3]);
    file << all.dump(1) << '\n';
    if (!file.flush())
        fail(std::string(argv[3]) + ": cannot be written");
    return 0;
} catch (const std::exception &error) {
    errx(1, "%s", error.what());
}
