/*
 * The first thing one writes: each field put into a buffer that grows, and got from one with its end in mind.
 * The wire is the library's own.
 */
#include "rival.h"

#include <cstring>

namespace {

class writer {
public:
    void clear() { size_ = 0; }
    void reserve(size_t size)
    {
        if (size > bytes_.size())
            bytes_.resize(size);
    }
    void octets(const void *from, size_t size)
    {
        if (bytes_.size() - size_ < size)
            bytes_.resize(2 * (bytes_.size() + size));
        memcpy(bytes_.data() + size_, from, size);
        size_ += size;
    }
    void u16(uint16_t value)
    {
        value = __builtin_bswap16(value);
        octets(&value, sizeof value);
    }
    void u32(uint32_t value)
    {
        value = __builtin_bswap32(value);
        octets(&value, sizeof value);
    }
    iovec piece() { return {bytes_.data(), size_}; }

private:
    std::vector<std::byte> bytes_;
    size_t size_ = 0;
};

class reader {
public:
    explicit reader(std::span<const std::byte> bytes) : bytes_(bytes) {}
    void octets(void *to, size_t size)
    {
        if (bytes_.size() < size) {
            good_ = false;
            return;
        }
        memcpy(to, bytes_.data(), size);
        bytes_ = bytes_.subspan(size);
    }
    uint16_t u16()
    {
        uint16_t value = 0;
        octets(&value, sizeof value);
        return __builtin_bswap16(value);
    }
    uint32_t u32()
    {
        uint32_t value = 0;
        octets(&value, sizeof value);
        return __builtin_bswap32(value);
    }
    bool good() const { return good_; }

private:
    std::span<const std::byte> bytes_;
    bool good_ = true;
};

/* --- one record -------------------------------------------------------------------------------------- */

template <uint32_t class_id>
void put(writer &to, const l2vpn_ac_defn_t &from)
{
    to.octets(from.opaque, sizeof from.opaque);
    to.u32(from.word);
    to.u32(from.word2);
    to.u32(from.word3);
    to.octets(from.by_class.octets, sizeof from.by_class.octets);
    if constexpr (class_id == 0)
        to.u16(from.by_class2.half);
    else
        to.octets(from.by_class2.octets, sizeof from.by_class2.octets);
    to.octets(from.opaque2, sizeof from.opaque2);
    to.u32(from.word4);
    to.u32(from.word5);
}

template <uint32_t class_id>
void get(reader &from, l2vpn_ac_defn_t &to)
{
    from.octets(to.opaque, sizeof to.opaque);
    to.word = from.u32();
    to.word2 = from.u32();
    to.word3 = from.u32();
    from.octets(to.by_class.octets, sizeof to.by_class.octets);
    if constexpr (class_id == 0)
        to.by_class2.half = from.u16();
    else
        from.octets(to.by_class2.octets, sizeof to.by_class2.octets);
    from.octets(to.opaque2, sizeof to.opaque2);
    to.word4 = from.u32();
    to.word5 = from.u32();
}

template <uint32_t class_id>
void put(writer &to, const l2vpn_ac_info_t &from)
{
    for (const uint32_t word : from.words)
        to.u32(word);
    if constexpr (class_id == 0) {
        to.octets(from.by_class.class0.octets, sizeof from.by_class.class0.octets);
        to.u16(from.by_class.class0.half);
    } else if constexpr (class_id == 7) {
        to.octets(from.by_class.class7.opaque, sizeof from.by_class.class7.opaque);
        to.u32(from.by_class.class7.word);
        to.octets(from.by_class.class7.opaque2, sizeof from.by_class.class7.opaque2);
        for (const uint32_t word : from.by_class.class7.words)
            to.u32(word);
    } else {
        to.octets(from.by_class.class8.opaque, sizeof from.by_class.class8.opaque);
    }
}

template <uint32_t class_id>
void get(reader &from, l2vpn_ac_info_t &to)
{
    for (uint32_t &word : to.words)
        word = from.u32();
    if constexpr (class_id == 0) {
        from.octets(to.by_class.class0.octets, sizeof to.by_class.class0.octets);
        to.by_class.class0.half = from.u16();
    } else if constexpr (class_id == 7) {
        from.octets(to.by_class.class7.opaque, sizeof to.by_class.class7.opaque);
        to.by_class.class7.word = from.u32();
        from.octets(to.by_class.class7.opaque2, sizeof to.by_class.class7.opaque2);
        for (uint32_t &word : to.by_class.class7.words)
            word = from.u32();
    } else {
        from.octets(to.by_class.class8.opaque, sizeof to.by_class.class8.opaque);
    }
}

template <uint32_t class_id>
void put(writer &to, const l2vpn_ac_xcid_data_t &from)
{
    for (const uint32_t word : from.words)
        to.u32(word);
    if constexpr (class_id == 0) {
        to.octets(from.by_class.class0.octets, sizeof from.by_class.class0.octets);
        to.u16(from.by_class.class0.half);
        return;
    }
    const l2vpn_ac_xcid_class8_t &part = from.by_class.class8;
    to.octets(part.opaque, sizeof part.opaque);
    to.u32(part.word);
    to.octets(part.opaque2, sizeof part.opaque2);
    for (const uint32_t word : part.words)
        to.u32(word);
    to.u32(part.word2);
    to.octets(part.octets, sizeof part.octets);
    for (const uint32_t word : part.words2)
        to.u32(word);
    to.u32(part.word3);
    to.u32(part.word4);
}

template <uint32_t class_id>
void get(reader &from, l2vpn_ac_xcid_data_t &to)
{
    for (uint32_t &word : to.words)
        word = from.u32();
    if constexpr (class_id == 0) {
        from.octets(to.by_class.class0.octets, sizeof to.by_class.class0.octets);
        to.by_class.class0.half = from.u16();
        memset(&to.by_class.class0 + 1, 0, sizeof to.by_class - sizeof to.by_class.class0);
        return;
    }
    l2vpn_ac_xcid_class8_t &part = to.by_class.class8;
    from.octets(part.opaque, sizeof part.opaque);
    part.word = from.u32();
    from.octets(part.opaque2, sizeof part.opaque2);
    for (uint32_t &word : part.words)
        word = from.u32();
    part.word2 = from.u32();
    from.octets(part.octets, sizeof part.octets);
    for (uint32_t &word : part.words2)
        word = from.u32();
    part.word3 = from.u32();
    part.word4 = from.u32();
}

/* --- messages ---------------------------------------------------------------------------------------- */

void put_header(writer &to, uint32_t msg_type, uint32_t count, uint32_t flags)
{
    to.u32(L2VPN_AC_HDR_MARK);
    to.u32(msg_type);
    to.u32(count);
    to.u32(flags);
}

uint32_t get_header(reader &from)
{
    from.u32();
    from.u32();
    const uint32_t count = from.u32();
    from.u32();
    return count;
}

class stream final : public rival {
public:
    const char *name() const override { return "field by field"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        to_.clear();
        to_.reserve(job.mtu);
        put_header(to_, L2VPN_AC_MSG_CREATE, end - first, 0);
        for (uint32_t i = first; i < end; ++i)
            to_.u32(job.handles[i]);
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
        put_header(to_, L2VPN_AC_MSG_UPDATE, end - first, 0);
        for (uint32_t i = first; i < end; ++i)
            to_.u32(job.handles[i]);
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
            read.handles[i] = from.u32();
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
        put_header(to_, L2VPN_AC_MSG_PROV, job.count, 0);
        for (const ifhtype handle : job.handles)
            to_.u32(handle);
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
            handle = from.u32();
        with_class(read.class_id, [&](auto class_id) {
            for (l2vpn_ac_xcid_data_t &record : read.data)
                get<class_id>(from, record);
        });
        return from.good();
    }

private:
    writer to_;
};

} // namespace

std::unique_ptr<rival> stream_rival()
{
    return std::make_unique<stream>();
}
