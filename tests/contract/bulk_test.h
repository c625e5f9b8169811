/*
 * What tests of create, update and delete share: each test is for all three.
 */
#ifndef TESTS_CONTRACT_BULK_TEST_H
#define TESTS_CONTRACT_BULK_TEST_H

#include "contract_test.h"

namespace bulk_test {

/* One kind of request, in the terms of a test. */
struct kind {
    const char *name;
    std::uint32_t msg_type, start, end, trace_id;
    std::uint32_t elements; /* bytes an AC of class 4 */
    std::vector<std::size_t> piece_elements;
    qerrno not_found;
    const char *failed_text;
};

inline void PrintTo(const kind &k, std::ostream *os)
{
    *os << k.name;
}

inline const kind kinds[] = {
    {"create", 2, 0x1, 0x2, 1079, 636, {4, 616, 16}, 2, "Failed to unicast a CREATE to L2VPN:"},
    {"update", 3, 0x4, 0x8, 1080, 20, {4, 16}, 22, "Failed to unicast a UPDATE to L2VPN:"},
    {"delete", 6, 0x10, 0x20, 1081, 4, {4}, 22, "Failed to unicast a DELETE to L2VPN:"},
};

class bulk : public contract, public testing::WithParamInterface<kind> {
protected:
    /* An MTU that lets `limit` ACs of class 4 into one message. */
    l2vpn_ac_client_hd_t connect_with_limit(std::uint32_t limit)
    {
        world.set.mtu = 16 + limit * GetParam().elements;
        return connect_up(4);
    }

    qerrno request(l2vpn_ac_client_hd_t hd, std::uint32_t flags, acs &a)
    {
        switch (GetParam().msg_type) {
        case 2:
            return create(hd, flags, a);
        case 3:
            return update(hd, flags, a);
        default:
            return remove(hd, flags, a);
        }
    }

    std::uint32_t start() const { return GetParam().start; }
    std::uint32_t end() const { return GetParam().end; }
    header head(std::uint32_t n, std::uint32_t flags) const { return {3, GetParam().msg_type, n, flags}; }
    std::string function() const { return std::string("l2vpn_ac_") + GetParam().name; }
};

} // namespace bulk_test

#endif
