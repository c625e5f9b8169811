/*
 * What one writes for speed: records are copied whole into a message that is used again, and swapped there.
 * The wire is the library's own.
 */
#include "octets.h"
#include "rival.h"
#include "swap.h"

#include <cstring>

namespace {

void swap_words(std::byte *at, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        swap_at<uint32_t>(at + 4 * i);
}

void swap_definition(std::byte *at, uint32_t class_id)
{
    swap_words(at + offsetof(l2vpn_ac_defn_t, word), class_id == 6 ? 4 : 3);
    if (class_id == 0)
        swap_at<uint16_t>(at + offsetof(l2vpn_ac_defn_t, by_class2));
    swap_words(at + offsetof(l2vpn_ac_defn_t, word4), 2);
}

constexpr size_t bits_at = 24; /* of class 6; these are no number */

void swap_info(std::byte *at, uint32_t class_id)
{
    swap_words(at, 4);
    if (class_id == 0)
        swap_at<uint16_t>(at + 18);
    if (class_id == 6) {
        swap_at<uint16_t>(at + 16);
        swap_words(at + 20, 1);
        swap_at<uint16_t>(at + 26);
        swap_words(at + 28, 2);
        swap_at<uint64_t>(at + 40);
        swap_at<uint64_t>(at + 120);
        swap_words(at + 196, 1);
    }
    if (class_id == 7) {
        swap_words(at + 24, 1);
        swap_words(at + 40, 4);
    }
}

void swap_data(std::byte *at, uint32_t class_id)
{
    swap_words(at, 7);
    if (class_id == 0) {
        swap_at<uint16_t>(at + 30);
        return;
    }
    swap_words(at + 64, 1);
    swap_words(at + 2628, 5);
    swap_words(at + 2652, 6);
}

constexpr size_t data_size(uint32_t class_id)
{
    return class_id == 0 ? 32 : sizeof(l2vpn_ac_xcid_data_t);
}

void put_header(std::byte *at, uint32_t msg_type, uint32_t count)
{
    const l2vpn_ac_msg_hdr_t hdr = {L2VPN_AC_HDR_MARK, msg_type, count, 0};
    memcpy(at, &hdr, sizeof hdr);
    swap_words(at, 4);
}

std::byte *put_handles(std::byte *at, const create_job &job, uint32_t first, uint32_t end)
{
    for (uint32_t i = first; i < end; ++i, at += sizeof(ifhtype)) {
        memcpy(at, &job.handles[i], sizeof(ifhtype));
        swap_at<uint32_t>(at);
    }
    return at;
}

/* The class is known where the loops are, so that they are compiled for it. */
template <uint32_t class_id>
std::byte *put_definitions(std::byte *at, const create_job &job, uint32_t first, uint32_t end)
{
    for (uint32_t i = first; i < end; ++i, at += sizeof(l2vpn_ac_defn_t)) {
        memcpy(at, &job.definitions[i], sizeof(l2vpn_ac_defn_t));
        swap_definition(at, class_id);
    }
    return at;
}

template <uint32_t class_id>
std::byte *put_infos(std::byte *at, const create_job &job, uint32_t first, uint32_t end)
{
    constexpr size_t info_size = class_id == 0 ? 20 : class_id == 6 ? 200 : class_id == 7 ? 56 : 2356;
    for (uint32_t i = first; i < end; ++i, at += info_size) {
        memcpy(at, &job.infos[i], info_size);
        swap_info(at, class_id);
        if constexpr (class_id == 6)
            at[bits_at] = std::byte{bits_of(job.infos[i].by_class.class6)};
    }
    return at;
}

template <uint32_t class_id>
void get_data(const std::byte *at, std::vector<l2vpn_ac_xcid_data_t> &data)
{
    constexpr size_t size = data_size(class_id);
    for (l2vpn_ac_xcid_data_t &record : data) {
        auto *const to = reinterpret_cast<std::byte *>(&record);
        memcpy(to, at, size);
        swap_data(to, class_id);
        memset(to + size, 0, sizeof record - size);
        at += size;
    }
}

class packed final : public rival {
public:
    const char *name() const override { return "packed copy"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        std::byte *at = put_handles(begin(job, L2VPN_AC_MSG_CREATE, end - first), job, first, end);
        with_class(job.class_id, [&](auto class_id) {
            at = put_definitions<class_id>(at, job, first, end);
            at = put_infos<class_id>(at, job, first, end);
        });
        const iovec piece = {message_.data(), static_cast<size_t>(at - message_.data())};
        out.put(&piece, 1);
    }

    bool update(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        std::byte *at = put_handles(begin(job, L2VPN_AC_MSG_UPDATE, end - first), job, first, end);
        with_class(job.class_id, [&](auto class_id) { at = put_infos<class_id>(at, job, first, end); });
        const iovec piece = {message_.data(), static_cast<size_t>(at - message_.data())};
        out.put(&piece, 1);
        return true;
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        std::vector<std::byte> copy(message.begin(), message.end());
        std::byte *at = copy.data();
        swap_words(at, 4);
        l2vpn_ac_msg_hdr_t hdr;
        memcpy(&hdr, at, sizeof hdr);
        at += sizeof hdr;
        swap_words(at, hdr.bulk);
        memcpy(&read.handles[first], at, hdr.bulk * sizeof(ifhtype));
        at += hdr.bulk * sizeof(ifhtype);
        for (uint32_t i = 0; i < hdr.bulk; ++i, at += sizeof(l2vpn_ac_defn_t)) {
            swap_definition(at, read.class_id);
            memcpy(&read.definitions[first + i], at, sizeof(l2vpn_ac_defn_t));
        }
        for (uint32_t i = 0; i < hdr.bulk; ++i, at += read.info_size) {
            swap_info(at, read.class_id);
            memcpy(&read.infos[first + i], at, read.info_size);
            if (read.class_id == 6)
                set_bits(read.infos[first + i].by_class.class6, static_cast<uint8_t>(at[bits_at]));
        }
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        const size_t each = data_size(job.class_id);
        std::vector<std::byte> message(L2VPN_AC_HDR_LEN + job.count * (sizeof(ifhtype) + each));
        std::byte *at = message.data();
        put_header(at, L2VPN_AC_MSG_PROV, job.count);
        at += L2VPN_AC_HDR_LEN;
        memcpy(at, job.handles.data(), job.count * sizeof(ifhtype));
        swap_words(at, job.count);
        at += job.count * sizeof(ifhtype);
        for (const l2vpn_ac_xcid_data_t &record : job.data) {
            memcpy(at, &record, each);
            swap_data(at, job.class_id);
            at += each;
        }
        size = message.size();
        return aligned_copy(message.data(), size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        const size_t handles = read.count * sizeof(ifhtype);
        if (message.size() != L2VPN_AC_HDR_LEN + handles + read.count * data_size(read.class_id))
            return false;
        const std::byte *at = message.data() + L2VPN_AC_HDR_LEN;
        memcpy(read.handles.data(), at, handles);
        swap_words(reinterpret_cast<std::byte *>(read.handles.data()), read.count);
        if (read.class_id == 0)
            get_data<0>(at + handles, read.data);
        else
            get_data<8>(at + handles, read.data);
        return true;
    }

private:
    /* Room for a message, and its header; where the rest begins. */
    std::byte *begin(const create_job &job, uint32_t msg_type, uint32_t count)
    {
        if (message_.size() < job.mtu)
            message_.resize(job.mtu);
        put_header(message_.data(), msg_type, count);
        return message_.data() + L2VPN_AC_HDR_LEN;
    }

    std::vector<std::byte> message_;
};

} // namespace

std::unique_ptr<rival> packed_rival()
{
    return std::make_unique<packed>();
}
