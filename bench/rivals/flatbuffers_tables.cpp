/*
 * FlatBuffers as they are mostly used: a table for each AC, which can grow. What is a number of the class is an
 * optional member of it, not a table of its own, which would have to be found by an offset.
 */
#include "octets.h"
#include "rival.h"

#include <ac_generated.h>

#include <cstring>

namespace fb = bench_flatbuffers;

namespace {

using ::flatbuffers::FlatBufferBuilder;
using ::flatbuffers::Offset;
using ::flatbuffers::Vector;

template <typename T, size_t size>
Offset<Vector<T>> vector_of(FlatBufferBuilder &builder, const T (&array)[size])
{
    return builder.CreateVector(array, size);
}

template <typename T, size_t size>
void get(T (&to)[size], const Vector<T> *from)
{
    if (from != nullptr)
        memcpy(to, from->data(), std::min<size_t>(size, from->size()) * sizeof(T));
}

Offset<fb::Class6> make(FlatBufferBuilder &builder, const l2vpn_ac_info_class6_t &part)
{
    const auto opaque = vector_of(builder, part.opaque);
    const auto opaque2 = vector_of(builder, part.opaque2);
    return fb::CreateClass6(builder, part.half, raw<uint16_t>(part.octets), part.word, bits_of(part),
                            part.octet, part.half2, part.word2, part.word3, raw<uint32_t>(part.octets2),
                            part.quad, opaque, part.quad2, opaque2, part.word4);
}

void get(const fb::Class6 &from, l2vpn_ac_info_class6_t &to)
{
    to.half = from.half();
    unraw(to.octets, from.octets());
    to.word = from.word();
    set_bits(to, from.bits());
    to.octet = from.octet();
    to.half2 = from.half2();
    to.word2 = from.word2();
    to.word3 = from.word3();
    unraw(to.octets2, from.octets2());
    to.quad = from.quad();
    get(to.opaque, from.opaque());
    to.quad2 = from.quad2();
    get(to.opaque2, from.opaque2());
    to.word4 = from.word4();
}

/* An AC's table. Its vectors come first: nothing else may be made while a table is. */
template <uint32_t class_id>
Offset<fb::Ac> make(FlatBufferBuilder &builder, ifhtype handle, const l2vpn_ac_defn_t &defn,
                    const l2vpn_ac_info_t &info)
{
    const auto opaque = vector_of(builder, defn.opaque);
    const auto opaque2 = vector_of(builder, defn.opaque2);
    uint16_t octets = 0, half = 0;
    Offset<fb::Class6> class6;
    Offset<fb::Class7> class7;
    Offset<Vector<uint8_t>> class8;
    if constexpr (class_id == 0) {
        octets = raw<uint16_t>(info.by_class.class0.octets);
        half = info.by_class.class0.half;
    } else if constexpr (class_id == 6) {
        class6 = make(builder, info.by_class.class6);
    } else if constexpr (class_id == 7) {
        const l2vpn_ac_info_class7_t &part = info.by_class.class7;
        const auto part_opaque2 = vector_of(builder, part.opaque2);
        class7 = fb::CreateClass7(builder, raw<uint64_t>(part.opaque), part.word, part_opaque2, part.words[0],
                                  part.words[1], part.words[2], part.words[3]);
    } else {
        class8 = vector_of(builder, info.by_class.class8.opaque);
    }
    return fb::CreateAc(builder, handle, opaque, defn.word, defn.word2, defn.word3,
                        raw<uint32_t>(defn.by_class.octets), defn.by_class2.half, opaque2, defn.word4,
                        defn.word5, info.words[0], info.words[1], info.words[2], info.words[3], octets, half,
                        class7, class8, class6);
}

void get(const fb::Ac &from, l2vpn_ac_defn_t &to)
{
    get(to.opaque, from.opaque());
    to.word = from.word();
    to.word2 = from.word2();
    to.word3 = from.word3();
    unraw(to.by_class.octets, from.octets());
    to.by_class2.half = from.half();
    get(to.opaque2, from.opaque2());
    to.word4 = from.word4();
    to.word5 = from.word5();
}

void get(const fb::Ac &from, l2vpn_ac_info_t &to)
{
    to.words[0] = from.head();
    to.words[1] = from.head2();
    to.words[2] = from.head3();
    to.words[3] = from.head4();
    if (from.class6() != nullptr) {
        get(*from.class6(), to.by_class.class6);
    } else if (const fb::Class7 *const part = from.class7()) {
        unraw(to.by_class.class7.opaque, part->opaque());
        to.by_class.class7.word = part->word();
        get(to.by_class.class7.opaque2, part->opaque2());
        to.by_class.class7.words[0] = part->tail();
        to.by_class.class7.words[1] = part->tail2();
        to.by_class.class7.words[2] = part->tail3();
        to.by_class.class7.words[3] = part->tail4();
    } else if (from.class8() != nullptr) {
        get(to.by_class.class8.opaque, from.class8());
    } else {
        unraw(to.by_class.class0.octets, from.class0_octets());
        to.by_class.class0.half = from.class0_half();
    }
}

Offset<fb::Class8Data> make(FlatBufferBuilder &builder, const l2vpn_ac_xcid_class8_t &part)
{
    const auto opaque = vector_of(builder, part.opaque);
    const auto opaque2 = vector_of(builder, part.opaque2);
    const auto words = vector_of(builder, part.words);
    const auto words2 = vector_of(builder, part.words2);
    return fb::CreateClass8Data(builder, opaque, part.word, opaque2, words, part.word2,
                                raw<uint32_t>(part.octets), words2, part.word3, part.word4);
}

void get(const fb::Class8Data &from, l2vpn_ac_xcid_class8_t &to)
{
    get(to.opaque, from.opaque());
    to.word = from.word();
    get(to.opaque2, from.opaque2());
    get(to.words, from.words());
    to.word2 = from.word2();
    unraw(to.octets, from.octets());
    get(to.words2, from.words2());
    to.word3 = from.word3();
    to.word4 = from.word4();
}

template <uint32_t class_id>
bool get(const fb::Provisioned &from, l2vpn_ac_xcid_data_t &to)
{
    to.words[0] = from.word();
    to.words[1] = from.word2();
    to.words[2] = from.word3();
    to.words[3] = from.word4();
    to.words[4] = from.word5();
    to.words[5] = from.word6();
    to.words[6] = from.word7();
    if constexpr (class_id == 0) {
        l2vpn_ac_info_half_t &part = to.by_class.class0;
        unraw(part.octets, from.class0_octets());
        part.half = from.class0_half();
        memset(&part + 1, 0, sizeof to.by_class - sizeof part);
    } else {
        if (from.class8() == nullptr)
            return false;
        get(*from.class8(), to.by_class.class8);
    }
    return true;
}

class flat_tables final : public rival {
public:
    const char *name() const override { return "FlatBuffers tables"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        builder_.Clear();
        acs_.clear();
        with_class(job.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i)
                acs_.push_back(make<class_id>(builder_, job.handles[i], job.definitions[i], job.infos[i]));
        });
        builder_.Finish(fb::CreateAcs(builder_, 0, builder_.CreateVector(acs_)));
        const iovec piece = {builder_.GetBufferPointer(), builder_.GetSize()};
        out.put(&piece, 1);
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        for (const fb::Ac *const ac : *::flatbuffers::GetRoot<fb::Acs>(message.data())->acs()) {
            read.handles[first] = ac->handle();
            get(*ac, read.definitions[first]);
            get(*ac, read.infos[first]);
            ++first;
        }
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        builder_.Clear();
        std::vector<Offset<fb::Provisioned>> acs;
        for (uint32_t i = 0; i < job.count; ++i) {
            const l2vpn_ac_xcid_data_t &data = job.data[i];
            const uint32_t *const words = data.words;
            uint16_t octets = 0, half = 0;
            Offset<fb::Class8Data> class8;
            if (job.class_id == 0) {
                octets = raw<uint16_t>(data.by_class.class0.octets);
                half = data.by_class.class0.half;
            } else {
                class8 = make(builder_, data.by_class.class8);
            }
            acs.push_back(fb::CreateProvisioned(builder_, job.handles[i], words[0], words[1], words[2],
                                                words[3], words[4], words[5], words[6], octets, half,
                                                class8));
        }
        builder_.Finish(fb::CreateProvisionedAcs(builder_, 0, builder_.CreateVector(acs)));
        size = builder_.GetSize();
        return aligned_copy(builder_.GetBufferPointer(), size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        const auto *const raw_message = reinterpret_cast<const uint8_t *>(message.data());
        ::flatbuffers::Verifier verifier(raw_message, message.size());
        if (!verifier.VerifyBuffer<fb::ProvisionedAcs>())
            return false;
        const auto *const acs = ::flatbuffers::GetRoot<fb::ProvisionedAcs>(raw_message)->acs();
        if (acs == nullptr || acs->size() != read.count)
            return false;
        bool whole = true;
        with_class(read.class_id, [&](auto class_id) {
            for (uint32_t i = 0; whole && i < read.count; ++i) {
                const fb::Provisioned &ac = *acs->Get(i);
                read.handles[i] = ac.handle();
                whole = get<class_id>(ac, read.data[i]);
            }
        });
        return whole;
    }

private:
    FlatBufferBuilder builder_{1u << 20};
    std::vector<Offset<fb::Ac>> acs_;
};

} // namespace

std::unique_ptr<rival> flatbuffers_tables_rival()
{
    return std::make_unique<flat_tables>();
}
