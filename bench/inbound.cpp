/*
 * Provision: from received messages to records in the owner's callback, beside the decoders of the rivals. One message,
 * as large as the MTU allows; and messages of many ACs, each another one: from memory, and received from a socket that
 * another process fills. A rival's records are used again for the next message; the library's are allocated, zeroed, for each.
 */
#include "client.h"
#include "deliveries.h"
#include "job.h"
#include "results.h"
#include "rival.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

/* Records to decode into: for a whole message, and for the last one, which may be smaller. */
class records {
public:
    records(uint32_t class_id, uint32_t each, uint32_t acs)
        : each_(each), acs_(acs), whole_(class_id, std::min(each, acs)),
          last_(class_id, acs % each == 0 ? std::min(each, acs) : acs % each)
    {
    }

    uint32_t messages() const { return (acs_ + each_ - 1) / each_; }
    provision_job &of(size_t message) { return message + 1 == messages() ? last_ : whole_; }

private:
    uint32_t each_, acs_;
    provision_job whole_, last_;
};

/* The library decodes to what the message was made of. */
void verify(const provision_job &job, std::vector<uint64_t> &message, size_t size)
{
    struct {
        const provision_job &expected;
        bool right;
    } seen = {job, false};
    on_provisioned(
        [](void *context, uint32_t count, const ifhtype *handles, const l2vpn_ac_xcid_data_t *data) {
            auto &of = *static_cast<decltype(seen) *>(context);
            of.right = of.expected.is(count, handles, data);
        },
        &seen);
    counting::deliver(message.data(), static_cast<uint32_t>(size));
    on_provisioned(nullptr, nullptr);
    must_decode(seen.right, "library", job.class_id);
}

void add(deliveries &to, const provision_job &job)
{
    size_t size = 0;
    std::vector<uint64_t> message = packed_rival()->provision(job, size);
    to.add(message, size);
    verify(job, message, size);
}

/* A rival with its own messages. */
struct rival_stream {
    std::unique_ptr<rival> by;
    stream messages;

    void add(const provision_job &job, provision_job &read)
    {
        size_t size = 0;
        const std::vector<uint64_t> message = by->provision(job, size);
        messages.add(message, size);
        memset(read.data.data(), 0xff, read.count * sizeof read.data[0]);
        decode({reinterpret_cast<const std::byte *>(message.data()), size}, read);
        must_decode(job.is(read.count, read.handles.data(), read.data.data()), by->name(), job.class_id);
    }

    void decode(std::span<const std::byte> message, provision_job &read) const
    {
        must_decode(by->read_provision(message, read), by->name(), read.class_id);
    }
};

std::vector<rival_stream> rival_streams()
{
    std::vector<rival_stream> all;
    for (auto &by : all_rivals())
        all.push_back({std::move(by), {}});
    return all;
}

/* What is received is what was to be sent, in its order. */
void verify_received(filler &by, stream &expected)
{
    for (size_t i = 0; i < expected.count(); ++i) {
        const std::span<const std::byte> taken = by.take();
        if (!std::ranges::equal(taken, expected[i])) {
            std::fprintf(stderr, "l2vpn_bench: message %zu was received as another one\n", i);
            std::exit(1);
        }
    }
}

/* And comes to the owner: what the library drops is soon done. */
void verify_delivered(filler &by, uint32_t messages, uint32_t acs, uint32_t class_id)
{
    uint32_t seen = 0;
    on_provisioned([](void *context, uint32_t count, const ifhtype *,
                      const l2vpn_ac_xcid_data_t *) { *static_cast<uint32_t *>(context) += count; },
                   &seen);
    for (uint32_t i = 0; i < messages; ++i)
        deliveries::deliver(by.take());
    on_provisioned(nullptr, nullptr);
    must_decode(seen == acs, "library", class_id);
}

/* One message, again and again. */
void measure_message(results &to, uint32_t class_id, uint32_t mtu, uint32_t data_size)
{
    const bench_client client(class_id, mtu);
    const provision_job job(class_id, provision_job::acs_a_message(class_id, mtu));
    provision_job read(class_id, job.count);
    deliveries library;
    add(library, job);
    std::vector<std::byte> room(library.messages().longest());
    std::vector<candidate> candidates = {
        {"library", [&] { library.deliver_all(); }},
        {"memcpy", [&] { copy_all(library.messages(), room); }},
        {"copy and zero fill",
         [&] {
             memset(read.data.data(), 0, job.count * sizeof(l2vpn_ac_xcid_data_t));
             asm volatile("" : : "r"(read.data.data()) : "memory");
             for (uint32_t i = 0; i < job.count; ++i)
                 memcpy(&read.data[i], &job.data[i], data_size);
             asm volatile("" : : "r"(read.data.data()) : "memory");
         }},
    };
    std::vector<rival_stream> rivals = rival_streams();
    for (rival_stream &by : rivals) {
        by.add(job, read);
        candidates.push_back({by.by->name(), [&] { by.decode(by.messages[0], read); }});
    }
    to.take("provision", class_id, mtu, job.count, candidates, to.seconds(job.count));
}

void measure_stream(results &to, uint32_t class_id, uint32_t mtu, uint32_t acs, double seconds)
{
    const bench_client client(class_id, mtu);
    const uint32_t each = provision_job::acs_a_message(class_id, mtu);
    records read(class_id, each, acs);
    deliveries library;
    std::vector<rival_stream> rivals = rival_streams();
    for (uint32_t i = 0; i < read.messages(); ++i) {
        const provision_job job(class_id, read.of(i).count, i * each);
        add(library, job);
        for (rival_stream &by : rivals)
            by.add(job, read.of(i));
    }

    std::vector<std::byte> room(library.messages().longest());
    std::vector<candidate> from_memory = {
        {"library", [&] { library.deliver_all(); }},
        {"memcpy", [&] { copy_all(library.messages(), room); }},
    };
    for (rival_stream &by : rivals) {
        from_memory.push_back({by.by->name(), [&read, &by] {
                                   for (size_t i = 0; i < by.messages.count(); ++i)
                                       by.decode(by.messages[i], read.of(i));
                               }});
    }
    to.take("provisions", class_id, mtu, acs, from_memory, seconds);

    /* Each is filled in a process of its own, which sends what is there when it begins. Not before: what the library
     * converts in place would be copied page by page, and what others only read would not. */
    library.restore();
    filler received(library.messages());
    verify_received(received, library.messages());
    verify_delivered(received, read.messages(), acs, class_id);
    std::vector<std::unique_ptr<filler>> rivals_received;
    for (rival_stream &by : rivals) {
        rivals_received.push_back(std::make_unique<filler>(by.messages));
        verify_received(*rivals_received.back(), by.messages);
    }

    const candidate recv = {"recv", [&] {
                                for (uint32_t i = 0; i < read.messages(); ++i)
                                    received.take();
                            }};
    const candidate library_received = {"library and recv", [&] {
                                            for (uint32_t i = 0; i < read.messages(); ++i) {
                                                deliveries::deliver(received.take());
                                            }
                                        }};
    std::vector<candidate> from_socket = {library_received, recv};
    for (size_t which = 0; which < rivals.size(); ++which) {
        rival_stream &by = rivals[which];
        from_socket.push_back({by.by->name(), [&read, &by, &from = *rivals_received[which]] {
                                   for (size_t i = 0; i < by.messages.count(); ++i)
                                       by.decode(from.take(), read.of(i));
                               }});
    }
    to.take("provisions received", class_id, mtu, acs, from_socket, seconds);
}

} // namespace

void measure_inbound(results &to)
{
    for (const uint32_t mtu : {1516u, 9000u, 65536u}) {
        measure_message(to, 0, mtu, 32);
        if (mtu >= 9000)
            measure_message(to, 8, mtu, 2676);
    }
    struct size {
        uint32_t class_id, mtu, count;
        bool quick;
    };
    /* A message of 1,516 bytes holds no AC of class 8, and 200,000 ACs of it would be 536 MB for each decoder. */
    static constexpr size sizes[] = {
        {0, 65536, 300, true},    {0, 65536, 10000, true},  {0, 65536, 200000, true}, {0, 9000, 300, false},
        {0, 9000, 10000, false},  {0, 9000, 200000, false}, {0, 1516, 300, false},    {0, 1516, 10000, false},
        {0, 1516, 200000, false}, {8, 65536, 300, true},    {8, 65536, 10000, true},  {8, 9000, 300, false},
        {8, 9000, 10000, false},
    };
    for (const size &of : sizes) {
        if (to.wants(of.count, of.quick))
            measure_stream(to, of.class_id, of.mtu, of.count, to.seconds(of.count));
    }
}
