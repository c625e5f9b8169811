/*
 * A record's fields, one after the other, as one first writes it down: to anything that takes octets, and from anything
 * that gives them. The wire is the library's own.
 */
#ifndef BENCH_FIELDS_H
#define BENCH_FIELDS_H

#include "octets.h"
#include "rival.h"

#include <cstring>

inline uint16_t turned(uint16_t value)
{
    return __builtin_bswap16(value);
}

inline uint32_t turned(uint32_t value)
{
    return __builtin_bswap32(value);
}

inline uint64_t turned(uint64_t value)
{
    return __builtin_bswap64(value);
}

template <typename writer, typename number>
void put_number(writer &to, number value)
{
    value = turned(value);
    to.octets(&value, sizeof value);
}

template <typename reader, typename number>
void get_number(reader &from, number &value)
{
    from.octets(&value, sizeof value);
    value = turned(value);
}

/* --- one record -------------------------------------------------------------------------------------- */

template <uint32_t class_id, typename writer>
void put(writer &to, const l2vpn_ac_defn_t &from)
{
    to.octets(from.opaque, sizeof from.opaque);
    put_number(to, from.word);
    put_number(to, from.word2);
    put_number(to, from.word3);
    if constexpr (class_id == 6)
        put_number(to, from.by_class.word);
    else
        to.octets(from.by_class.octets, sizeof from.by_class.octets);
    if constexpr (class_id == 0)
        put_number(to, from.by_class2.half);
    else
        to.octets(from.by_class2.octets, sizeof from.by_class2.octets);
    to.octets(from.opaque2, sizeof from.opaque2);
    put_number(to, from.word4);
    put_number(to, from.word5);
}

template <uint32_t class_id, typename reader>
void get(reader &from, l2vpn_ac_defn_t &to)
{
    from.octets(to.opaque, sizeof to.opaque);
    get_number(from, to.word);
    get_number(from, to.word2);
    get_number(from, to.word3);
    if constexpr (class_id == 6)
        get_number(from, to.by_class.word);
    else
        from.octets(to.by_class.octets, sizeof to.by_class.octets);
    if constexpr (class_id == 0)
        get_number(from, to.by_class2.half);
    else
        from.octets(to.by_class2.octets, sizeof to.by_class2.octets);
    from.octets(to.opaque2, sizeof to.opaque2);
    get_number(from, to.word4);
    get_number(from, to.word5);
}

template <typename writer>
void put(writer &to, const l2vpn_ac_info_class6_t &from)
{
    const uint8_t bits = bits_of(from);
    put_number(to, from.half);
    to.octets(from.octets, sizeof from.octets);
    put_number(to, from.word);
    to.octets(&bits, sizeof bits);
    to.octets(&from.octet, sizeof from.octet);
    put_number(to, from.half2);
    put_number(to, from.word2);
    put_number(to, from.word3);
    to.octets(from.octets2, sizeof from.octets2);
    put_number(to, from.quad);
    to.octets(from.opaque, sizeof from.opaque);
    put_number(to, from.quad2);
    to.octets(from.opaque2, sizeof from.opaque2);
    put_number(to, from.word4);
}

template <typename reader>
void get(reader &from, l2vpn_ac_info_class6_t &to)
{
    uint8_t bits = 0;
    get_number(from, to.half);
    from.octets(to.octets, sizeof to.octets);
    get_number(from, to.word);
    from.octets(&bits, sizeof bits);
    set_bits(to, bits);
    from.octets(&to.octet, sizeof to.octet);
    get_number(from, to.half2);
    get_number(from, to.word2);
    get_number(from, to.word3);
    from.octets(to.octets2, sizeof to.octets2);
    get_number(from, to.quad);
    from.octets(to.opaque, sizeof to.opaque);
    get_number(from, to.quad2);
    from.octets(to.opaque2, sizeof to.opaque2);
    get_number(from, to.word4);
}

template <uint32_t class_id, typename writer>
void put(writer &to, const l2vpn_ac_info_t &from)
{
    for (const uint32_t word : from.words)
        put_number(to, word);
    if constexpr (class_id == 0) {
        to.octets(from.by_class.class0.octets, sizeof from.by_class.class0.octets);
        put_number(to, from.by_class.class0.half);
    } else if constexpr (class_id == 6) {
        put(to, from.by_class.class6);
    } else if constexpr (class_id == 7) {
        to.octets(from.by_class.class7.opaque, sizeof from.by_class.class7.opaque);
        put_number(to, from.by_class.class7.word);
        to.octets(from.by_class.class7.opaque2, sizeof from.by_class.class7.opaque2);
        for (const uint32_t word : from.by_class.class7.words)
            put_number(to, word);
    } else {
        to.octets(from.by_class.class8.opaque, sizeof from.by_class.class8.opaque);
    }
}

template <uint32_t class_id, typename reader>
void get(reader &from, l2vpn_ac_info_t &to)
{
    for (uint32_t &word : to.words)
        get_number(from, word);
    if constexpr (class_id == 0) {
        from.octets(to.by_class.class0.octets, sizeof to.by_class.class0.octets);
        get_number(from, to.by_class.class0.half);
    } else if constexpr (class_id == 6) {
        get(from, to.by_class.class6);
    } else if constexpr (class_id == 7) {
        from.octets(to.by_class.class7.opaque, sizeof to.by_class.class7.opaque);
        get_number(from, to.by_class.class7.word);
        from.octets(to.by_class.class7.opaque2, sizeof to.by_class.class7.opaque2);
        for (uint32_t &word : to.by_class.class7.words)
            get_number(from, word);
    } else {
        from.octets(to.by_class.class8.opaque, sizeof to.by_class.class8.opaque);
    }
}

template <uint32_t class_id, typename writer>
void put(writer &to, const l2vpn_ac_xcid_data_t &from)
{
    for (const uint32_t word : from.words)
        put_number(to, word);
    if constexpr (class_id == 0) {
        to.octets(from.by_class.class0.octets, sizeof from.by_class.class0.octets);
        put_number(to, from.by_class.class0.half);
        return;
    }
    const l2vpn_ac_xcid_class8_t &part = from.by_class.class8;
    to.octets(part.opaque, sizeof part.opaque);
    put_number(to, part.word);
    to.octets(part.opaque2, sizeof part.opaque2);
    for (const uint32_t word : part.words)
        put_number(to, word);
    put_number(to, part.word2);
    to.octets(part.octets, sizeof part.octets);
    for (const uint32_t word : part.words2)
        put_number(to, word);
    put_number(to, part.word3);
    put_number(to, part.word4);
}

template <uint32_t class_id, typename reader>
void get(reader &from, l2vpn_ac_xcid_data_t &to)
{
    for (uint32_t &word : to.words)
        get_number(from, word);
    if constexpr (class_id == 0) {
        from.octets(to.by_class.class0.octets, sizeof to.by_class.class0.octets);
        get_number(from, to.by_class.class0.half);
        memset(&to.by_class.class0 + 1, 0, sizeof to.by_class - sizeof to.by_class.class0);
        return;
    }
    l2vpn_ac_xcid_class8_t &part = to.by_class.class8;
    from.octets(part.opaque, sizeof part.opaque);
    get_number(from, part.word);
    from.octets(part.opaque2, sizeof part.opaque2);
    for (uint32_t &word : part.words)
        get_number(from, word);
    get_number(from, part.word2);
    from.octets(part.octets, sizeof part.octets);
    for (uint32_t &word : part.words2)
        get_number(from, word);
    get_number(from, part.word3);
    get_number(from, part.word4);
}

/* --- messages ---------------------------------------------------------------------------------------- */

template <typename writer>
void put_header(writer &to, uint32_t msg_type, uint32_t count)
{
    for (const uint32_t word : {uint32_t{L2VPN_AC_HDR_MARK}, msg_type, count, 0u})
        put_number(to, word);
}

template <typename reader>
uint32_t get_header(reader &from)
{
    uint32_t words[4] = {};
    for (uint32_t &word : words)
        get_number(from, word);
    return words[2];
}

/* An encoder of this kind: a writer is cleared, given room, and has one piece in the end; a reader is of a message, and
 * good as long as there was what it was asked for. */
template <typename writer, typename reader>
class fields_rival : public rival {
public:
    explicit fields_rival(const char *name) : name_(name) {}

    const char *name() const override { return name_; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        to_.clear();
        to_.reserve(job.mtu);
        put_header(to_, L2VPN_AC_MSG_CREATE, end - first);
        for (uint32_t i = first; i < end; ++i)
            put_number(to_, job.handles[i]);
        with_class(job.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i)
                put<class_id>(to_, job.definitions[i]);
            for (uint32_t i = first; i < end; ++i)
                put<class_id>(to_, job.infos[i]);
        });
        const iovec piece = to_.piece();
        out.put(&piece, 1);
    }

    bool update(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        to_.clear();
        to_.reserve(job.mtu);
        put_header(to_, L2VPN_AC_MSG_UPDATE, end - first);
        for (uint32_t i = first; i < end; ++i)
            put_number(to_, job.handles[i]);
        with_class(job.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i)
                put<class_id>(to_, job.infos[i]);
        });
        const iovec piece = to_.piece();
        out.put(&piece, 1);
        return true;
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        reader from(message);
        const uint32_t end = first + get_header(from);
        for (uint32_t i = first; i < end; ++i)
            get_number(from, read.handles[i]);
        with_class(read.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i)
                get<class_id>(from, read.definitions[i]);
            for (uint32_t i = first; i < end; ++i)
                get<class_id>(from, read.infos[i]);
        });
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        to_.clear();
        put_header(to_, L2VPN_AC_MSG_PROV, job.count);
        for (const ifhtype handle : job.handles)
            put_number(to_, handle);
        with_class(job.class_id, [&](auto class_id) {
            for (const l2vpn_ac_xcid_data_t &record : job.data)
                put<class_id>(to_, record);
        });
        const iovec piece = to_.piece();
        size = piece.iov_len;
        return aligned_copy(piece.iov_base, size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        reader from(message);
        if (get_header(from) != read.count)
            return false;
        for (ifhtype &handle : read.handles)
            get_number(from, handle);
        with_class(read.class_id, [&](auto class_id) {
            for (l2vpn_ac_xcid_data_t &record : read.data)
                get<class_id>(from, record);
        });
        return from.good();
    }

private:
    const char *name_;
    writer to_;
};

#endif
