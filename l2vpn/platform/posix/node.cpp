/*
 * The node's id: the configured one, else 32 bits made of the machine's identity, which every process of
 * the machine reads the same, else, where a machine has none (a container mostly), of its host name. An
 * identity that is there but cannot be read is an error: other processes may be able to read it.
 */
#include "config_internal.h"
#include "node_internal.h"
#include "unique_fd.h"

#include <platform/node.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/utsname.h>

namespace l2vpn::platform_posix {
namespace {

constexpr std::size_t identity_length = 32;

bool is_hexadecimal(std::string_view text)
{
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/* FNV-1a. */
std::uint32_t hash_of_name(std::string_view text)
{
    std::uint32_t hash = 2166136261;
    for (const char letter : text) {
        hash = (hash ^ static_cast<unsigned char>(letter)) * 16777619;
    }
    return hash;
}

std::uint32_t id_of(std::string_view text)
{
    const std::uint32_t hash = hash_of_name(text);
    return hash != NODEID_INVALID ? hash : hash - 1;
}

} // namespace

qerrno node_id_of_machine(const char *identity_file, std::uint32_t &nodeid) noexcept
{
    const unique_fd file(::open(identity_file, O_RDONLY | O_CLOEXEC));
    if (!file) {
        return static_cast<qerrno>(errno);
    }
    std::array<char, identity_length> identity{};
    const ssize_t length = ::read(file.get(), identity.data(), identity.size());
    if (length < 0) {
        return static_cast<qerrno>(errno);
    }
    // A machine that is being set up for the first time has an empty file, or "uninitialized" in it.
    const std::string_view text(identity.data(), static_cast<std::size_t>(length));
    if (text.size() != identity_length || !is_hexadecimal(text)) {
        return ENODATA;
    }
    nodeid = id_of(text);
    return EOK;
}

qerrno node_id_of(const char *identity_file, const char *host_name, std::uint32_t &nodeid) noexcept
{
    const qerrno status = node_id_of_machine(identity_file, nodeid);
    if ((status != ENOENT && status != ENODATA) || *host_name == '\0') {
        return status;
    }
    nodeid = id_of(host_name);
    return EOK;
}

} // namespace l2vpn::platform_posix

qerrno platform_get_my_nodeid(uint32_t *nodeid)
{
    using namespace l2vpn::platform_posix;
    if (nodeid == nullptr) {
        return EINVAL;
    }
    const node_id_setting &configured = config().nodeid;
    switch (configured.is) {
    case node_id_setting::state::good:
        *nodeid = configured.value;
        return EOK;
    case node_id_setting::state::bad:
        return EINVAL;
    case node_id_setting::state::absent:
        break;
    }
    utsname names{};
    ::uname(&names);
    return node_id_of("/etc/machine-id", static_cast<const char *>(names.nodename), *nodeid);
}
