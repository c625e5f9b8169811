/*
 * Requests of the library on the counting platform, each beside a memcpy of as many bytes as it sends. Both
 * run in the same process, interleaved at random; what counts is their ratio.
 */
#include "counting_platform.h"
#include "report.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr l2vpn_ac_class_t class_id = 0;

l2vpn_ac_client_hd_t client()
{
    static const l2vpn_ac_client_hd_t hd = [] {
        static l2vpn_ac_callback_vector_t callbacks = {
            [](l2vpn_ac_client_hd_t, uint32_t, uint32_t) -> qerrno { return EOK; },
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr};
        l2vpn_ac_client_hd_t connected = nullptr;
        if (l2vpn_ac_process_connect(counting::evm(), 0, class_id, &callbacks, &connected) != EOK) {
            std::fputs("l2vpn_bench: the library does not connect\n", stderr);
            std::exit(1);
        }
        return connected;
    }();
    return hd;
}

/* The arrays of a request, touched once so that their pages are there. */
struct arrays {
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;
    std::vector<l2vpn_msti_vid_map_t> map;

    explicit arrays(size_t count) : ifh(count, 7), defns(count), infos(count), map(count) {}
};

struct request {
    const char *name;
    qerrno (*send)(arrays &a, uint32_t count);
};

const request requests[] = {
    {"create",
     [](arrays &a, uint32_t n) {
         return l2vpn_ac_create(client(), 0, n, a.ifh.data(), a.defns.data(), a.infos.data());
     }},
    {"update",
     [](arrays &a, uint32_t n) { return l2vpn_ac_update(client(), 0, n, a.ifh.data(), a.infos.data()); }},
    {"delete", [](arrays &a, uint32_t n) { return l2vpn_ac_delete(client(), 0, n, a.ifh.data()); }},
    {"vid_map", [](arrays &a, uint32_t n) { return l2vpn_msti_vid_map(client(), 0, a.map.data(), n); }},
};

void run_request(benchmark::State &state, const request &request, uint32_t count)
{
    arrays a(count);
    for (auto _ : state) {
        if (request.send(a, count) != EOK)
            state.SkipWithError("the request failed");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}

void run_memcpy(benchmark::State &state, const request &request, uint32_t count)
{
    arrays a(count);
    counting::take();
    request.send(a, count);
    const size_t size = counting::take().bytes;
    std::vector<char> from(size, 1), to(size, 2);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), size);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}

} // namespace

int main(int argc, char **argv)
{
    for (const uint32_t count : {1u, 300u, 10000u}) {
        for (const request &request : requests) {
            const std::string suffix = std::string(request.name) + "/" + std::to_string(count);
            benchmark::RegisterBenchmark(("library/" + suffix).c_str(), run_request, request, count);
            benchmark::RegisterBenchmark(("memcpy/" + suffix).c_str(), run_memcpy, request, count);
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.print() ? 0 : 1;
}
