/*
 * Protocol Buffers. One message object for all messages: cleared, its sub-messages and strings keep their
 * memory. It is serialised into a buffer that is used again.
 */
#include "octets.h"
#include "rival.h"

#include <ac.pb.h>

#include <cstring>

namespace pb = bench_protobuf;

namespace {

void copy_octets(void *octets, size_t size, const std::string &value)
{
    memcpy(octets, value.data(), std::min(size, value.size()));
}

void put(pb::Definition &to, const l2vpn_ac_defn_t &from)
{
    to.set_opaque(from.opaque, sizeof from.opaque);
    to.set_word(from.word);
    to.set_word2(from.word2);
    to.set_word3(from.word3);
    to.set_octets(raw<uint32_t>(from.by_class.octets));
    to.set_half(from.by_class2.half);
    to.set_opaque2(from.opaque2, sizeof from.opaque2);
    to.set_word4(from.word4);
    to.set_word5(from.word5);
}

void get(const pb::Definition &from, l2vpn_ac_defn_t &to)
{
    copy_octets(to.opaque, sizeof to.opaque, from.opaque());
    to.word = from.word();
    to.word2 = from.word2();
    to.word3 = from.word3();
    unraw(to.by_class.octets, from.octets());
    to.by_class2.half = static_cast<uint16_t>(from.half());
    copy_octets(to.opaque2, sizeof to.opaque2, from.opaque2());
    to.word4 = from.word4();
    to.word5 = from.word5();
}

void put(pb::Half &to, const l2vpn_ac_info_half_t &from)
{
    to.set_octets(raw<uint16_t>(from.octets));
    to.set_half(from.half);
}

void get(const pb::Half &from, l2vpn_ac_info_half_t &to)
{
    unraw(to.octets, static_cast<uint16_t>(from.octets()));
    to.half = static_cast<uint16_t>(from.half());
}

void put(pb::InfoClass6 &to, const l2vpn_ac_info_class6_t &from)
{
    to.set_half(from.half);
    to.set_octets(raw<uint16_t>(from.octets));
    to.set_word(from.word);
    to.set_bits(bits_of(from));
    to.set_octet(from.octet);
    to.set_half2(from.half2);
    to.set_word2(from.word2);
    to.set_word3(from.word3);
    to.set_octets2(raw<uint32_t>(from.octets2));
    to.set_quad(from.quad);
    to.set_opaque(from.opaque, sizeof from.opaque);
    to.set_quad2(from.quad2);
    to.set_opaque2(from.opaque2, sizeof from.opaque2);
    to.set_word4(from.word4);
}

void get(const pb::InfoClass6 &from, l2vpn_ac_info_class6_t &to)
{
    to.half = static_cast<uint16_t>(from.half());
    unraw(to.octets, static_cast<uint16_t>(from.octets()));
    to.word = from.word();
    set_bits(to, static_cast<uint8_t>(from.bits()));
    to.octet = static_cast<uint8_t>(from.octet());
    to.half2 = static_cast<uint16_t>(from.half2());
    to.word2 = from.word2();
    to.word3 = from.word3();
    unraw(to.octets2, from.octets2());
    to.quad = from.quad();
    copy_octets(to.opaque, sizeof to.opaque, from.opaque());
    to.quad2 = from.quad2();
    copy_octets(to.opaque2, sizeof to.opaque2, from.opaque2());
    to.word4 = from.word4();
}

template <uint32_t class_id>
void put(pb::Info &to, const l2vpn_ac_info_t &from)
{
    to.set_word(from.words[0]);
    to.set_word2(from.words[1]);
    to.set_word3(from.words[2]);
    to.set_word4(from.words[3]);
    if constexpr (class_id == 0) {
        put(*to.mutable_class0(), from.by_class.class0);
    } else if constexpr (class_id == 6) {
        put(*to.mutable_class6(), from.by_class.class6);
    } else if constexpr (class_id == 7) {
        const l2vpn_ac_info_class7_t &part = from.by_class.class7;
        pb::InfoClass7 &out = *to.mutable_class7();
        out.set_opaque(raw<uint64_t>(part.opaque));
        out.set_word(part.word);
        out.set_opaque2(part.opaque2, sizeof part.opaque2);
        out.mutable_words()->Add(std::begin(part.words), std::end(part.words));
    } else {
        to.set_class8(from.by_class.class8.opaque, sizeof from.by_class.class8.opaque);
    }
}

void get(const pb::Info &from, l2vpn_ac_info_t &to)
{
    to.words[0] = from.word();
    to.words[1] = from.word2();
    to.words[2] = from.word3();
    to.words[3] = from.word4();
    if (from.has_class0()) {
        get(from.class0(), to.by_class.class0);
    } else if (from.has_class6()) {
        get(from.class6(), to.by_class.class6);
    } else if (from.has_class7()) {
        l2vpn_ac_info_class7_t &part = to.by_class.class7;
        unraw(part.opaque, from.class7().opaque());
        part.word = from.class7().word();
        copy_octets(part.opaque2, sizeof part.opaque2, from.class7().opaque2());
        std::copy_n(from.class7().words().begin(), std::min(4, from.class7().words_size()), part.words);
    } else {
        copy_octets(to.by_class.class8.opaque, sizeof to.by_class.class8.opaque, from.class8());
    }
}

void put(pb::DataClass8 &to, const l2vpn_ac_xcid_class8_t &from)
{
    to.set_opaque(from.opaque, sizeof from.opaque);
    to.set_word(from.word);
    to.set_opaque2(from.opaque2, sizeof from.opaque2);
    to.mutable_words()->Add(std::begin(from.words), std::end(from.words));
    to.set_word2(from.word2);
    to.set_octets(raw<uint32_t>(from.octets));
    to.mutable_words2()->Add(std::begin(from.words2), std::end(from.words2));
    to.set_word3(from.word3);
    to.set_word4(from.word4);
}

void get(const pb::DataClass8 &from, l2vpn_ac_xcid_class8_t &to)
{
    copy_octets(to.opaque, sizeof to.opaque, from.opaque());
    to.word = from.word();
    copy_octets(to.opaque2, sizeof to.opaque2, from.opaque2());
    std::copy_n(from.words().begin(), std::min(4, from.words_size()), to.words);
    to.word2 = from.word2();
    unraw(to.octets, from.octets());
    std::copy_n(from.words2().begin(), std::min(4, from.words2_size()), to.words2);
    to.word3 = from.word3();
    to.word4 = from.word4();
}

class protobuf final : public rival {
public:
    const char *name() const override { return "protobuf"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        create_.Clear();
        with_class(job.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i) {
                pb::Ac &ac = *create_.add_acs();
                ac.set_handle(job.handles[i]);
                put(*ac.mutable_definition(), job.definitions[i]);
                put<class_id>(*ac.mutable_info(), job.infos[i]);
            }
        });
        const size_t size = create_.ByteSizeLong();
        if (buffer_.size() < size)
            buffer_.resize(size);
        create_.SerializeWithCachedSizesToArray(buffer_.data());
        const iovec piece = {buffer_.data(), size};
        out.put(&piece, 1);
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        create_.ParseFromArray(message.data(), static_cast<int>(message.size()));
        for (const pb::Ac &ac : create_.acs()) {
            read.handles[first] = ac.handle();
            get(ac.definition(), read.definitions[first]);
            get(ac.info(), read.infos[first]);
            ++first;
        }
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        pb::Provision message;
        for (uint32_t i = 0; i < job.count; ++i) {
            pb::Provisioned &ac = *message.add_acs();
            const l2vpn_ac_xcid_data_t &data = job.data[i];
            ac.set_handle(job.handles[i]);
            ac.mutable_words()->Add(std::begin(data.words), std::end(data.words));
            if (job.class_id == 0)
                put(*ac.mutable_class0(), data.by_class.class0);
            else
                put(*ac.mutable_class8(), data.by_class.class8);
        }
        const std::string bytes = message.SerializeAsString();
        size = bytes.size();
        return aligned_copy(bytes.data(), size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        if (!provision_.ParseFromArray(message.data(), static_cast<int>(message.size())) ||
            provision_.acs_size() != static_cast<int>(read.count))
            return false;
        with_class(read.class_id, [&](auto class_id) {
            uint32_t i = 0;
            for (const pb::Provisioned &ac : provision_.acs()) {
                l2vpn_ac_xcid_data_t &data = read.data[i];
                read.handles[i++] = ac.handle();
                std::copy_n(ac.words().begin(), std::min(7, ac.words_size()), data.words);
                if constexpr (class_id == 0) {
                    get(ac.class0(), data.by_class.class0);
                    memset(&data.by_class.class0 + 1, 0, sizeof data.by_class - sizeof data.by_class.class0);
                } else {
                    get(ac.class8(), data.by_class.class8);
                }
            }
        });
        return true;
    }

private:
    pb::Create create_;
    pb::Provision provision_;
    std::vector<uint8_t> buffer_;
};

} // namespace

std::unique_ptr<rival> protobuf_rival()
{
    return std::make_unique<protobuf>();
}
