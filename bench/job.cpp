#include "job.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

/* Bytes of no pattern that a copy could profit from, the same in every run. */
class bytes_source {
public:
    explicit bytes_source(uint64_t seed) : state_(seed) {}

    void fill(void *at, size_t size)
    {
        auto *to = static_cast<unsigned char *>(at);
        for (; size >= sizeof state_; size -= sizeof state_, to += sizeof state_) {
            next();
            memcpy(to, &state_, sizeof state_);
        }
        next();
        memcpy(to, &state_, size);
    }

private:
    void next() { state_ = state_ * 6364136223846793005u + 1442695040888963407u; }
    uint64_t state_;
};

uint32_t info_size_of(uint32_t class_id)
{
    switch (class_id) {
    case 0:
        return 20;
    case 6:
        return 200;
    case 7:
        return 56;
    case 8:
        return 2356;
    default:
        fprintf(stderr, "l2vpn_bench: class %u is not measured\n", class_id);
        exit(2);
    }
}

size_t data_size_of(uint32_t class_id)
{
    return class_id == 8 ? sizeof(l2vpn_ac_xcid_data_t) : 32;
}

std::vector<ifhtype> handles_of(uint32_t count, uint32_t first = 0)
{
    std::vector<ifhtype> handles(count);
    for (uint32_t i = 0; i < count; ++i)
        handles[i] = 0x01000080 + first + i;
    return handles;
}

} // namespace

create_job::create_job(uint32_t class_, uint32_t mtu_, uint32_t count_)
    : class_id(class_), mtu(mtu_), count(count_), info_size(info_size_of(class_)),
      handles(handles_of(count_)), definitions(count_), infos(count_)
{
    bytes_source source(count);
    for (uint32_t i = 0; i < count; ++i) {
        source.fill(&definitions[i], sizeof definitions[i]);
        source.fill(&infos[i], info_size);
    }
}

provision_job::provision_job(uint32_t class_, uint32_t count_, uint32_t first)
    : class_id(class_), count(count_), handles(handles_of(count_, first)), data(count_)
{
    bytes_source source(first + count);
    for (l2vpn_ac_xcid_data_t &record : data)
        source.fill(&record, data_size_of(class_id));
}

uint32_t provision_job::acs_a_message(uint32_t class_id, uint32_t mtu)
{
    return static_cast<uint32_t>((mtu - L2VPN_AC_HDR_LEN) / (sizeof(ifhtype) + data_size_of(class_id)));
}

bool provision_job::is(uint32_t other_count, const ifhtype *other_handles,
                       const l2vpn_ac_xcid_data_t *other_data) const
{
    return other_count == count && memcmp(other_handles, handles.data(), count * sizeof handles[0]) == 0 &&
           memcmp(other_data, data.data(), count * sizeof data[0]) == 0;
}
