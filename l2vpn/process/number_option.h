/*
 * Numbers in options. CLI11 by itself takes a leading zero for octal, and a number that is too large for the largest
 * there is.
 */
#ifndef L2VPND_NUMBER_OPTION_H
#define L2VPND_NUMBER_OPTION_H

#include "number.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

namespace l2vpnd {

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
