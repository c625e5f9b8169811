/*
 * The small pieces, by Google Benchmark: spanning-tree requests, the conversion of provisioned data, and the
 * fixed cost of a request.
 */
#include "client.h"
#include "counting_platform.h"
#include "drain.h"
#include "job.h"
#include "messages.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

constexpr uint32_t mtu = 65536;

template <typename T>
void memcpy_of(benchmark::State &state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const std::vector<T> from(count);
    std::vector<T> to(count);
    for (auto _ : state) {
        memcpy(to.data(), from.data(), count * sizeof(T));
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
}

template <typename T, qerrno (*request)(l2vpn_ac_client_hd_t, uint32_t, T *, uint32_t)>
void library(benchmark::State &state)
{
    const bench_client client(0, mtu);
    std::vector<T> records(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        must(request(client.handle(), 0, records.data(), static_cast<uint32_t>(records.size())), "request");
}

/* The same, each message given to the kernel; and the kernel's send of ready-made ones. */
template <typename T, qerrno (*request)(l2vpn_ac_client_hd_t, uint32_t, T *, uint32_t)>
void library_sent(benchmark::State &state, drain &socket)
{
    socket.fit(mtu);
    counting::set_outlet(&socket);
    library<T, request>(state);
    counting::set_outlet(nullptr);
}

template <typename T, qerrno (*request)(l2vpn_ac_client_hd_t, uint32_t, T *, uint32_t)>
void ready_sent(benchmark::State &state, drain &socket)
{
    messages ready;
    {
        const bench_client client(0, mtu);
        std::vector<T> records(static_cast<size_t>(state.range(0)));
        counting::set_outlet(&ready);
        must(request(client.handle(), 0, records.data(), static_cast<uint32_t>(records.size())), "request");
        counting::set_outlet(nullptr);
    }
    socket.fit(mtu);
    for (auto _ : state)
        ready.put_all(socket);
}

/* One of the requests that send an array: alone, sent, its messages sent, and a copy of the records. */
template <typename T, qerrno (*request)(l2vpn_ac_client_hd_t, uint32_t, T *, uint32_t)>
void register_mstp(const std::string &name, drain &socket, int64_t count)
{
    using namespace benchmark;
    const auto with_socket = [&socket](void (*run)(State &, drain &)) {
        return [&socket, run](State &state) { run(state, socket); };
    };
    RegisterBenchmark((name + "/library").c_str(), library<T, request>)->Arg(count);
    RegisterBenchmark((name + "/memcpy").c_str(), memcpy_of<T>)->Arg(count);
    RegisterBenchmark((name + "/library and send").c_str(), with_socket(library_sent<T, request>))
        ->Arg(count);
    RegisterBenchmark((name + "/send").c_str(), with_socket(ready_sent<T, request>))->Arg(count);
}

/* To the wire and back, as one writes it down. */
void plain_vid_map(benchmark::State &state)
{
    std::vector<l2vpn_msti_vid_map_t> map(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        for (int direction = 0; direction < 2; ++direction) {
            for (l2vpn_msti_vid_map_t &entry : map) {
                entry.half = __builtin_bswap16(entry.half);
                entry.half2 = __builtin_bswap16(entry.half2);
            }
            benchmark::DoNotOptimize(map.data());
            benchmark::ClobberMemory();
        }
    }
}

void one_create(benchmark::State &state)
{
    const bench_client client(0, mtu);
    create_job job(0, mtu, 1);
    for (auto _ : state) {
        must(l2vpn_ac_create(client.handle(), 0, 1, job.handles.data(), job.definitions.data(),
                             job.infos.data()),
             "create");
    }
}

void one_delete(benchmark::State &state)
{
    const bench_client client(0, mtu);
    create_job job(0, mtu, 1);
    for (auto _ : state)
        must(l2vpn_ac_delete(client.handle(), 0, 1, job.handles.data()), "delete");
}

void protect(benchmark::State &state)
{
    const bench_client client(0, mtu);
    l2vpn_mstp_prot_t record = {};
    for (auto _ : state)
        must(l2vpn_mstp_protect(client.handle(), 0, &record), "protect");
}

/* Beside one client that is there all the time. */
void connect_and_disconnect(benchmark::State &state)
{
    const bench_client first(0, mtu);
    for (auto _ : state)
        const bench_client client(0, mtu);
}

void connect_nodeid_and_disconnect(benchmark::State &state)
{
    const bench_client first(0, mtu);
    l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = [](l2vpn_ac_client_hd_t, uint32_t, uint32_t) { return qerrno{EOK}; };
    for (auto _ : state) {
        l2vpn_ac_client_hd_t client = nullptr;
        must(l2vpn_ac_process_connect_nodeid(counting::evm(), 0, 0, &callbacks, 7, &client), "connect");
        must(l2vpn_ac_process_disconnect(client), "disconnect");
    }
}

/* A message of the L2VPN process's that is a header, or tells of one AC; each time as it came. */
void one_told(benchmark::State &state, uint32_t msg_type, size_t size)
{
    const bench_client client(0, mtu);
    static uint32_t told;
    told = 0;
    on_records([](void *, uint32_t count, const void *) { told += count; }, nullptr);
    const uint32_t wire[] = {htonl(L2VPN_AC_HDR_MARK), htonl(msg_type), htonl(1), 0};
    alignas(8) std::byte message[L2VPN_AC_HDR_LEN + sizeof(l2vpn_ac_bulk_notify_t)] = {};
    for (auto _ : state) {
        memcpy(message, wire, sizeof wire);
        counting::deliver(message, static_cast<uint32_t>(size));
    }
    on_records(nullptr, nullptr);
    must(told == state.iterations() ? EOK : EPROTO, "telling");
}

void one_send(benchmark::State &state, drain &socket, size_t size)
{
    socket.fit(mtu);
    std::vector<char> message(size);
    const iovec piece = {message.data(), size};
    for (auto _ : state)
        socket.put(&piece, 1);
}

} // namespace

int main(int argc, char **argv)
{
    using namespace benchmark;
    drain socket; /* first: it forks */
    for (const int64_t count : {300, 10000}) {
        register_mstp<l2vpn_mstp_req_t, l2vpn_mstp_port_request>("port request", socket, count);
        register_mstp<l2vpn_msti_root_t, l2vpn_mstp_root>("root", socket, count);
    }
    register_mstp<l2vpn_msti_vid_map_t, l2vpn_msti_vid_map>("VLAN map", socket, 4094);
    RegisterBenchmark("VLAN map/plain loop", plain_vid_map)->Arg(4094);
    RegisterBenchmark("create of one/library", one_create)->Arg(1);
    RegisterBenchmark("delete of one/library", one_delete)->Arg(1);
    RegisterBenchmark("protect/library", protect)->Arg(1);
    RegisterBenchmark("connect and disconnect/library", connect_and_disconnect)->Arg(1);
    RegisterBenchmark("connect with a node id and disconnect/library", connect_nodeid_and_disconnect)->Arg(1);
    const auto told = [](uint32_t msg_type, size_t record) {
        return [=](State &state) { one_told(state, msg_type, L2VPN_AC_HDR_LEN + record); };
    };
    RegisterBenchmark("unprovision of one/library", told(L2VPN_AC_MSG_UNPROV, sizeof(ifhtype)))->Arg(1);
    RegisterBenchmark("notice of one/library", told(L2VPN_AC_MSG_BULK_NOTIFY, sizeof(l2vpn_ac_bulk_notify_t)))
        ->Arg(1);
    RegisterBenchmark("header notice/library", told(L2VPN_AC_MSG_HDR_NOTIFY, 0))->Arg(1);
    const auto send = [&socket](size_t size) {
        return [&socket, size](State &state) { one_send(state, socket, size); };
    };
    RegisterBenchmark("create of one/sendmsg", send(656))->Arg(1);
    RegisterBenchmark("delete of one/sendmsg", send(20))->Arg(1);
    RegisterBenchmark("protect/sendmsg", send(88))->Arg(1);

    Initialize(&argc, argv);
    if (ReportUnrecognizedArguments(argc, argv))
        return 2;
    RunSpecifiedBenchmarks();
    return 0;
}
