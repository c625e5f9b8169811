/*
 * The text of a status. strerrordesc_np() of the C library gives a static string for the numbers it knows, and
 * no other; for those a text is made in a buffer of the calling thread's. Statuses are unsigned and errno numbers
 * are ints: what does not fit an int is unknown too, and prints as the unsigned number it is.
 */
#include "common/core.h"

#include <climits>
#include <cstdio>
#include <cstring>

namespace l2vpn::platform_core {

const char *status_text(qerrno status) noexcept
{
    if (status <= INT_MAX) {
        if (const char *text = strerrordesc_np(static_cast<int>(status)); text != nullptr) {
            return text;
        }
    }
    thread_local char unknown[sizeof "Unknown error 4294967295"];
    std::snprintf(unknown, sizeof unknown, "Unknown error %u", status);
    return unknown;
}

} // namespace l2vpn::platform_core
