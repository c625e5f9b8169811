/*
 * Cap'n Proto. The first segment is memory that is used again; the segments go out as they are, behind the
 * table that tells their sizes.
 */
#include "octets.h"
#include "rival.h"

#include <ac.capnp.h>
#include <capnp/message.h>
#include <capnp/serialize.h>

#include <cstring>

namespace cp = bench_capnproto;

namespace {

constexpr size_t scratch_words = 1u << 17;

template <size_t size>
capnp::Data::Reader data_of(const uint8_t (&array)[size])
{
    return {array, size};
}

template <size_t size>
void get(uint8_t (&to)[size], capnp::Data::Reader from)
{
    memcpy(to, from.begin(), std::min(size, from.size()));
}

void put(cp::Ac::Builder to, const l2vpn_ac_defn_t &from)
{
    to.setOpaque(data_of(from.opaque));
    to.setWord(from.word);
    to.setWord2(from.word2);
    to.setWord3(from.word3);
    to.setOctets(raw<uint32_t>(from.by_class.octets));
    to.setHalf(from.by_class2.half);
    to.setOpaque2(data_of(from.opaque2));
    to.setWord4(from.word4);
    to.setWord5(from.word5);
}

void get(cp::Ac::Reader from, l2vpn_ac_defn_t &to)
{
    get(to.opaque, from.getOpaque());
    to.word = from.getWord();
    to.word2 = from.getWord2();
    to.word3 = from.getWord3();
    unraw(to.by_class.octets, from.getOctets());
    to.by_class2.half = from.getHalf();
    get(to.opaque2, from.getOpaque2());
    to.word4 = from.getWord4();
    to.word5 = from.getWord5();
}

void put(cp::Class6::Builder to, const l2vpn_ac_info_class6_t &from)
{
    to.setHalf(from.half);
    to.setOctets(raw<uint16_t>(from.octets));
    to.setWord(from.word);
    to.setBits(bits_of(from));
    to.setOctet(from.octet);
    to.setHalf2(from.half2);
    to.setWord2(from.word2);
    to.setWord3(from.word3);
    to.setOctets2(raw<uint32_t>(from.octets2));
    to.setQuad(from.quad);
    to.setOpaque(data_of(from.opaque));
    to.setQuad2(from.quad2);
    to.setOpaque2(data_of(from.opaque2));
    to.setWord4(from.word4);
}

void get(cp::Class6::Reader from, l2vpn_ac_info_class6_t &to)
{
    to.half = from.getHalf();
    unraw(to.octets, from.getOctets());
    to.word = from.getWord();
    set_bits(to, from.getBits());
    to.octet = from.getOctet();
    to.half2 = from.getHalf2();
    to.word2 = from.getWord2();
    to.word3 = from.getWord3();
    unraw(to.octets2, from.getOctets2());
    to.quad = from.getQuad();
    get(to.opaque, from.getOpaque());
    to.quad2 = from.getQuad2();
    get(to.opaque2, from.getOpaque2());
    to.word4 = from.getWord4();
}

template <uint32_t class_id>
void put(cp::Ac::Builder to, const l2vpn_ac_info_t &from)
{
    to.setHead(from.words[0]);
    to.setHead2(from.words[1]);
    to.setHead3(from.words[2]);
    to.setHead4(from.words[3]);
    if constexpr (class_id == 0) {
        auto part = to.getByClass().initClass0();
        part.setOctets(raw<uint16_t>(from.by_class.class0.octets));
        part.setHalf(from.by_class.class0.half);
    } else if constexpr (class_id == 6) {
        put(to.getByClass().initClass6(), from.by_class.class6);
    } else if constexpr (class_id == 7) {
        auto part = to.getByClass().initClass7();
        part.setOpaque(raw<uint64_t>(from.by_class.class7.opaque));
        part.setWord(from.by_class.class7.word);
        part.setOpaque2(data_of(from.by_class.class7.opaque2));
        part.setTail(from.by_class.class7.words[0]);
        part.setTail2(from.by_class.class7.words[1]);
        part.setTail3(from.by_class.class7.words[2]);
        part.setTail4(from.by_class.class7.words[3]);
    } else {
        to.getByClass().setClass8(data_of(from.by_class.class8.opaque));
    }
}

void get(cp::Ac::Reader from, l2vpn_ac_info_t &to)
{
    to.words[0] = from.getHead();
    to.words[1] = from.getHead2();
    to.words[2] = from.getHead3();
    to.words[3] = from.getHead4();
    const auto by_class = from.getByClass();
    if (by_class.isClass0()) {
        unraw(to.by_class.class0.octets, by_class.getClass0().getOctets());
        to.by_class.class0.half = by_class.getClass0().getHalf();
    } else if (by_class.isClass6()) {
        get(by_class.getClass6(), to.by_class.class6);
    } else if (by_class.isClass7()) {
        const auto part = by_class.getClass7();
        unraw(to.by_class.class7.opaque, part.getOpaque());
        to.by_class.class7.word = part.getWord();
        get(to.by_class.class7.opaque2, part.getOpaque2());
        to.by_class.class7.words[0] = part.getTail();
        to.by_class.class7.words[1] = part.getTail2();
        to.by_class.class7.words[2] = part.getTail3();
        to.by_class.class7.words[3] = part.getTail4();
    } else {
        get(to.by_class.class8.opaque, by_class.getClass8());
    }
}

void put(cp::Provisioned::ByClass::Class8::Builder to, const l2vpn_ac_xcid_class8_t &from)
{
    to.setOpaque(data_of(from.opaque));
    to.setWord(from.word);
    to.setOpaque2(data_of(from.opaque2));
    to.setWords(kj::arrayPtr(from.words, 4));
    to.setWord2(from.word2);
    to.setOctets(raw<uint32_t>(from.octets));
    to.setWords2(kj::arrayPtr(from.words2, 4));
    to.setWord3(from.word3);
    to.setWord4(from.word4);
}

void get(uint32_t (&to)[4], capnp::List<uint32_t>::Reader from)
{
    for (unsigned i = 0; i < std::min(4u, from.size()); ++i)
        to[i] = from[i];
}

void get(cp::Provisioned::ByClass::Class8::Reader from, l2vpn_ac_xcid_class8_t &to)
{
    get(to.opaque, from.getOpaque());
    to.word = from.getWord();
    get(to.opaque2, from.getOpaque2());
    get(to.words, from.getWords());
    to.word2 = from.getWord2();
    unraw(to.octets, from.getOctets());
    get(to.words2, from.getWords2());
    to.word3 = from.getWord3();
    to.word4 = from.getWord4();
}

class capnproto final : public rival {
public:
    const char *name() const override { return "Cap'n Proto"; }

    void create(const create_job &job, uint32_t first, uint32_t end, counting::outlet &out) override
    {
        capnp::MallocMessageBuilder message(kj::arrayPtr(scratch_.data(), scratch_.size()));
        auto acs = message.initRoot<cp::Create>().initAcs(end - first);
        with_class(job.class_id, [&](auto class_id) {
            for (uint32_t i = first; i < end; ++i) {
                cp::Ac::Builder ac = acs[i - first];
                ac.setHandle(job.handles[i]);
                put(ac, job.definitions[i]);
                put<class_id>(ac, job.infos[i]);
            }
        });
        const auto segments = message.getSegmentsForOutput();
        if (segments.size() > segments_max)
            throw std::length_error("a message of Cap'n Proto's has too many segments");
        uint32_t table[segments_max + 2] = {static_cast<uint32_t>(segments.size() - 1)};
        iovec pieces[segments_max + 1] = {{table, (segments.size() + 2) / 2 * 8}};
        for (size_t i = 0; i < segments.size(); ++i) {
            table[1 + i] = static_cast<uint32_t>(segments[i].size());
            pieces[1 + i] = {const_cast<capnp::word *>(segments[i].begin()), segments[i].asBytes().size()};
        }
        out.put(pieces, 1 + segments.size());
    }

    void read_create(std::span<const std::byte> message, create_job &read, uint32_t first) override
    {
        const std::vector<uint64_t> words = aligned_copy(message.data(), message.size());
        capnp::FlatArrayMessageReader reader(words_of(words.data(), message.size()), generous());
        for (const cp::Ac::Reader ac : reader.getRoot<cp::Create>().getAcs()) {
            read.handles[first] = ac.getHandle();
            get(ac, read.definitions[first]);
            get(ac, read.infos[first]);
            ++first;
        }
    }

    std::vector<uint64_t> provision(const provision_job &job, size_t &size) override
    {
        capnp::MallocMessageBuilder message(static_cast<unsigned>(scratch_words));
        auto acs = message.initRoot<cp::Provision>().initAcs(job.count);
        for (uint32_t i = 0; i < job.count; ++i) {
            cp::Provisioned::Builder ac = acs[i];
            const l2vpn_ac_xcid_data_t &data = job.data[i];
            ac.setHandle(job.handles[i]);
            ac.setWord(data.words[0]);
            ac.setWord2(data.words[1]);
            ac.setWord3(data.words[2]);
            ac.setWord4(data.words[3]);
            ac.setWord5(data.words[4]);
            ac.setWord6(data.words[5]);
            ac.setWord7(data.words[6]);
            if (job.class_id == 0) {
                auto part = ac.getByClass().initClass0();
                part.setOctets(raw<uint16_t>(data.by_class.class0.octets));
                part.setHalf(data.by_class.class0.half);
            } else {
                put(ac.getByClass().initClass8(), data.by_class.class8);
            }
        }
        const kj::Array<capnp::word> flat = capnp::messageToFlatArray(message);
        size = flat.asBytes().size();
        return aligned_copy(flat.begin(), size);
    }

    bool read_provision(std::span<const std::byte> message, provision_job &read) override
    {
        capnp::FlatArrayMessageReader reader(words_of(message.data(), message.size()), generous());
        const auto acs = reader.getRoot<cp::Provision>().getAcs();
        if (acs.size() != read.count)
            return false;
        with_class(read.class_id, [&](auto class_id) {
            for (uint32_t i = 0; i < read.count; ++i) {
                const cp::Provisioned::Reader ac = acs[i];
                l2vpn_ac_xcid_data_t &data = read.data[i];
                read.handles[i] = ac.getHandle();
                data.words[0] = ac.getWord();
                data.words[1] = ac.getWord2();
                data.words[2] = ac.getWord3();
                data.words[3] = ac.getWord4();
                data.words[4] = ac.getWord5();
                data.words[5] = ac.getWord6();
                data.words[6] = ac.getWord7();
                if constexpr (class_id == 0) {
                    const auto part = ac.getByClass().getClass0();
                    unraw(data.by_class.class0.octets, part.getOctets());
                    data.by_class.class0.half = part.getHalf();
                    memset(&data.by_class.class0 + 1, 0, sizeof data.by_class - sizeof data.by_class.class0);
                } else {
                    get(ac.getByClass().getClass8(), data.by_class.class8);
                }
            }
        });
        return true;
    }

private:
    static constexpr size_t segments_max = 14;

    static kj::ArrayPtr<const capnp::word> words_of(const void *at, size_t size)
    {
        return {static_cast<const capnp::word *>(at), size / sizeof(capnp::word)};
    }

    static capnp::ReaderOptions generous()
    {
        capnp::ReaderOptions options;
        options.traversalLimitInWords = UINT64_MAX;
        return options;
    }

    /* Zeros; what a builder has used it zeroes again. */
    std::vector<capnp::word> scratch_ = std::vector<capnp::word>(scratch_words);
};

} // namespace

std::unique_ptr<rival> capnproto_rival()
{
    return std::make_unique<capnproto>();
}
