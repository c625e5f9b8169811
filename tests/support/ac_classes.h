/*
 * The classes of ACs as the tests know them, told apart from what they test: the bytes that an AC has in a message.
 */
#ifndef TESTS_SUPPORT_AC_CLASSES_H
#define TESTS_SUPPORT_AC_CLASSES_H

#include <array>
#include <cstdint>

namespace ac_classes {

struct row {
    std::uint32_t info; /* of its information in CREATE and UPDATE */
    std::uint32_t data; /* in a provision message, its handle counted */
    bool valid = true;
    bool decoded = true; /* there is a layout for its data */
};

inline constexpr std::array<row, 18> rows = {{
    {20, 36},
    {20, 36},
    {20, 36},
    {16, 32},
    {16, 32},
    {16, 32},
    {200, 32},
    {56, 76, true, false},
    {2356, 2680},
    {96, 112, true, false},
    {16, 32},
    {24, 71},
    {16, 32},
    {16, 32},
    {16, 32},
    {20, 36, false, false},
    {20, 36},
    {200, 97, true, false},
}};

constexpr bool valid(std::uint32_t class_id)
{
    return class_id < rows.size() && rows[class_id].valid;
}

} // namespace ac_classes

#endif
