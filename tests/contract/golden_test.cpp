/*
 * Every outbound message against its golden file, byte for byte: the records are filled with what the file
 * says lies in a host's memory, and what is sent must be what it says lies on the wire.
 */
#include "ac_classes.h"
#include "contract_test.h"

namespace {

constexpr std::uint32_t classes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 16, 17};

class golden_ac : public contract, public testing::WithParamInterface<std::uint32_t> {
protected:
    static std::uint32_t count_of(const golden::message &message) { return be32(&message.wire[8]); }

    template <typename T>
    static std::vector<T> records(const golden::message &message, std::size_t offset, std::size_t size,
                                  std::size_t stride, std::size_t count)
    {
        std::vector<T> result(count);
        /* What a record has beyond its class's size must not matter. */
        std::memset(static_cast<void *>(result.data()), 0xee, count * sizeof(T));
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(static_cast<void *>(&result[i]), &message.host.at(offset + i * stride), size);
        return result;
    }

    std::vector<l2vpn_ac_info_t> infos_of(const golden::message &message, std::size_t offset) const
    {
        const bool packed_heads = GetParam() == 17;
        const std::size_t size = packed_heads ? 16 : ac_classes::rows[GetParam()].info;
        return records<l2vpn_ac_info_t>(message, offset, size, size, count_of(message));
    }
};

INSTANTIATE_TEST_SUITE_P(classes, golden_ac, testing::ValuesIn(classes),
                         [](const auto &param) { return "class_" + std::to_string(param.param); });

TEST_P(golden_ac, create)
{
    const auto message = golden::load("create_class_" + std::to_string(GetParam()));
    const std::uint32_t n = count_of(message);
    ASSERT_EQ(message.wire.size(), 16 + n * (620 + ac_classes::rows[GetParam()].info));
    auto ifh = records<ifhtype>(message, 16, 4, 4, n);
    auto defns = records<l2vpn_ac_defn_t>(message, 16 + 4 * n, 616, 616, n);
    auto infos = infos_of(message, 16 + 620 * n);
    const auto ifh_before = ifh;
    const auto defns_before = defns;
    const auto infos_before = infos;

    const auto hd = connect_up(GetParam());
    EXPECT_EQ(lib.create(hd, 0, n, ifh.data(), defns.data(), infos.data()), 0u);
    EXPECT_THAT(sent(GetParam()), ElementsAre(message.wire));
    EXPECT_EQ(ifh, ifh_before);
    EXPECT_EQ(std::memcmp(defns.data(), defns_before.data(), n * 616), 0);
    EXPECT_EQ(std::memcmp(infos.data(), infos_before.data(), n * 2360), 0);
}

TEST_P(golden_ac, update)
{
    const auto message = golden::load("update_class_" + std::to_string(GetParam()));
    const std::uint32_t n = count_of(message);
    ASSERT_EQ(message.wire.size(), 16 + n * (4 + ac_classes::rows[GetParam()].info));
    auto ifh = records<ifhtype>(message, 16, 4, 4, n);
    auto infos = infos_of(message, 16 + 4 * n);

    const auto hd = connect_up(GetParam());
    EXPECT_EQ(lib.update(hd, 0, n, ifh.data(), infos.data()), 0u);
    EXPECT_THAT(sent(GetParam()), ElementsAre(message.wire));
}

/* The byte of bit-fields, all 256 values: A is the lowest bit in memory and the highest on the wire. */
TEST_F(contract, golden_class_6_bit_fields)
{
    const auto hd = connect_up(6);
    for (unsigned value = 0; value < 256; ++value) {
        l2vpn_ac_info_t info = {};
        auto &part = info.by_class.class6;
        part.bit_a = value & 1;
        part.bit_b = value >> 1 & 1;
        part.bit_c = value >> 2 & 1;
        part.bit_d = value >> 3 & 1;
        part.bits_e = value >> 4 & 3;
        part.bits_f = value >> 6 & 3;
        ifhtype ifh = 1;
        world.link_of(6).clear_sent();
        ASSERT_EQ(lib.update(hd, 0, 1, &ifh, &info), 0u);
        const unsigned expected = part.bit_a * 128u + part.bit_b * 64u + part.bit_c * 32u + part.bit_d * 16u +
                                  part.bits_e * 4u + part.bits_f;
        const bytes &message = sent(6).at(0);
        EXPECT_EQ(message[20 + 24], expected) << "bit-fields " << value;
        EXPECT_EQ(bytes(message.begin() + 20, message.begin() + 20 + 24), bytes(24, 0));
        EXPECT_EQ(bytes(message.begin() + 20 + 25, message.end()), bytes(175, 0)) << "only this byte";
    }
}

TEST_F(contract, golden_class_6_bit_fields_worked_examples)
{
    const auto hd = connect_up(6);
    for (const auto &[memory, wire] : {std::pair{0x01, 0x80}, {0x30, 0x0c}, {0xc0, 0x03}}) {
        if (std::endian::native == std::endian::big)
            break; /* the host's bit-fields lie as on the wire */
        l2vpn_ac_info_t info = {};
        reinterpret_cast<std::uint8_t *>(&info)[24] = static_cast<std::uint8_t>(memory);
        ifhtype ifh = 1;
        world.link_of(6).clear_sent();
        ASSERT_EQ(lib.update(hd, 0, 1, &ifh, &info), 0u);
        EXPECT_EQ(sent(6).at(0)[20 + 24], wire);
    }
}

TEST_F(contract, golden_join)
{
    connect(4);
    EXPECT_THAT(sent(4), ElementsAre(golden::load("join").wire));
}

TEST_F(contract, golden_create_empty)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(lib.create(hd, 0xa1b2c3d2, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_THAT(sent(4), ElementsAre(golden::load("create_empty").wire));
}

TEST_F(contract, golden_update_empty)
{
    const auto hd = connect_up(4);
    EXPECT_EQ(lib.update(hd, 0xa1b2c3d2, 0, nullptr, nullptr), 0u);
    EXPECT_THAT(sent(4), ElementsAre(golden::load("update_empty").wire));
}

/* --- messages whose records are sent from the caller's array as it lies --- */

template <typename T>
std::vector<T> payload(const golden::message &message)
{
    std::vector<T> result((message.host.size() - 16) / sizeof(T));
    if (!result.empty())
        std::memcpy(static_cast<void *>(result.data()), &message.host[16], result.size() * sizeof(T));
    return result;
}

TEST_F(contract, golden_delete)
{
    const auto message = golden::load("delete");
    auto ifh = payload<ifhtype>(message);
    const auto hd = connect_up(4);
    EXPECT_EQ(lib.remove(hd, 0, static_cast<std::uint32_t>(ifh.size()), ifh.data()), 0u);
    EXPECT_THAT(sent(4), ElementsAre(message.wire));
}

template <typename T, typename F>
void expect_mstp(const std::string &name, F request, const std::vector<bytes> &sent)
{
    const auto message = golden::load(name);
    auto records = payload<T>(message);
    const auto before = records;
    EXPECT_EQ(request(records.data(), static_cast<std::uint32_t>(records.size())), 0u);
    EXPECT_THAT(sent, ElementsAre(message.wire));
    EXPECT_EQ(std::memcmp(records.data(), before.data(), records.size() * sizeof(T)), 0) << "restored";

    const auto empty = golden::load(name + "_empty");
    EXPECT_EQ(request(static_cast<T *>(nullptr), std::uint32_t{0}), 0u);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1], empty.wire);
}

constexpr std::uint32_t flags_of(std::uint32_t count)
{
    return count == 0 ? 0xa1b2c3d2 : 0;
}

TEST_F(contract, golden_mstp_root)
{
    const auto hd = connect_up(4);
    expect_mstp<l2vpn_msti_root_t>(
        "mstp_root", [&](auto *r, auto n) { return lib.mstp_root(hd, flags_of(n), r, n); }, sent(4));
}

TEST_F(contract, golden_mstp_state)
{
    const auto hd = connect_up(4);
    expect_mstp<l2vpn_mstp_req_t>(
        "mstp_state", [&](auto *r, auto n) { return lib.mstp_port_request(hd, flags_of(n), r, n); }, sent(4));
}

TEST_F(contract, golden_msti_vid_map)
{
    const auto hd = connect_up(4);
    expect_mstp<l2vpn_msti_vid_map_t>(
        "msti_vid_map", [&](auto *r, auto n) { return lib.msti_vid_map(hd, flags_of(n), r, n); }, sent(4));
}

TEST_F(contract, golden_mstp_protect)
{
    const auto message = golden::load("mstp_protect");
    auto prot = payload<l2vpn_mstp_prot_t>(message).at(0);
    const auto before = prot;
    const auto hd = connect_up(4);
    EXPECT_EQ(lib.mstp_protect(hd, 0xa1b2c3d4, &prot), 0u);
    EXPECT_THAT(sent(4), ElementsAre(message.wire));
    EXPECT_EQ(std::memcmp(&prot, &before, sizeof prot), 0);
}

/* --- inbound --- */

class golden_provision : public contract, public testing::WithParamInterface<std::uint32_t> {};

INSTANTIATE_TEST_SUITE_P(classes, golden_provision,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 8, 10, 11, 12, 13, 14, 16),
                         [](const auto &param) { return "class_" + std::to_string(param.param); });

TEST_P(golden_provision, is_decoded)
{
    const auto message = golden::load("provision_class_" + std::to_string(GetParam()));
    const std::uint32_t n = be32(&message.wire[8]);
    const std::size_t size = ac_classes::rows[GetParam()].data - 4;
    ASSERT_EQ(message.wire.size(), 16 + n * (4 + size));

    const auto hd = connect_up(GetParam());
    world.link_of(GetParam()).inject(message.wire);
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    const notice &got = notices[0];
    EXPECT_EQ(got.what, notice::prov);
    EXPECT_EQ(got.hd, hd);
    EXPECT_EQ(got.first, n);
    EXPECT_EQ(got.second, 0xa1b2c3d4u);
    ASSERT_EQ(got.ifhs.size(), n);
    EXPECT_EQ(std::memcmp(got.ifhs.data(), &message.host[16], 4 * n), 0);
    for (std::size_t i = 0; i < n; ++i) {
        const auto *const record = reinterpret_cast<const std::uint8_t *>(&got.data[i]);
        EXPECT_EQ(std::memcmp(record, &message.host[16 + 4 * n + i * size], size), 0) << "record " << i;
        EXPECT_EQ(bytes(record + size, record + 2676), bytes(2676 - size, 0)) << "record " << i;
    }
}

TEST_F(contract, golden_unprovision)
{
    const auto message = golden::load("unprovision");
    connect_up(4);
    world.link_of(4).inject(message.wire);
    world.run();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[0].what, notice::unprov);
    EXPECT_EQ(notices[0].first, 3u);
    EXPECT_EQ(notices[0].second, 0xa1b2c3d6u);
    EXPECT_EQ(std::memcmp(notices[0].ifhs.data(), &message.host[16], 12), 0);
    EXPECT_EQ(notices[1].what, notice::status);
    EXPECT_EQ(notices[1].first, L2VPN_AC_STATUS_FLAG);
    EXPECT_EQ(notices[1].second, 0xa1b2c3d6u);
}

TEST_F(contract, golden_bulk_notify)
{
    const auto message = golden::load("bulk_notify");
    connect_up(4);
    world.link_of(4).inject(message.wire);
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].what, notice::bulk_notify);
    EXPECT_EQ(notices[0].first, 2u);
    EXPECT_EQ(notices[0].second, 0xa1b2c3d4u);
    EXPECT_EQ(std::memcmp(notices[0].records.data(), &message.host[16], 64), 0);
}

TEST_F(contract, golden_hdr_notify)
{
    const auto message = golden::load("hdr_notify");
    connect_up(4);
    world.link_of(4).inject(message.wire);
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].what, notice::hdr_notify);
    EXPECT_EQ(std::memcmp(&notices[0].first, &message.wire[8], 4), 0) << "in network byte order";
    EXPECT_EQ(std::memcmp(&notices[0].second, &message.wire[12], 4), 0);
}

} // namespace
