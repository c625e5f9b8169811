/*
 * The values of a printf format as words, and back to text.
 *
 * Each conversion leaves its values in order: a `*` its int, an integer, pointer or character one word, a
 * floating-point value the bits of a double, %m the errno of the call, a string a word with its length in
 * bytes (all ones: a null pointer) and its bytes padded to words, cut to what there is room for. Encoding
 * ends at the first conversion that is not known (%n, wide characters, numbered arguments).
 */
#ifndef PLATFORM_POSIX_TRACE_VALUES_H
#define PLATFORM_POSIX_TRACE_VALUES_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace l2vpn::trace {

struct encoded {
    std::size_t used = 0;
    bool cut = false;
};

/* `error` is the errno that %m stands for. */
[[nodiscard]] encoded encode(std::span<std::uint64_t> words, const char *format, int error, va_list values);

/* The text of a format with its values. Never fails: a conversion without a value comes out as it stands
 * in the format. */
[[nodiscard]] std::string render(std::string_view format, std::span<const std::uint64_t> words);

} // namespace l2vpn::trace

#endif
