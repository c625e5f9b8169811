/*
 * Numbers in options: decimal, or hexadecimal after 0x. CLI11 by itself takes a leading zero for octal, and a number
 * that is too large for the largest there is.
 */
#ifndef L2VPND_NUMBER_OPTION_H
#define L2VPND_NUMBER_OPTION_H

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

/* For CLI::Option::transform(): the number is written anew in decimal, which CLI11 reads as it is meant. */
inline CLI::Validator number(uint64_t least = 0, uint64_t most = UINT32_MAX)
{
    const auto check = [least, most](std::string &text) {
        const std::optional<uint64_t> value = number_in(text);
        if (!value || *value < least || *value > most) {
            return "'" + text + "' is no number from " + std::to_string(least) + " to " +
                   std::to_string(most);
        }
        text = std::to_string(*value);
        return std::string();
    };
    return {check, ""};
}

} // namespace l2vpnd

#endif
