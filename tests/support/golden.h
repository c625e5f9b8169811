/*
 * Golden messages: hexadecimal bytes as they are on the wire, a comment a line, and for each line what it
 * holds, so that the same file also tells how the message lies in a host's memory.
 *
 *     a1 a2 a3 a4   u32      # a number of 2, 4 or 8 bytes (u16, u32, u64): host byte order in memory
 *     01 02 03      bytes    # bytes that travel as they lie
 *     66            bits=96  # a byte that is 0x96 in the memory of a little-endian host
 */
#ifndef TESTS_SUPPORT_GOLDEN_H
#define TESTS_SUPPORT_GOLDEN_H

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace golden {

struct message {
    std::vector<std::uint8_t> wire;
    std::vector<std::uint8_t> host;
};

inline std::string path_of(const std::string &name)
{
    return std::string(L2VPN_GOLDEN_DIR) + "/" + name + ".hex";
}

/* Reads NAME.hex; throws std::runtime_error with file and line where it cannot be read. */
inline message load(const std::string &name)
{
    const std::string path = path_of(name);
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": cannot be opened");

    message result;
    std::string line;
    for (unsigned number = 1; std::getline(file, line); ++number) {
        const auto fail = [&](const std::string &why) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": " + why);
        };
        std::istringstream words(line.substr(0, line.find('#')));
        std::vector<std::string> tokens{std::istream_iterator<std::string>(words), {}};
        if (tokens.empty())
            continue;
        const std::string kind = tokens.back();
        tokens.pop_back();

        std::vector<std::uint8_t> bytes;
        for (const std::string &token : tokens) {
            std::uint8_t value = 0;
            const char *const end = token.data() + token.size();
            if (token.size() != 2 || std::from_chars(token.data(), end, value, 16).ptr != end)
                fail("'" + token + "' is no byte");
            bytes.push_back(value);
        }
        result.wire.insert(result.wire.end(), bytes.begin(), bytes.end());

        constexpr bool little = std::endian::native == std::endian::little;
        if (kind == "u16" || kind == "u32" || kind == "u64") {
            if (bytes.size() * 8 != std::stoul(kind.substr(1)))
                fail("a " + kind + " of " + std::to_string(bytes.size()) + " bytes");
            if (little)
                std::reverse(bytes.begin(), bytes.end());
        } else if (kind.starts_with("bits=")) {
            if (bytes.size() != 1)
                fail("bits are one byte");
            if (little)
                bytes[0] = static_cast<std::uint8_t>(std::stoul(kind.substr(5), nullptr, 16));
        } else if (kind != "bytes") {
            fail("'" + kind + "' is no kind of line");
        }
        result.host.insert(result.host.end(), bytes.begin(), bytes.end());
    }
    if (result.wire.empty())
        throw std::runtime_error(path + ": holds no bytes");
    return result;
}

} // namespace golden

#endif
