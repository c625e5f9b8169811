#include "cells.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace l2vpnctl {

std::string text_of(const json &value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

cell plain(const json &row, const char *key)
{
    const auto at = row.find(key);
    return {at == row.end() ? "-" : text_of(*at)};
}

cell hex(const json &row, const char *key)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08" PRIx32, row.value(key, uint32_t{0}));
    return {text};
}

cell fault(const json &row, const char *key)
{
    cell c = plain(row, key);
    c.colour = c.text == "0" ? tint::plain : tint::bad;
    return c;
}

std::string span_of(int64_t seconds)
{
    char text[48];
    if (seconds >= 86400) {
        snprintf(text, sizeof text, "%" PRId64 "d%02" PRId64 "h", seconds / 86400, seconds / 3600 % 24);
    } else if (seconds >= 3600) {
        snprintf(text, sizeof text, "%" PRId64 "h%02" PRId64 "m", seconds / 3600, seconds / 60 % 60);
    } else if (seconds >= 60) {
        snprintf(text, sizeof text, "%" PRId64 "m%02" PRId64 "s", seconds / 60, seconds % 60);
    } else {
        snprintf(text, sizeof text, "%" PRId64 "s", seconds < 0 ? 0 : seconds);
    }
    return text;
}

cell age(const json &row, const char *key)
{
    return {span_of(time(nullptr) - row.value(key, int64_t{0}))};
}

std::string count_of(uint64_t n, const std::string &one, const std::string &more)
{
    return std::to_string(n) + " " + (n == 1 ? one : more);
}

} // namespace l2vpnctl
