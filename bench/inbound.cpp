/*
 * Provision: from a received message to records in the owner's callback, beside the decoders of the rivals. A
 * message is as large as the MTU allows.
 */
#include "client.h"
#include "counting_platform.h"
#include "job.h"
#include "results.h"
#include "rival.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool equal(const provision_job &a, uint32_t count, const ifhtype *handles, const l2vpn_ac_xcid_data_t *data)
{
    return a.count == count && memcmp(a.handles.data(), handles, count * sizeof *handles) == 0 &&
           memcmp(a.data.data(), data, count * sizeof *data) == 0;
}

void must_be(bool right, const char *name, uint32_t class_id)
{
    if (right)
        return;
    std::fprintf(stderr, "l2vpn_bench: %s decodes class %u wrongly\n", name, class_id);
    std::exit(1);
}

/* The library converts a message where it lies. Delivered again, with its header as it was, the payload is
 * what differs, and the work is the same. */
class delivered {
public:
    explicit delivered(const provision_job &job) : message_(packed_rival()->provision(job, size_))
    {
        memcpy(header_, message_.data(), sizeof header_);
        expected_ = &job;
        on_provisioned(
            [](void *self, uint32_t count, const ifhtype *handles, const l2vpn_ac_xcid_data_t *data) {
                auto &of = *static_cast<delivered *>(self);
                of.right_ = equal(*of.expected_, count, handles, data);
            },
            this);
        deliver();
        on_provisioned(nullptr, nullptr);
        must_be(right_, "library", job.class_id);
    }

    void deliver()
    {
        memcpy(message_.data(), header_, sizeof header_);
        counting::deliver(message_.data(), static_cast<uint32_t>(size_));
    }

    const void *data() const { return message_.data(); }
    size_t size() const { return size_; }

private:
    size_t size_ = 0;
    std::vector<uint64_t> message_;
    char header_[L2VPN_AC_HDR_LEN];
    const provision_job *expected_;
    bool right_ = false;
};

void measure_class(results &to, uint32_t class_id, uint32_t mtu, uint32_t data_size)
{
    const provision_job job(class_id, (mtu - L2VPN_AC_HDR_LEN) / (4 + data_size));
    provision_job read(class_id, job.count);
    const bench_client client(class_id, mtu);
    delivered message(job);
    std::vector<std::byte> room(message.size());
    std::vector<candidate> candidates = {
        {"library", [&] { message.deliver(); }},
        {"memcpy",
         [&] {
             memcpy(room.data(), message.data(), room.size());
             asm volatile("" : : "r"(room.data()) : "memory");
         }},
        {"copy and zero fill",
         [&] {
             memset(read.data.data(), 0, job.count * sizeof(l2vpn_ac_xcid_data_t));
             asm volatile("" : : "r"(read.data.data()) : "memory");
             for (uint32_t i = 0; i < job.count; ++i)
                 memcpy(&read.data[i], &job.data[i], data_size);
             asm volatile("" : : "r"(read.data.data()) : "memory");
         }},
    };

    struct encoded {
        std::unique_ptr<rival> by;
        size_t size;
        std::vector<uint64_t> message;
        std::span<const std::byte> bytes() const
        {
            return {reinterpret_cast<const std::byte *>(message.data()), size};
        }
    };
    std::vector<encoded> rivals;
    for (auto &by : all_rivals()) {
        encoded rival{std::move(by), 0, {}};
        rival.message = rival.by->provision(job, rival.size);
        memset(read.data.data(), 0xff, job.count * sizeof(l2vpn_ac_xcid_data_t));
        const bool whole = rival.by->read_provision(rival.bytes(), read);
        must_be(whole && equal(job, read.count, read.handles.data(), read.data.data()), rival.by->name(),
                class_id);
        rivals.push_back(std::move(rival));
    }
    for (const encoded &rival : rivals) {
        candidates.push_back(
            {rival.by->name(),
             [&] { must_be(rival.by->read_provision(rival.bytes(), read), rival.by->name(), class_id); }});
    }
    to.take("provision", class_id, mtu, job.count, candidates, to.thorough() ? 3.0 : 0.7);
}

} // namespace

void measure_inbound(results &to)
{
    for (const uint32_t mtu : {1516u, 9000u, 65536u}) {
        measure_class(to, 0, mtu, 32);
        if (mtu >= 9000)
            measure_class(to, 8, mtu, 2676);
    }
}
