#include "wire.h"

#include <array>
#include <cstdio>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnd {

namespace {

constexpr direction none = direction::none;
constexpr direction in = direction::to_process;
constexpr direction out = direction::to_owner;

/* clang-format off */
constexpr std::array<message_row, message_types> s_messages = {{
    /* type                    name           dir   handle      definition info   rec counted begin end   repeats */
    {L2VPN_AC_MSG_JOIN,        "JOIN",        in,  {0,          0,         false, 0},  true,  0,    0,    false},
    {1,                        nullptr,       none,{0,          0,         false, 0},  false, 0,    0,    false},
    {L2VPN_AC_MSG_CREATE,      "CREATE",      in,  {handle_len, defn_len,  true,  0},  true,  0x1,  0x2,  false},
    {L2VPN_AC_MSG_UPDATE,      "UPDATE",      in,  {handle_len, 0,         true,  0},  true,  0x4,  0x8,  false},
    {4,                        nullptr,       none,{0,          0,         false, 0},  false, 0,    0,    false},
    {5,                        nullptr,       none,{0,          0,         false, 0},  false, 0,    0,    false},
    {L2VPN_AC_MSG_DELETE,      "DELETE",      in,  {handle_len, 0,         false, 0},  true,  0x10, 0x20, false},
    {L2VPN_AC_MSG_PROV,        "PROV",        out, {handle_len, 0,         false, 0},  true,  0,    0,    false},
    {L2VPN_AC_MSG_UNPROV,      "UNPROV",      out, {handle_len, 0,         false, 0},  true,  0,    0,    false},
    {L2VPN_MSTP_MSG_VID_MAP,   "VID_MAP",     in,  {0,          0,         false, 4},  true,  0x1,  0x2,  true},
    {10,                       nullptr,       none,{0,          0,         false, 0},  false, 0,    0,    false},
    {L2VPN_MSTP_MSG_STATE,     "STATE",       in,  {0,          0,         false, 96}, true,  0x1,  0x2,  true},
    {L2VPN_MSTP_MSG_PROTECTED, "PROTECTED",   in,  {0,          0,         false, 72}, false, 0,    0,    false},
    {L2VPN_AC_MSG_BULK_NOTIFY, "BULK_NOTIFY", out, {0,          0,         false, 32}, true,  0,    0,    false},
    {L2VPN_MSTP_MSG_IS_ROOT,   "IS_ROOT",     in,  {0,          0,         false, 8},  true,  0x1,  0x2,  true},
    {L2VPN_AC_MSG_HDR_NOTIFY,  "HDR_NOTIFY",  out, {0,          0,         false, 0},  false, 0,    0,    false},
    {16,                       nullptr,       none,{0,          0,         false, 0},  false, 0,    0,    false},
}};

/* Class 7 has an info message but no record to provision it with; class 9 has neither, class 15 is no class
 * and class 17's info messages are not where its handles say. */
constexpr std::array<class_row, class_count> s_classes = {{
    /* id valid  info  opaque data */
    {0,  true,  20,   false, 32},
    {1,  true,  20,   false, 32},
    {2,  true,  20,   false, 32},
    {3,  true,  16,   false, 28},
    {4,  true,  16,   false, 28},
    {5,  true,  16,   false, 28},
    {6,  true,  200,  false, 28},
    {7,  true,  56,   false, 0},
    {8,  true,  2356, false, 2676},
    {9,  true,  0,    false, 0},
    {10, true,  16,   false, 28},
    {11, true,  24,   false, 67},
    {12, true,  16,   false, 28},
    {13, true,  16,   false, 28},
    {14, true,  16,   false, 28},
    {15, false, 0,    false, 0},
    {16, true,  20,   false, 32},
    {17, true,  200,  true,  0},
}};
/* clang-format on */

constexpr bool rows_are_in_order()
{
    for (uint32_t i = 0; i < message_types; i++) {
        if (s_messages[i].type != i || (s_messages[i].name == nullptr) != (s_messages[i].dir == none)) {
            return false;
        }
    }
    for (uint32_t i = 0; i < class_count; i++) {
        if (s_classes[i].id != i) {
            return false;
        }
    }
    return true;
}

static_assert(rows_are_in_order(), "a row's index is its type or class");
static_assert(L2VPN_AC_MSG_TYPE_MAX == message_types, "one row a message type");

} // namespace

const message_row *find_message(uint32_t type)
{
    return type < message_types ? &s_messages[type] : nullptr;
}

const char *message_name(uint32_t type, char (&buffer)[16])
{
    const message_row *row = find_message(type);
    if (row != nullptr && row->name != nullptr) {
        return row->name;
    }
    snprintf(buffer, sizeof buffer, "%u", type);
    return buffer;
}

const class_row *find_class(uint32_t class_id)
{
    return class_id < class_count ? &s_classes[class_id] : nullptr;
}

} // namespace l2vpnd
