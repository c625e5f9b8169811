/*
 * What is odd here is on purpose, and both ends count on it:
 *
 *   - Class 15 has sizes but is never valid.
 *   - The definition's conversions do not follow those of the information: classes 1 and 16 convert a half
 *     of their information as class 0 does, and nothing of their definition.
 *   - Class 9 has an information size and no layout: converting a record of it is fatal.
 *   - Class 17 has an information size of 200, but only heads are written, 16 bytes apart; the rest of the
 *     array stays zero. Senders slice the array at 200 bytes an element all the same.
 *   - Classes 7, 9 and 17 have a data size, so that a message of theirs passes the length check, and no
 *     data layout: decoding it is fatal.
 */
#include "l2vpn_ac_class.h"

#include "l2vpn_ac_wire.h"

#include <platform/platform.h>

#include <array>
#include <cstring>

namespace {

constexpr size_t info_stride = sizeof(l2vpn_ac_info_t);
constexpr size_t defn_size = sizeof(l2vpn_ac_defn_t);
constexpr size_t data_stride = sizeof(l2vpn_ac_xcid_data_t);

/* So many records ahead memory is asked for. */
constexpr ptrdiff_t prefetch_ahead = 16;

/* --- definitions ------------------------------------------------------------------------------------- */

template <l2vpn_ac_step... by_class>
struct defn {
    using program = l2vpn_ac_program<u32(68), u32(72), u32(76), by_class..., u32(608), u32(612)>;

    static_assert(program::reach <= defn_size);

    static void convert(l2vpn_ac_defn_t *defn) { convert(defn, prefetch_ahead * ptrdiff_t{defn_size}); }

    static void restore(l2vpn_ac_defn_t *defns, size_t count)
    {
        for (defns += count; count > 0; --count)
            convert(--defns, -prefetch_ahead * ptrdiff_t{defn_size});
    }

private:
    static void convert(l2vpn_ac_defn_t *defn, ptrdiff_t soon)
    {
        auto *const record = reinterpret_cast<std::byte *>(defn);
        l2vpn_ac_prefetch(record + program::begin, soon);
        l2vpn_ac_prefetch(record + program::reach - 1, soon);
        program::convert(record);
    }
};

/* --- information ------------------------------------------------------------------------------------- */

using info_head = l2vpn_ac_program<u32(0), u32(4), u32(8), u32(12)>;
static_assert(info_head::reach == L2VPN_AC_INFO_HEAD);

/* Converted on its way: from the wire array it would have to be loaded again where it was just stored. */
void encode_info_head(const std::byte *host, std::byte *wire)
{
    std::byte head[L2VPN_AC_INFO_HEAD];
    std::memcpy(head, host, sizeof head);
    l2vpn_ac_convert_records<info_head, sizeof head>(head, 1);
    std::memcpy(wire, head, sizeof head);
}

template <uint32_t wire_size, l2vpn_ac_step... by_class>
struct info {
    static constexpr uint32_t size = wire_size;
    static constexpr uint32_t stride = size;
    using part = l2vpn_ac_program<by_class...>;
    static_assert(size >= L2VPN_AC_INFO_HEAD && size <= info_stride &&
                  info_head::then<by_class...>::reach <= size);

    static void encode(const std::byte *host, std::byte *wire)
    {
        l2vpn_ac_prefetch(host, prefetch_ahead * ptrdiff_t{info_stride});
        l2vpn_ac_prefetch(host + size - 1, prefetch_ahead * ptrdiff_t{info_stride});
        encode_info_head(host, wire);
        std::memcpy(wire + L2VPN_AC_INFO_HEAD, host + L2VPN_AC_INFO_HEAD, size - L2VPN_AC_INFO_HEAD);
        part::convert(wire);
    }
};

/*
 * Class 6's byte of bit-fields. Compilers for little-endian hosts allocate from the least significant bit,
 * the wire from the most significant: four single bits, then two pairs that keep their values.
 */
constexpr size_t class6_bits_at = 24;

constexpr std::array<uint8_t, 256> class6_bits_to_wire = [] {
    std::array<uint8_t, 256> table{};
    for (unsigned host = 0; host < table.size(); ++host) {
        const unsigned a = host & 1, b = host >> 1 & 1, c = host >> 2 & 1, d = host >> 3 & 1;
        const unsigned e = host >> 4 & 3, f = host >> 6 & 3;
        const unsigned wire = a << 7 | b << 6 | c << 5 | d << 4 | e << 2 | f;
        table[host] = static_cast<uint8_t>(l2vpn_ac_host_is_wire ? host : wire);
    }
    return table;
}();

struct info_class6 : info<200, u16(16), u32(20), u16(26), u32(28), u32(32), u64(40), u64(120), u32(196)> {
    static void encode(const std::byte *host, std::byte *wire)
    {
        info::encode(host, wire);
        std::byte &bits = wire[class6_bits_at];
        bits = std::byte{class6_bits_to_wire[std::to_integer<size_t>(bits)]};
    }
};

struct info_class17 {
    static constexpr uint32_t size = 200;
    static constexpr uint32_t stride = L2VPN_AC_INFO_HEAD;
    static constexpr bool reports = true;

    static void encode(const std::byte *host, std::byte *wire)
    {
        l2vpn_gen_assert_errmsg(1);
        encode_info_head(host, wire);
    }
};

/* A size without a layout: a record of it must never be converted. */
template <uint32_t wire_size>
struct info_without_layout {
    static_assert(wire_size > L2VPN_AC_INFO_HEAD);
    static constexpr uint32_t size = wire_size;
};

/* --- provisioned data -------------------------------------------------------------------------------- */

using data_head = l2vpn_ac_program<u32(0), u32(4), u32(8), u32(12), u32(16), u32(20), u32(24)>;
static_assert(data_head::reach == L2VPN_AC_DATA_HEAD);

template <uint32_t wire_size, l2vpn_ac_step... by_class>
struct data {
    static constexpr uint32_t size = wire_size;
    using program = data_head::then<by_class...>;
    static_assert(size >= L2VPN_AC_DATA_HEAD && size <= data_stride && program::reach <= size);

    static void decode(std::byte *wire, l2vpn_ac_xcid_data_t *records, size_t count)
    {
        for (; count > 0; --count, ++records, wire += size) {
            program::convert(wire);
            std::memcpy(records, wire, size);
        }
    }
};

using data_class8 = data<2676, u32(64), u32(2628), u32(2632), u32(2636), u32(2640), u32(2644), u32(2652),
                         u32(2656), u32(2660), u32(2664), u32(2668), u32(2672)>;
using info_class7 = info<56, u32(24), u32(40), u32(44), u32(48), u32(52)>;

template <uint32_t wire_size>
struct data_without_layout {
    static_assert(wire_size > L2VPN_AC_DATA_HEAD);
    static constexpr uint32_t size = wire_size;
};

/* --- the table --------------------------------------------------------------------------------------- */

template <typename info_part>
void encode_infos(const l2vpn_ac_info_t *infos, std::byte *wire, size_t count)
{
    const auto *host = reinterpret_cast<const std::byte *>(infos);
    for (; count > 0; --count, host += info_stride, wire += info_part::stride)
        info_part::encode(host, wire);
}

/* Two arrays at a time are waited for less than one after the other. Who is reported to finds the definitions as
 * the caller made them. */
template <typename defn_part, typename info_part>
void encode_acs(l2vpn_ac_defn_t *defns, const l2vpn_ac_info_t *infos, std::byte *wire, size_t count)
{
    if constexpr (requires { info_part::reports; }) {
        encode_infos<info_part>(infos, wire, count);
        for (; count > 0; --count, ++defns)
            defn_part::convert(defns);
    } else {
        const auto *host = reinterpret_cast<const std::byte *>(infos);
        for (; count > 0; --count, ++defns, host += info_stride, wire += info_part::stride) {
            defn_part::convert(defns);
            info_part::encode(host, wire);
        }
    }
}

template <typename defn_part, typename info_part, typename data_part>
constexpr l2vpn_ac_class_row row(l2vpn_ac_class_t class_id)
{
    l2vpn_ac_class_row result = {class_id, info_part::size, data_part::size + L2VPN_AC_IFH_LEN,
                                 nullptr,  nullptr,         defn_part::restore,
                                 nullptr};
    if constexpr (requires { &info_part::encode; }) {
        result.encode_infos = encode_infos<info_part>;
        result.encode_acs = encode_acs<defn_part, info_part>;
    }
    if constexpr (requires { &data_part::decode; })
        result.decode_data = data_part::decode;
    return result;
}

using info_half = info<20, u16(18)>;
using info_halves = info<20, u16(16), u16(18)>;
using data_half = data<32, u16(30)>;
using data_halves = data<32, u16(28), u16(30)>;
using defn_half = defn<u16(84)>;
using defn_halves = defn<u16(80), u16(82)>;
using defn_word = defn<u32(80)>;

constexpr l2vpn_ac_class_row rows[L2VPN_AC_CLASS_MAX] = {
    row<defn_half, info_half, data_half>(0),
    row<defn<>, info_half, data_half>(1),
    row<defn_halves, info_halves, data_halves>(2),
    row<defn<>, info<16>, data<28>>(3),
    row<defn_word, info<16>, data<28>>(4),
    row<defn<>, info<16>, data<28>>(5),
    row<defn_word, info_class6, data<28>>(6),
    row<defn<>, info_class7, data_without_layout<72>>(7),
    row<defn<>, info<2356>, data_class8>(8),
    row<defn<>, info_without_layout<96>, data_without_layout<108>>(9),
    row<defn<>, info<16>, data<28>>(10),
    row<defn_word, info<24, u32(16), u32(20)>, data<67>>(11),
    row<defn<>, info<16>, data<28>>(12),
    row<defn<>, info<16>, data<28>>(13),
    row<defn<>, info<16>, data<28>>(14),
    row<defn<>, info_without_layout<20>, data_without_layout<32>>(15),
    row<defn<>, info_half, data_half>(16),
    row<defn_word, info_class17, data_without_layout<93>>(17),
};

constexpr bool valid(uint32_t class_id)
{
    return class_id < L2VPN_AC_CLASS_MAX && (L2VPN_AC_CLASS_VALID_MASK >> class_id & 1) != 0;
}

constexpr bool rows_know_their_index()
{
    for (uint32_t i = 0; i < L2VPN_AC_CLASS_MAX; ++i) {
        if (rows[i].class_id != i)
            return false;
    }
    return true;
}
static_assert(rows_know_their_index());

} // namespace

const l2vpn_ac_class_row *l2vpn_ac_class_find(uint32_t class_id)
{
    return valid(class_id) ? &rows[class_id] : nullptr;
}

bool l2vpn_get_var_ac_info_msg_size(uint32_t class_id, uint32_t *size)
{
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(class_id);
    if (row == nullptr)
        return false;
    *size = row->info_size - L2VPN_AC_INFO_HEAD;
    return true;
}

bool l2vpn_get_var_ac_data_base_size(uint32_t class_id, uint32_t *size)
{
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(class_id);
    if (row == nullptr)
        return false;
    *size = row->data_size - L2VPN_AC_IFH_LEN - L2VPN_AC_DATA_HEAD;
    return true;
}
