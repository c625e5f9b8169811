#include "packed.h"

#include "control_link.h"

#include <zlib.h>

namespace l2vpnctl {

void packed::add(uint64_t number)
{
    while (number >= 0x80) {
        m_bytes += static_cast<char>((number & 0x7F) | 0x80);
        number >>= 7;
    }
    m_bytes += static_cast<char>(number);
}

void packed::add_signed(int64_t number)
{
    const auto bits = static_cast<uint64_t>(number);
    add(number < 0 ? ~(bits << 1) : bits << 1);
}

std::string deflated(std::string_view bytes)
{
    uLongf length = compressBound(bytes.size());
    std::string out(length, '\0');
    if (compress(reinterpret_cast<Bytef *>(out.data()), &length,
                 reinterpret_cast<const Bytef *>(bytes.data()), bytes.size()) != Z_OK) {
        throw failure{exit_failed, "out of memory"};
    }
    out.resize(length);
    return out;
}

std::string base64(std::string_view bytes)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.size(); at += 3) {
        uint32_t word = 0;
        for (size_t i = 0; i < 3; i++) {
            word = word << 8 | (at + i < bytes.size() ? static_cast<uint8_t>(bytes[at + i]) : 0);
        }
        for (size_t i = 0; i < 4; i++) {
            out += at + i > bytes.size() ? '=' : digits[word >> (18 - 6 * i) & 0x3F];
        }
    }
    return out;
}

} // namespace l2vpnctl
