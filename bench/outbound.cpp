/*
 * Create, update and delete: the library beside a memcpy of the same bytes, the kernel's send of ready-made
 * messages, and its rivals.
 */
#include "client.h"
#include "drain.h"
#include "job.h"
#include "messages.h"
#include "results.h"
#include "rival.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using rivals = std::vector<std::unique_ptr<rival>>;

void create(const bench_client &client, create_job &job)
{
    must(l2vpn_ac_create(client.handle(), 0, job.count, job.handles.data(), job.definitions.data(),
                         job.infos.data()),
         "create");
}

void update(const bench_client &client, create_job &job)
{
    must(l2vpn_ac_update(client.handle(), 0, job.count, job.handles.data(), job.infos.data()), "update");
}

void remove(const bench_client &client, create_job &job)
{
    must(l2vpn_ac_delete(client.handle(), 0, job.count, job.handles.data()), "delete");
}

/* What a delete has to do, written down plainly: the check of its entries, to the wire, and back. */
void plain_delete(create_job &job, std::vector<l2vpn_ac_data_entry_t> &entries)
{
    entries.resize(job.count);
    for (uint32_t i = 0; i < job.count; ++i)
        entries[i] = {job.handles[i], 0};
    bool refused = false;
    for (const l2vpn_ac_data_entry_t &entry : entries)
        refused = refused || entry.ifh == 0 || entry.ifh == UINT32_MAX;
    must(refused ? EINVAL : EOK, "plain delete");
    for (int direction = 0; direction < 2; ++direction) {
        for (ifhtype &handle : job.handles)
            handle = __builtin_bswap32(handle);
        asm volatile("" : : "r"(job.handles.data()) : "memory"); /* here the messages would be sent */
    }
}

void encode(rival &by, const create_job &job, counting::outlet &to)
{
    const uint32_t each = job.acs_a_create();
    for (uint32_t first = 0; first < job.count; first += each)
        by.create(job, first, std::min(job.count, first + each), to);
}

bool encode_update(rival &by, const create_job &job, counting::outlet &to)
{
    const uint32_t each = job.acs_an_update();
    bool has_one = true;
    for (uint32_t first = 0; has_one && first < job.count; first += each)
        has_one = by.update(job, first, std::min(job.count, first + each), to);
    return has_one;
}

/* Every rival carries what the library carries. */
void verify(const rivals &all, const create_job &job)
{
    for (const auto &by : all) {
        messages encoded;
        encode(*by, job, encoded);
        create_job read(job.class_id, job.mtu, job.count);
        memset(read.handles.data(), 0, read.handles.size() * sizeof(ifhtype));
        memset(read.definitions.data(), 0, read.definitions.size() * sizeof(l2vpn_ac_defn_t));
        memset(read.infos.data(), 0, read.infos.size() * sizeof(l2vpn_ac_info_t));
        for (size_t i = 0; i < encoded.count(); ++i)
            by->read_create(encoded[i], read, static_cast<uint32_t>(i) * job.acs_a_create());
        bool same = read.handles == job.handles;
        for (uint32_t i = 0; i < job.count; ++i) {
            same = same && memcmp(&read.definitions[i], &job.definitions[i], sizeof(l2vpn_ac_defn_t)) == 0 &&
                   memcmp(&read.infos[i], &job.infos[i], job.info_size) == 0;
        }
        if (!same) {
            std::fprintf(stderr, "l2vpn_bench: %s loses data of class %u\n", by->name(), job.class_id);
            std::exit(1);
        }
    }
}

/* The library's messages are those that an encoder of its wire makes: only the flags words differ. */
void verify_same(const messages &made, const messages &expected, const char *name, const create_job &job)
{
    bool same = made.count() == expected.count() && made.size() == expected.size();
    for (size_t i = 0; same && i < made.count(); ++i) {
        same = made[i].size() == expected[i].size() && memcmp(made[i].data(), expected[i].data(), 12) == 0 &&
               memcmp(made[i].data() + 16, expected[i].data() + 16, made[i].size() - 16) == 0;
    }
    if (!same) {
        std::fprintf(stderr, "l2vpn_bench: library and %s do not agree in class %u\n", name, job.class_id);
        std::exit(1);
    }
}

void copy_all(const messages &ready, std::vector<std::byte> &room, nowhere &to)
{
    for (size_t i = 0; i < ready.count(); ++i) {
        memcpy(room.data(), ready[i].data(), ready[i].size());
        const iovec piece = {room.data(), ready[i].size()};
        to.put(&piece, 1);
    }
}

struct operation {
    const char *name;
    void (*request)(const bench_client &client, create_job &job);
};

constexpr operation operations[] = {{"create", create}, {"update", update}, {"delete", remove}};

void measure_job(results &to, drain &socket, const rivals &all, create_job &job, double seconds)
{
    const bench_client client(job.class_id, job.mtu);
    socket.fit(job.mtu);
    nowhere none;
    std::vector<std::byte> room(size_t{job.mtu});
    std::vector<l2vpn_ac_data_entry_t> entries;

    for (const operation &op : operations) {
        messages ready;
        counting::set_outlet(&ready);
        op.request(client, job);
        counting::set_outlet(nullptr);

        std::vector<candidate> candidates = {
            {"library", [&] { op.request(client, job); }},
            {"library and send",
             [&] {
                 counting::set_outlet(&socket);
                 op.request(client, job);
                 counting::set_outlet(nullptr);
             }},
            {"send", [&] { ready.put_all(socket); }},
            {"memcpy", [&] { copy_all(ready, room, none); }},
        };
        if (op.request == create) {
            messages expected;
            encode(*packed_rival(), job, expected);
            verify_same(ready, expected, "packed copy", job);
            for (const auto &by : all)
                candidates.push_back({by->name(), [&] { encode(*by, job, none); }});
        }
        if (op.request == update) {
            for (const auto &by : all) {
                messages expected;
                if (!encode_update(*by, job, expected))
                    continue;
                verify_same(ready, expected, by->name(), job);
                candidates.push_back({by->name(), [&] { encode_update(*by, job, none); }});
            }
        }
        if (op.request == remove)
            candidates.push_back({"plain loops", [&] { plain_delete(job, entries); }});
        to.take(op.name, job.class_id, job.mtu, job.count, candidates, seconds);
    }
}

} // namespace

void measure_outbound(results &to, drain &socket)
{
    struct size {
        uint32_t class_id, mtu, count;
        bool quick;
    };
    /* A message of 1,516 bytes holds no AC of class 8. */
    static constexpr size sizes[] = {
        {0, 65536, 300, true},     {0, 65536, 10000, true},   {0, 65536, 200000, true},
        {0, 9000, 300, true},      {0, 9000, 10000, true},    {0, 9000, 200000, false},
        {0, 1516, 300, true},      {0, 1516, 10000, true},    {0, 1516, 200000, false},
        {7, 65536, 300, true},     {7, 65536, 10000, true},   {7, 65536, 200000, false},
        {7, 9000, 10000, false},   {7, 1516, 10000, false},   {8, 65536, 300, true},
        {8, 65536, 10000, true},   {8, 65536, 200000, false}, {8, 9000, 300, false},
        {8, 9000, 10000, false},   {6, 65536, 300, true},     {6, 65536, 10000, true},
        {6, 65536, 200000, false}, {6, 9000, 10000, false},   {6, 1516, 10000, false},
    };
    const rivals all = all_rivals();
    for (const size &of : sizes) {
        if (!to.wants(of.count, of.quick))
            continue;
        create_job job(of.class_id, of.mtu, of.count);
        if (of.count <= 300)
            verify(all, job);
        measure_job(to, socket, all, job, to.seconds(of.count));
    }
}

/* One class and MTU, from 1 AC to 1,000,000; without rivals: they do not get better with size. */
void measure_growth(results &to, drain &socket)
{
    static constexpr uint32_t counts[] = {1,    3,     10,    30,     100,    300,    1000,
                                          3000, 10000, 30000, 100000, 300000, 1000000};
    const rivals packed = [] {
        rivals only;
        only.push_back(packed_rival());
        return only;
    }();
    for (const uint32_t count : counts) {
        create_job job(0, 65536, count);
        measure_job(to, socket, packed, job, 2.0);
    }
}

/* 10,000 and 1,000,000 in turns with each other, because what else the machine does changes between two jobs. */
void measure_million(results &to)
{
    constexpr uint32_t mtu = 65536;
    struct size {
        create_job job;
        messages ready;
        std::string at;
    };
    size sizes[] = {{{0, mtu, 10000}, {}, " at 10,000"}, {{0, mtu, 1000000}, {}, " at 1,000,000"}};
    const bench_client client(0, mtu);
    std::vector<std::byte> room(mtu);
    nowhere none;
    std::vector<candidate> candidates;
    for (size &of : sizes) {
        counting::set_outlet(&of.ready);
        create(client, of.job);
        counting::set_outlet(nullptr);
        candidates.push_back({"library" + of.at, [&] { create(client, of.job); }});
        candidates.push_back({"memcpy" + of.at, [&] { copy_all(of.ready, room, none); }});
    }
    to.take("growth", 0, mtu, 1000000, candidates, 8.0);
}
