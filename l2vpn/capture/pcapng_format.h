/*
 * What this system uses of pcapng.
 */
#ifndef L2VPN_CAPTURE_PCAPNG_FORMAT_H
#define L2VPN_CAPTURE_PCAPNG_FORMAT_H

#include <cstdint>

namespace l2vpn::capture::pcapng {

constexpr std::uint32_t section_header = 0x0A0D0D0A; /* the same in either byte order */
constexpr std::uint32_t interface_description = 1;
constexpr std::uint32_t interface_statistics = 5;
constexpr std::uint32_t enhanced_packet = 6;
constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;

constexpr std::uint16_t option_end = 0;
constexpr std::uint16_t shb_userappl = 4;
constexpr std::uint16_t if_name = 2;
constexpr std::uint16_t if_tsresol = 9;
constexpr std::uint16_t epb_dropcount = 4;
constexpr std::uint16_t isb_ifrecv = 4;
constexpr std::uint16_t isb_ifdrop = 5;

constexpr std::uint32_t block_least = 12;      /* type, length, length again */
constexpr std::uint32_t packet_most = 262'144; /* Wireshark takes no larger one */
constexpr std::uint32_t block_most = 16u << 20;

} // namespace l2vpn::capture::pcapng

#endif
