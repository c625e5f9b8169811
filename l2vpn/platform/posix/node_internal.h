#ifndef PLATFORM_POSIX_NODE_INTERNAL_H
#define PLATFORM_POSIX_NODE_INTERNAL_H

#include <platform/qerr.h>

#include <cstdint>

namespace l2vpn::platform_posix {

/* The node id made of the identity in a file like /etc/machine-id. EOK; ENODATA: there is none in it;
 * others: why it cannot be read. `nodeid` is written only when it is EOK. */
[[nodiscard]] qerrno node_id_of_machine(const char *identity_file, std::uint32_t &nodeid) noexcept;

/* The same, or the id made of the host name where the file is missing or has no identity in it. */
[[nodiscard]] qerrno node_id_of(const char *identity_file, const char *host_name,
                                std::uint32_t &nodeid) noexcept;

} // namespace l2vpn::platform_posix

#endif
