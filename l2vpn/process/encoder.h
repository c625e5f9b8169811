/*
 * The messages that the process sends.
 *
 * What the record of a provisioned AC carries is made from the AC alone, so that an owner can check it:
 * seven words (the cross-connect's id, the node id of this process, the interface handle, the four head words
 * of the AC's info message) and a tail with the class part of the info message where the class's record has
 * room for it.
 */
#ifndef L2VPND_ENCODER_H
#define L2VPND_ENCODER_H

#include "ac_table.h"

#include <vector>

namespace l2vpnd {

using octet_string = std::vector<uint8_t>;

/* ACs or records that one message of at most `mtu` bytes takes. */
uint32_t provision_limit(const class_row &cls, uint32_t mtu);
uint32_t unprovision_limit(uint32_t mtu);

/* `cls` must have a data_size: an owner of any other class cannot read the message. */
octet_string encode_provision(const class_row &cls, const ac_store &store, std::span<const uint32_t> slots,
                              uint32_t nodeid, uint32_t flags);
octet_string encode_unprovision(const ac_store &store, std::span<const uint32_t> slots, uint32_t flags);

/* The header alone, its last two words as given. */
octet_string encode_header(uint32_t type, uint32_t word2, uint32_t word3);

/* One record of a bulk notice, in host byte order. */
struct bulk_notice {
    uint32_t word = 0;
    uint16_t half = 0;
    std::array<uint8_t, 2> octets{};
    std::array<uint32_t, 4> words{};
    std::array<uint8_t, 4> opaque{};
    uint32_t word2 = 0;
};

octet_string encode_bulk_notify(std::span<const bulk_notice> records, uint32_t flags);

} // namespace l2vpnd

#endif
