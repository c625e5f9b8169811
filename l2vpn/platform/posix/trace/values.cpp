#include "trace/values.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <optional>

namespace l2vpn::trace {
namespace {

constexpr std::uint64_t null_string = ~std::uint64_t{0};
constexpr int widest = 256; /* a width or precision beyond this is one of a damaged file */

/* One conversion of a format: %, flags, width, precision, length, type. */
struct conversion {
    std::string_view text; /* all of it, as it stands */
    std::string_view flags;
    std::optional<int> width;
    std::optional<int> precision;
    bool width_is_value = false;
    bool precision_is_value = false;
    std::string_view length;
    char type = 0; /* 0: not known */
};

class reader {
public:
    explicit reader(std::string_view format) noexcept : rest_(format) {}

    /* The text up to the next conversion. */
    std::string_view literal() noexcept { return take(std::min(rest_.find('%'), rest_.size())); }

    /* The conversion that stands here; nothing at the end. */
    std::optional<conversion> next() noexcept
    {
        if (rest_.empty()) {
            return std::nullopt;
        }
        const std::string_view start = rest_;
        conversion found;
        take(1);
        found.flags = take_while("-+ #0");
        found.width_is_value = number(found.width);
        if (rest_.starts_with('.')) {
            take(1);
            found.precision = 0;
            found.precision_is_value = number(found.precision);
        }
        found.length = take_while("hljztLq");
        found.type = rest_.empty() ? '\0' : rest_.front();
        take(rest_.empty() ? 0 : 1);
        found.text = start.substr(0, start.size() - rest_.size());
        const bool wide = !found.length.empty() && (found.type == 's' || found.type == 'c');
        if (wide || std::string_view("diouxXcspeEfFgGaAm%").find(found.type) == std::string_view::npos) {
            found.type = 0;
        }
        return found;
    }

private:
    std::string_view take(std::size_t count) noexcept
    {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return taken;
    }

    std::string_view take_while(std::string_view letters) noexcept
    {
        return take(std::min(rest_.find_first_not_of(letters), rest_.size()));
    }

    /* A number, or a star: true. */
    bool number(std::optional<int> &value) noexcept
    {
        if (rest_.starts_with('*')) {
            take(1);
            return true;
        }
        for (const char digit : take_while("0123456789")) {
            value = std::min(value.value_or(0) * 10 + (digit - '0'), widest);
        }
        return false;
    }

    std::string_view rest_;
};

bool is_floating(char type) noexcept
{
    return std::string_view("eEfFgGaA").find(type) != std::string_view::npos;
}

/* Takes words until there is no room for one. */
class packer {
public:
    explicit packer(std::span<std::uint64_t> words) noexcept : words_(words) {}

    bool put(std::uint64_t word) noexcept
    {
        if (used_ == words_.size()) {
            return false;
        }
        words_[used_++] = word;
        return true;
    }

    bool put_string(const char *text, std::optional<int> precision) noexcept
    {
        if (text == nullptr) {
            return put(null_string);
        }
        const std::size_t room = words_.size() - used_;
        if (room == 0) {
            return false;
        }
        const std::size_t most = (room - 1) * sizeof(std::uint64_t);
        const std::size_t asked =
            precision && *precision >= 0 ? static_cast<std::size_t>(*precision) : most + 1;
        const std::size_t length = ::strnlen(text, std::min(asked, most + 1));
        const std::size_t kept = std::min(length, most);
        put(kept);
        const std::size_t padded = (kept + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);
        std::fill_n(words_.begin() + static_cast<std::ptrdiff_t>(used_), padded, 0);
        std::memcpy(words_.data() + used_, text, kept);
        used_ += padded;
        return kept == length;
    }

    [[nodiscard]] std::size_t used() const noexcept { return used_; }

private:
    std::span<std::uint64_t> words_;
    std::size_t used_ = 0;
};

std::uint64_t signed_value(std::string_view length, va_list *from)
{
    std::int64_t value = 0;
    if (length == "l" || length == "z" || length == "t") {
        value = va_arg(*from, long);
    } else if (length == "ll" || length == "q" || length == "j") {
        value = va_arg(*from, long long);
    } else {
        value = va_arg(*from, int);
        value = length == "hh"  ? static_cast<signed char>(value)
                : length == "h" ? static_cast<short>(value)
                                : value;
    }
    return static_cast<std::uint64_t>(value);
}

std::uint64_t unsigned_value(std::string_view length, va_list *from)
{
    if (length == "l" || length == "z" || length == "t") {
        return va_arg(*from, unsigned long);
    }
    if (length == "ll" || length == "q" || length == "j") {
        return va_arg(*from, unsigned long long);
    }
    const unsigned value = va_arg(*from, unsigned);
    return length == "hh"  ? static_cast<unsigned char>(value)
           : length == "h" ? static_cast<unsigned short>(value)
                           : value;
}

bool put_value(packer &out, const conversion &directive, std::optional<int> precision, int error,
               va_list *from)
{
    switch (directive.type) {
    case 's':
        return out.put_string(va_arg(*from, const char *), precision);
    case 'p':
        return out.put(reinterpret_cast<std::uintptr_t>(va_arg(*from, void *)));
    case 'm':
        return out.put(static_cast<std::uint64_t>(error));
    case 'd':
    case 'i':
        return out.put(signed_value(directive.length, from));
    case 'c':
        return out.put(static_cast<std::uint64_t>(va_arg(*from, int)));
    default:
        break;
    }
    if (is_floating(directive.type)) {
        const double value =
            directive.length == "L" ? static_cast<double>(va_arg(*from, long double)) : va_arg(*from, double);
        return out.put(std::bit_cast<std::uint64_t>(value));
    }
    return out.put(unsigned_value(directive.length, from));
}

/* Gives words until there are none. */
class unpacker {
public:
    explicit unpacker(std::span<const std::uint64_t> words) noexcept : words_(words) {}

    std::optional<std::uint64_t> word() noexcept
    {
        if (words_.empty()) {
            return std::nullopt;
        }
        const std::uint64_t first = words_.front();
        words_ = words_.subspan(1);
        return first;
    }

    std::optional<std::string> string()
    {
        const auto length = word();
        if (!length) {
            return std::nullopt;
        }
        if (*length == null_string) {
            return "(null)";
        }
        const auto kept = static_cast<std::size_t>(std::min<std::uint64_t>(*length, words_.size_bytes()));
        std::string text(reinterpret_cast<const char *>(words_.data()), kept);
        words_ = words_.subspan(std::min(words_.size(), (kept + 7) / 8));
        return text;
    }

private:
    std::span<const std::uint64_t> words_;
};

/* `format` is one conversion, put together out of checked parts. */
template <typename... Values>
std::string formatted(const std::string &format, Values... values)
{
    std::array<char, 2 * widest + 512> text{};
    std::snprintf(text.data(), text.size(), format.c_str(), values...);
    return text.data();
}

/* One conversion with its values; nothing when a value is missing. */
std::optional<std::string> render_one(const conversion &directive, unpacker &from)
{
    const auto star = [&](bool is_value, std::optional<int> &number) {
        if (!is_value) {
            return true;
        }
        const auto word = from.word();
        number = word ? std::clamp(static_cast<int>(static_cast<std::int64_t>(*word)), -widest, widest) : 0;
        return word.has_value();
    };
    std::optional<int> width = directive.width;
    std::optional<int> precision = directive.precision;
    if (!star(directive.width_is_value, width) || !star(directive.precision_is_value, precision)) {
        return std::nullopt;
    }
    std::string start = "%" + std::string(directive.flags);
    if (width) {
        start += std::to_string(*width); // a negative one reads as the flag - and a width, as it should
    }
    if (precision && *precision >= 0) {
        start += "." + std::to_string(*precision);
    }
    if (directive.type == 's') {
        const auto text = from.string();
        return text ? std::optional(formatted(start + "s", text->c_str())) : std::nullopt;
    }
    const auto word = from.word();
    if (!word) {
        return std::nullopt;
    }
    if (directive.type == 'm') {
        const char *text = ::strerrordesc_np(static_cast<int>(*word));
        return formatted(start + "s", text != nullptr ? text : "Unknown error");
    }
    if (directive.type == 'c') {
        return formatted(start + "c", static_cast<int>(*word));
    }
    if (directive.type == 'p') {
        return formatted(start + "p", reinterpret_cast<const void *>(static_cast<std::uintptr_t>(*word)));
    }
    if (is_floating(directive.type)) {
        return formatted(start + directive.type, std::bit_cast<double>(*word));
    }
    return formatted(start + "ll" + directive.type, static_cast<unsigned long long>(*word));
}

} // namespace

encoded encode(std::span<std::uint64_t> words, const char *format, int error, va_list values)
{
    packer out(words);
    va_list from;
    va_copy(from, values);
    bool complete = true;
    reader in(format);
    in.literal();
    for (auto directive = in.next(); complete && directive; in.literal(), directive = in.next()) {
        if (directive->type == '%') {
            continue;
        }
        complete = directive->type != 0;
        if (complete && directive->width_is_value) {
            complete = out.put(static_cast<std::uint64_t>(va_arg(from, int)));
        }
        std::optional<int> precision = directive->precision;
        if (complete && directive->precision_is_value) {
            precision = va_arg(from, int);
            complete = out.put(static_cast<std::uint64_t>(std::int64_t{*precision}));
        }
        complete = complete && put_value(out, *directive, precision, error, &from);
    }
    va_end(from);
    return {.used = out.used(), .cut = !complete};
}

std::string render(std::string_view format, std::span<const std::uint64_t> words)
{
    std::string text;
    unpacker from(words);
    reader in(format);
    text += in.literal();
    for (auto directive = in.next(); directive; directive = in.next()) {
        if (directive->type == '%') {
            text += '%';
        } else {
            const auto value = directive->type == 0 ? std::nullopt : render_one(*directive, from);
            text += value ? *value : std::string(directive->text);
        }
        text += in.literal();
    }
    return text;
}

} // namespace l2vpn::trace
