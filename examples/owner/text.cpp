#include "text.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

namespace owner {

namespace {

constexpr std::size_t max_file_bytes = std::size_t{256} << 20;
constexpr std::size_t max_faults_shown = 20;

std::string read_whole(const std::string &path, std::string &content)
{
    struct close_file {
        void operator()(std::FILE *file) const { (void)std::fclose(file); }
    };
    // Not blocking: a pipe that nobody writes to is refused like any other thing that is no file.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const std::unique_ptr<std::FILE, close_file> file(fd >= 0 ? ::fdopen(fd, "r") : nullptr);
    struct stat found {};
    if (file == nullptr || ::fstat(fd, &found) != 0)
        return std::strerror(errno);
    if (!S_ISREG(found.st_mode))
        return S_ISDIR(found.st_mode) ? "is a directory, not a file" : "is a device or a pipe, not a file";
    std::vector<char> block(std::size_t{64} << 10);
    for (;;) {
        const std::size_t got = std::fread(block.data(), 1, block.size(), file.get());
        content.append(block.data(), got);
        if (content.size() > max_file_bytes)
            return "is larger than 256 MiB";
        if (got < block.size())
            break;
    }
    return std::ferror(file.get()) != 0 ? std::strerror(errno) : "";
}

// Length of the UTF-8 character that `text` begins with, 0 when it begins with none.
std::size_t utf8_length(std::string_view text)
{
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned first = byte(0);
    if (first < 0x80)
        return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    for (std::size_t at = 1; at < length; ++at)
        if ((byte(at) & 0xC0U) != 0x80U)
            return 0;
    // Overlong forms, surrogates, and what lies beyond the last plane.
    if ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
        (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F))
        return 0;
    return length;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

void fault_list::add(std::size_t line, std::size_t column, const std::string &what)
{
    std::string where = path_;
    if (line != 0)
        where += ":" + std::to_string(line);
    if (column != 0)
        where += ":" + std::to_string(column);
    faults_.push_back(where + ": " + what);
}

void fault_list::print(std::ostream &out) const
{
    std::size_t shown = 0;
    for (const std::string &text : faults_) {
        if (shown == max_faults_shown) {
            out << path_ << ": and " << faults_.size() - shown << " more\n";
            break;
        }
        out << text << '\n';
        ++shown;
    }
}

bool read_lines(const std::string &path, std::vector<std::string> &lines, fault_list &faults)
{
    std::string content;
    const std::string error = read_whole(path, content);
    if (!error.empty()) {
        faults.add(0, 0, error);
        return false;
    }
    std::string_view rest = content;
    if (rest.starts_with("\xEF\xBB\xBF"))
        rest.remove_prefix(3);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        lines.emplace_back(line);
    }
    return true;
}

std::string_view trim(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return text.substr(text.size());
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string_view> words(std::string_view text)
{
    std::vector<std::string_view> found;
    for (text = trim(text); !text.empty(); text = trim(text)) {
        const std::size_t end = std::min(text.find_first_of(" \t"), text.size());
        found.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    return found;
}

std::string parse_number(std::string_view text, uint64_t min, uint64_t max, uint64_t &number)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = hexadecimal ? text.substr(2) : text;
    const char *end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, hexadecimal ? 16 : 10);
    if (error == std::errc::invalid_argument || stop != end)
        return quoted(text) + " is no number (decimal, or hexadecimal after 0x)";
    if (error == std::errc::result_out_of_range || number < min || number > max)
        return quoted(text) + " is out of range, " + std::to_string(min) + " to " + std::to_string(max);
    return {};
}

std::string parse_ipv4(std::string_view text, uint64_t &number)
{
    in_addr address{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1)
        return quoted(text) + " is no IPv4 address";
    number = ntohl(address.s_addr);
    return {};
}

std::string parse_hex(std::string_view text, std::size_t bytes, std::string &out)
{
    out.clear();
    if (text.size() != 2 * bytes)
        return quoted(text) + " is not " + std::to_string(2 * bytes) + " hexadecimal digits";
    for (std::size_t at = 0; at < text.size(); at += 2) {
        const int high = hex_digit(text[at]);
        const int low = hex_digit(text[at + 1]);
        if (high < 0 || low < 0)
            return quoted(text) + " is not " + std::to_string(2 * bytes) + " hexadecimal digits";
        out += static_cast<char>(high * 16 + low);
    }
    return {};
}

std::string check_text(std::string_view text, std::size_t max_bytes)
{
    if (text.find('\0') != std::string_view::npos)
        return "contains a NUL byte";
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t length = utf8_length(rest);
        if (length == 0)
            return quoted(text) + " is not UTF-8";
        rest.remove_prefix(length);
    }
    if (text.size() > max_bytes)
        return quoted(text) + " is " + std::to_string(text.size()) + " bytes long, " +
               std::to_string(max_bytes) + " at most";
    return {};
}

std::string to_hex(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4U];
        text += digits[byte & 0xFU];
    }
    return text;
}

std::string concat(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (const std::string_view part : parts)
        text += part;
    return text;
}

std::string counted(std::size_t number, std::string_view what, std::string_view plural_ending)
{
    return std::to_string(number) + " " + std::string(what) + (number == 1 ? "" : std::string(plural_ending));
}

std::string quoted(std::string_view text)
{
    constexpr std::size_t longest = 40;
    std::string shown = "'";
    for (const char c : text.substr(0, longest))
        shown += c >= ' ' && c <= '~' ? c : '?';
    return shown + (text.size() > longest ? "...'" : "'");
}

} // namespace owner
