/*
 * Calls as text, a line each:
 *
 *     4.000s #2 l2vpn_ipc_ucast(client1, 4, 0xffffffff, &, 16, 0x0) = ENOBUFS (made to fail) 16 bytes: 0000...
 *
 * Handles have names; an address is only said to be there ("&") or not ("null"), so that the text does not
 * depend on where things happen to lie.
 */
#include "transcript.h"
#include "handles.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace l2vpn::sim {

namespace {

constexpr std::size_t printed_bytes = 64;

template <class... Values>
[[nodiscard]] std::string print(const char *format, Values... values)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

[[nodiscard]] std::string seconds(std::int64_t nanoseconds)
{
    constexpr std::int64_t second = 1'000'000'000;
    std::string text = print("%" PRId64 ".%09" PRId64, nanoseconds / second, nanoseconds % second);
    while (text.ends_with("000000")) /* down to milliseconds when that says it all */
        text.resize(text.size() - 6);
    return text + "s";
}

[[nodiscard]] std::string pointer(std::uint64_t value)
{
    static constexpr std::array names{"", "evm", "tree", "parent", "leaf", "client", "debug_ctx"};
    if (value == 0)
        return "null";
    const auto handle = handle_parts::unpacked(value);
    const auto what = static_cast<std::size_t>(handle.what);
    return what == 0 || what >= names.size() ? "&" : names.at(what) + std::to_string(handle.number);
}

[[nodiscard]] std::string status_name(std::uint64_t status)
{
    if (status == EOK)
        return "EOK";
    const char *name = status <= 0xFFFF ? strerrorname_np(static_cast<int>(status)) : nullptr;
    return name == nullptr ? std::to_string(status) : name;
}

[[nodiscard]] std::string quoted(std::string_view text)
{
    std::string line = "\"";
    for (const char character : text)
        line += character == '\n' ? std::string("\\n") : std::string(1, character);
    return line + "\"";
}

/* A log text without the addresses that its %p have become. */
[[nodiscard]] std::string without_addresses(const call &entry)
{
    constexpr std::size_t digits_of_address = 9; /* at least */
    if (entry.format.find("%p") == std::string::npos)
        return entry.text;
    std::string text;
    std::string_view rest = entry.text;
    for (std::size_t at = rest.find("0x"); at != rest.npos; at = rest.find("0x")) {
        const std::size_t end = std::min(rest.find_first_not_of("0123456789abcdef", at + 2), rest.size());
        text += rest.substr(0, at);
        text += end - at - 2 < digits_of_address ? rest.substr(at, end - at) : "&";
        rest.remove_prefix(end);
    }
    return text.append(rest);
}

[[nodiscard]] std::string argument(char how, std::uint64_t value, const call &entry)
{
    switch (how) {
    case 'x':
        return print("0x%" PRIx64, value);
    case 'p':
        return pointer(value);
    case 't':
        return seconds(static_cast<std::int64_t>(value));
    case 's':
        return value == 0 ? "null" : quoted(entry.text);
    default:
        return print("%" PRId64, static_cast<std::int64_t>(value));
    }
}

[[nodiscard]] std::string result(const call &entry)
{
    const auto value = static_cast<std::uint64_t>(entry.result);
    switch (traits_of(entry.function).result) {
    case returns::nothing:
        return "";
    case returns::status:
        return " = " + status_name(value);
    case returns::pointer:
        return " = " + pointer(value);
    case returns::number:
    case returns::answer:
        break;
    }
    return " = " + std::to_string(entry.result);
}

[[nodiscard]] std::string message(const call &entry)
{
    std::string line = print(" %zu bytes", entry.message.size());
    if (!entry.pieces.empty()) {
        line += " in";
        for (const std::size_t piece : entry.pieces)
            line += print(" %zu", piece);
    }
    line += ":";
    const std::size_t shown = std::min(entry.message.size(), printed_bytes);
    for (std::size_t i = 0; i < shown; ++i)
        line += print(i % 4 == 0 ? " %02x" : "%02x", static_cast<unsigned>(entry.message[i]));
    return line + (shown < entry.message.size() ? "..." : "");
}

} // namespace

std::string line_of(const call &entry)
{
    const traits &row = traits_of(entry.function);
    const std::string_view print_as = row.print;
    std::string line = seconds(entry.at.count()) + print(" #%" PRIu64 " ", entry.number) + row.name + "(";
    for (std::size_t i = 0; i < entry.args.size(); ++i)
        line +=
            (i == 0 ? "" : ", ") + argument(i < print_as.size() ? print_as[i] : 'd', entry.args[i], entry);
    line += ")" + result(entry);
    if (entry.failed)
        line += " (made to fail)";
    if (!entry.format.empty())
        line += " " + quoted(without_addresses(entry));
    if (!entry.where.empty())
        line += " at " + entry.where + ":" + std::to_string(entry.line);
    if (!entry.message.empty())
        line += message(entry);
    return line;
}

} // namespace l2vpn::sim
