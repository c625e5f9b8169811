/*
 * What tests of the MSTP requests share: the three that send arrays, each test for all three.
 */
#ifndef TESTS_CONTRACT_MSTP_TEST_H
#define TESTS_CONTRACT_MSTP_TEST_H

#include "contract_test.h"

namespace mstp_test {

inline constexpr std::uint32_t begin = L2VPN_MSTP_FLAG_BEGIN;
inline constexpr std::uint32_t end = L2VPN_MSTP_FLAG_END;

struct mstp_kind {
    const char *name;
    std::uint32_t msg_type, trace_id;
    std::size_t record_size;
    std::uint32_t share; /* bytes of the MTU that a record is given */
    const char *called;
};

inline void PrintTo(const mstp_kind &k, std::ostream *os)
{
    *os << k.name;
}

inline const mstp_kind mstp_kinds[] = {
    {"l2vpn_mstp_root", 14, 1083, 8, 12, " Called for L2VPN_MSTP_MSG_IS_ROOT"},
    {"l2vpn_mstp_port_request", 11, 1084, 96, 96, "Called for L2VPN_MSTP_MSG_STATE"},
    {"l2vpn_msti_vid_map", 9, 1085, 4, 4, " Called for L2VPN_MSTP_MSG_VID_MAP"},
};

class mstp_base : public contract {
protected:
    static bytes records(const mstp_kind &kind, std::uint32_t count)
    {
        bytes result(count * kind.record_size);
        std::uint8_t next = 7;
        for (auto &byte : result)
            byte = next = static_cast<std::uint8_t>(next * 5 + 1);
        return result;
    }

    qerrno send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, std::uint32_t flags, void *array,
                std::uint32_t count)
    {
        switch (kind.msg_type) {
        case 14:
            return lib.mstp_root(hd, flags, static_cast<l2vpn_msti_root_t *>(array), count);
        case 11:
            return lib.mstp_port_request(hd, flags, static_cast<l2vpn_mstp_req_t *>(array), count);
        default:
            return lib.msti_vid_map(hd, flags, static_cast<l2vpn_msti_vid_map_t *>(array), count);
        }
    }

    /* Sends records and expects them back as they were. */
    qerrno send(const mstp_kind &kind, l2vpn_ac_client_hd_t hd, std::uint32_t flags, std::uint32_t count)
    {
        bytes array = records(kind, count);
        const qerrno rc = send(kind, hd, flags, array.data(), count);
        EXPECT_EQ(array, records(kind, count)) << "restored";
        return rc;
    }

    bool batch_is_open(const mstp_kind &kind, l2vpn_ac_client_hd_t hd)
    {
        world.link_of(4).clear_sent();
        EXPECT_EQ(send(kind, hd, 0, 1), 0u);
        return flags_sent() == std::vector<std::uint32_t>{0};
    }
};

class mstp : public mstp_base, public testing::WithParamInterface<mstp_kind> {
protected:
    l2vpn_ac_client_hd_t connect_with_limit(std::uint32_t limit)
    {
        world.set.mtu = 16 + limit * GetParam().share;
        return connect_up(4);
    }
    qerrno request(l2vpn_ac_client_hd_t hd, std::uint32_t flags, std::uint32_t count)
    {
        return send(GetParam(), hd, flags, count);
    }
    bool is_open(l2vpn_ac_client_hd_t hd) { return batch_is_open(GetParam(), hd); }
};

} // namespace mstp_test

#endif
