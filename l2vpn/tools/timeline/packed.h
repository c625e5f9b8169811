/*
 * Numbers and texts as small as they go into a page: numbers of 7 bits a byte, deflated, in base64.
 */
#ifndef L2VPNCTL_TIMELINE_PACKED_H
#define L2VPNCTL_TIMELINE_PACKED_H

#include <cstdint>
#include <string>
#include <string_view>

namespace l2vpnctl {

class packed {
public:
    void add(uint64_t number);
    /* One that may be below 0, and is near to it. */
    void add_signed(int64_t number);
    const std::string &bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

/* Throws failure. */
std::string deflated(std::string_view bytes);
std::string base64(std::string_view bytes);

} // namespace l2vpnctl

#endif
