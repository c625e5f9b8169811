/*
 * What tests of messages from the L2VPN process share.
 */
#ifndef TESTS_CONTRACT_INBOUND_TEST_H
#define TESTS_CONTRACT_INBOUND_TEST_H

#include "contract_test.h"

namespace inbound_test {

inline constexpr std::uint32_t flag = L2VPN_AC_STATUS_FLAG;
inline constexpr std::uint32_t prov = 7, unprov = 8, bulk_notify = 13, hdr_notify = 15;

/* A header notice's flags are tested as they lie: on a little-endian host the bit is at the word's other end. */
inline constexpr bool little = std::endian::native == std::endian::little;
inline constexpr std::uint32_t hdr_notify_raising = little ? 0x02000000 : 0x2;
inline constexpr std::uint32_t hdr_notify_silent = little ? 0x2 : 0x02000000;

class inbound : public contract {
protected:
    void deliver(std::uint32_t class_id, const bytes &message)
    {
        world.link_of(class_id).inject(message);
        world.run();
    }

    std::vector<notice::kind> kinds() const
    {
        std::vector<notice::kind> result;
        for (const notice &n : notices)
            result.push_back(n.what);
        return result;
    }
};

} // namespace inbound_test

#endif
