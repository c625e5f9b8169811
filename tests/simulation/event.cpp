#include "event.h"

#include <sstream>

namespace simulation {

std::string to_string(const event &what)
{
    static constexpr std::size_t most_bytes = 96;
    static constexpr char digits[] = "0123456789abcdef";
    std::ostringstream line;
    line << what.what;
    for (const std::uint64_t number : what.numbers) {
        if (number > 0xffff)
            line << std::hex << " 0x" << number << std::dec;
        else
            line << " " << number;
    }
    if (!what.text.empty())
        line << " '" << what.text << "'";
    if (!what.data.empty()) {
        line << " [" << what.data.size() << "]";
        for (std::size_t i = 0; i < what.data.size() && i < most_bytes; ++i)
            line << (i % 4 == 0 ? " " : "") << digits[what.data[i] >> 4] << digits[what.data[i] & 15];
        line << (what.data.size() > most_bytes ? "..." : "");
    }
    return line.str();
}

std::uint32_t inventory_size(const step &what)
{
    if (what.class_id == 9)
        return 0; /* its information cannot be sent */
    return 1 + static_cast<std::uint32_t>(what.value % 20);
}

} // namespace simulation
