/*
 * FlatBuffers at their fastest: records are structs, built in place in vectors of a builder that is used again. They
 * can never change.
 */
#include "octets.h"
#include "rival.h"

#include <ac_generated.h>

#include <cstring>

namespace fb = bench_flatbuffers;

namespace {

template <typename T, size_t size>
::flatbuffers::span<const T, size> span_of(const T (&array)[size])
{
    return ::flatbuffers::span<const T, size>(array, size);
}

template <typename Array, typename T>
void copy_to(T *to, const Array *from)
{
    memcpy(to, from->Data(), from->size() * sizeof(T)); /* hosts that are measured are little-endian */
}

void make(fb::Definition *at, const l2vpn_ac_defn_t &from)
{
    new (at) fb::Definition(span_of(from.opaque), from.word, from.word2, from.word3,
                            raw<uint32_t>(from.by_class.octets), from.by_class2.half, span_of(from.opaque2),
                            from.word4, from.word5);
}

void get(const fb::Definition &from, l2vpn_ac_defn_t &to)
{
    copy_to(to.opaque, from.opaque());
    to.word = from.word();
    to.word2 = from.word2();
    to.word3 = from.word3();
    unraw(to.by_class.octets, from.octets());
    to.by_class2.half = from.half();
    copy_to(to.opaque2, from.opaque2());
    to.word4 = from.word4();
    to.word5 = from.word5();
}

void make(fb::InfoClass0 *at, const l2vpn_ac_info_t &from)
{
    const l2vpn_ac_info_half_t &part = from.by_class.class0;
    new (at) fb::InfoClass0(span_of(from.words), raw<uint16_t>(part.octets), part.half);
}

void make(fb::InfoClass6 *at, const l2vpn_ac_info_t &from)
{
    const l2vpn_ac_info_class6_t &part = from.by_class.class6;
    new (at)
        fb::InfoClass6(span_of(from.words), part.half, raw<uint16_t>(part.octets), part.word, bits_of(part),
                       part.octet, part.half2, part.word2, part.word3, raw<uint32_t>(part.octets2), part.quad,
                       span_of(part.opaque), part.quad2, span_of(part.opaque2), part.word4);
}

void get(const fb::InfoClass6 &from, l2vpn_ac_info_t &to)
{
    l2vpn_ac_info_class6_t &part = to.by_class.class6;
    copy_to(to.words, from.words());
    part.half = from.half();
    unraw(part.octets, from.octets());
    part.word = from.word();
    set_bits(part, from.bits());
    part.octet = from.octet();
    part.half2 = from.half2();
    part.word2 = from.word2();
    part.word3 = from.word3();
    unraw(part.octets2, from.octets2());
    part.quad = from.quad();
    copy_to(part.opaque, from.opaque());
    part.quad2 = from.quad2();
    copy_to(part.opaque2, from.opaque2());
    part.word4 = from.word4();
}

void make(fb::InfoClass7 *at, const l2vpn_ac_info_t &from)
{
    const l2vpn_ac_info_class7_t &part = from.by_class.class7;
    new (at) fb::InfoClass7(span_of(from.words), span_of(part.opaque), part.word, span_of(part.opaque2),
                            span_of(part.words));
}

void make(fb::InfoClass8 *at, const l2vpn_ac_info_t &from)
{
    new (at) fb::InfoClass8(span_of(from.words), span_of(from.by_class.class8.opaque));
}

void make(fb::DataClass0 *at, const l2vpn_ac_xcid_data_t &from)
{
    const l2vpn_ac_info_half_t &part = from.by_class.class0;
    new (at) fb::DataClass0(span_of(from.words), raw<uint16_t>(part.octets), part.half);
}

void make(fb::DataClass8 *at, const l2vpn_ac_xcid_data_t &from)
{
    const l2vpn_ac_xcid_class8_t &part = from.by_class.class8;
    new (at) fb::DataClass8(span_of(from.words), span_of(part.opaque), part.word, span_of(part.opaque2),
                            span_of(part.words), part.word2, raw<uint32_t>(part.octets), span_of(part.words2),
                            part.word3, part.word4);
}

void get(const fb::DataClass0 &from, l2vpn_ac_xcid_data_t &to)
{
    l2vpn_ac_info_half_t &part = to.by_class.class0;
    copy_to(to.words, from.words());
    unraw(part.octets, from.octets());
    part.half = from.half();
    memset(&part + 1, 0, sizeof to.by_class - sizeof part);
}

void get(const fb::DataClass8 &from, l2vpn_ac_xcid_data_t &to)
{
    l2vpn_ac_xcid_class8_t &part = to.by_class.class8;
    copy_to(to.words, from.words());
    copy_to(part.opaque, from.opaque());
    part.word = from.word();
    copy_to(part.opaque2, from.opaque2());
    copy_to(part.words, from.words2());
    part.word2 = from.word2();
    unraw(part.octets, from.octets());
    copy_to(part.words2, from.words3());
    part.word3 = from.word3();
    part.word4 = from.word4();
}

template <typename T, typename From>
::flatbuffers::Offset<::flatbuffers::Vector<const T *>> vector_of(::flatbuffers::FlatBufferBuilder &builder,
                                                                  const From *from, size_t count)
{
    T *at = nullptr;
    const auto made = builder.CreateUninitializedVectorOfStructs<T>(count, &at);
    for (size_t i = 0; i < count; ++i)
        make(at + i, from[i]);
    return made;
}

class flat_structs final : public rival {
public:
    const char *name() const override { return "FlatBuffers structs"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        const uint32_t count = end - first;
        builder_.Clear();
        const auto handles = builder_.CreateVector(&job.handles[first], count);
        const auto definitions = vector_of<fb::Definition>(builder_, &job.definitions[first], count);
        const l2vpn_ac_info_t *const infos = &job.infos[first];
        if (job.class_id == 0) {
            const auto parts = vector_of<fb::InfoClass0>(builder_, infos, count);
            builder_.Finish(fb::CreateCreate(builder_, 0, handles, definitions, parts));
        } else if (job.class_id == 6) {
            const auto parts = vector_of<fb::InfoClass6>(builder_, infos, count);
            builder_.Finish(fb::CreateCreate(builder_, 0, handles, definitions, 0, 0, 0, parts));
        } else if (job.class_id == 7) {
            const auto parts = vector_of<fb::InfoClass7>(builder_, infos, count);
            builder_.Finish(fb::CreateCreate(builder_, 0, handles, definitions, 0, parts));
        } else {
            const auto parts = vector_of<fb::InfoClass8>(builder_, infos, count);
            builder_.Finish(fb::CreateCreate(builder_, 0, handles, definitions, 0, 0, parts));
        }
        const iovec piece = {builder_.GetBufferPointer(), builder_.GetSize()};
        out.put(&piece, 1);
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        const auto *const root = ::flatbuffers::GetRoot<fb::Create>(message.data());
        for (uint32_t i = 0; i < root->handles()->size(); ++i, ++first) {
            read.handles[first] = root->handles()->Get(i);
            get(*root->definitions()->Get(i), read.definitions[first]);
            l2vpn_ac_info_t &info = read.infos[first];
            if (read.class_id == 0) {
                const fb::InfoClass0 &part = *root->class0()->Get(i);
                copy_to(info.words, part.words());
                unraw(info.by_class.class0.octets, part.octets());
                info.by_class.class0.half = part.half();
            } else if (read.class_id == 6) {
                get(*root->class6()->Get(i), info);
            } else if (read.class_id == 7) {
                const fb::InfoClass7 &part = *root->class7()->Get(i);
                copy_to(info.words, part.words());
                copy_to(info.by_class.class7.opaque, part.opaque());
                info.by_class.class7.word = part.word();
                copy_to(info.by_class.class7.opaque2, part.opaque2());
                copy_to(info.by_class.class7.words, part.words2());
            } else {
                const fb::InfoClass8 &part = *root->class8()->Get(i);
                copy_to(info.words, part.words());
                copy_to(info.by_class.class8.opaque, part.opaque());
            }
        }
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        builder_.Clear();
        const auto handles = builder_.CreateVector(job.handles);
        if (job.class_id == 0) {
            const auto parts = vector_of<fb::DataClass0>(builder_, job.data.data(), job.count);
            builder_.Finish(fb::CreateProvision(builder_, 0, handles, parts));
        } else {
            const auto parts = vector_of<fb::DataClass8>(builder_, job.data.data(), job.count);
            builder_.Finish(fb::CreateProvision(builder_, 0, handles, 0, parts));
        }
        size = builder_.GetSize();
        return aligned_copy(builder_.GetBufferPointer(), size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        const auto *const raw_message = reinterpret_cast<const uint8_t *>(message.data());
        ::flatbuffers::Verifier verifier(raw_message, message.size());
        if (!verifier.VerifyBuffer<fb::Provision>())
            return false;
        const auto *const root = ::flatbuffers::GetRoot<fb::Provision>(raw_message);
        if (root->handles() == nullptr || root->handles()->size() != read.count)
            return false;
        memcpy(read.handles.data(), root->handles()->data(), read.count * sizeof(ifhtype));
        return read.class_id == 0 ? get_all(root->class0(), read) : get_all(root->class8(), read);
    }

private:
    template <typename Parts>
    static bool get_all(const Parts *parts, provision_job &read)
    {
        if (parts == nullptr || parts->size() != read.count)
            return false;
        for (uint32_t i = 0; i < read.count; ++i)
            get(*parts->Get(i), read.data[i]);
        return true;
    }

    ::flatbuffers::FlatBufferBuilder builder_{1u << 20};
};

} // namespace

std::unique_ptr<rival> flatbuffers_structs_rival()
{
    return std::make_unique<flat_structs>();
}
