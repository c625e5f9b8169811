/*
 * Numbers that people write: decimal, or hexadecimal after 0x. A leading zero means nothing.
 */
#ifndef L2VPND_NUMBER_H
#define L2VPND_NUMBER_H

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace l2vpnd {

inline std::optional<uint64_t> number_in(std::string_view text)
{
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(is_hex ? 2 : 0);
    uint64_t value = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, is_hex ? 16 : 10);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

} // namespace l2vpnd

#endif
