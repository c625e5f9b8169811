#include "encoder.h"

#include <algorithm>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnd {

namespace {

constexpr uint32_t data_common_len = 28;
constexpr uint32_t bulk_notify_len = 32;

/* Where the class part of an info message goes in the record that provisions the AC. Both are in network byte
 * order, so it is copied as it came. */
struct tail_row {
    uint32_t class_id;
    uint32_t to;
    uint32_t length;
    uint32_t length_at; /* the number of bytes copied is written there; 0: nowhere */
};

constexpr tail_row s_tails[] = {
    {0, 28, 4, 0}, {1, 28, 4, 0}, {2, 28, 4, 0}, {8, 68, 2340, 64}, {11, 28, 8, 0}, {16, 28, 4, 0},
};

void put_data(const class_row &cls, const ac_head &ac, bytes info, uint32_t nodeid, uint8_t *to)
{
    put32(to, ac.xcid);
    put32(to + 4, nodeid);
    put32(to + 8, ac.handle);
    std::copy_n(info.data(), info_head_len, to + 12);
    static_assert(12 + info_head_len == data_common_len);
    for (const tail_row &tail : s_tails) {
        if (tail.class_id == cls.id) {
            std::copy_n(info.data() + info_head_len, tail.length, to + tail.to);
            if (tail.length_at != 0) {
                put32(to + tail.length_at, tail.length);
            }
        }
    }
}

uint32_t limit(uint32_t mtu, uint32_t each)
{
    return mtu < hdr_len ? 0 : (mtu - hdr_len) / each;
}

octet_string with_header(uint32_t type, size_t count, uint32_t flags, size_t each)
{
    octet_string out(hdr_len + count * each);
    put32(out.data(), L2VPN_AC_HDR_MARK);
    put32(out.data() + 4, type);
    put32(out.data() + 8, static_cast<uint32_t>(count));
    put32(out.data() + 12, flags);
    return out;
}

void put_handles(const ac_store &store, std::span<const uint32_t> slots, uint8_t *to)
{
    for (const uint32_t slot : slots) {
        put32(to, store.head(slot).handle);
        to += handle_len;
    }
}

} // namespace

uint32_t provision_limit(const class_row &cls, uint32_t mtu)
{
    return limit(mtu, handle_len + cls.data_size);
}

uint32_t unprovision_limit(uint32_t mtu)
{
    return limit(mtu, handle_len);
}

octet_string encode_provision(const class_row &cls, const ac_store &store, std::span<const uint32_t> slots,
                              uint32_t nodeid, uint32_t flags)
{
    octet_string out = with_header(L2VPN_AC_MSG_PROV, slots.size(), flags, handle_len + cls.data_size);
    put_handles(store, slots, out.data() + hdr_len);
    uint8_t *record = out.data() + hdr_len + slots.size() * handle_len;
    for (const uint32_t slot : slots) {
        put_data(cls, store.head(slot), store.info(slot), nodeid, record);
        record += cls.data_size;
    }
    return out;
}

octet_string encode_unprovision(const ac_store &store, std::span<const uint32_t> slots, uint32_t flags)
{
    octet_string out = with_header(L2VPN_AC_MSG_UNPROV, slots.size(), flags, handle_len);
    put_handles(store, slots, out.data() + hdr_len);
    return out;
}

octet_string encode_header(uint32_t type, uint32_t word2, uint32_t word3)
{
    octet_string out = with_header(type, 0, word3, 0);
    put32(out.data() + 8, word2);
    return out;
}

octet_string encode_bulk_notify(std::span<const bulk_notice> records, uint32_t flags)
{
    octet_string out = with_header(L2VPN_AC_MSG_BULK_NOTIFY, records.size(), flags, bulk_notify_len);
    uint8_t *to = out.data() + hdr_len;
    for (const bulk_notice &record : records) {
        put32(to, record.word);
        put16(to + 4, record.half);
        std::copy(record.octets.begin(), record.octets.end(), to + 6);
        for (size_t i = 0; i < record.words.size(); i++) {
            put32(to + 8 + 4 * i, record.words[i]);
        }
        std::copy(record.opaque.begin(), record.opaque.end(), to + 24);
        put32(to + 28, record.word2);
        to += bulk_notify_len;
    }
    return out;
}

} // namespace l2vpnd
