/*
 * Whether to believe that who listens at the socket is the L2VPN process.
 */
#ifndef PLATFORM_POSIX_IPC_SERVER_TRUST_H
#define PLATFORM_POSIX_IPC_SERVER_TRUST_H

#include <optional>
#include <string>
#include <sys/types.h>

namespace l2vpn::ipc {

/* The user to whom root has given the directory, if it is root who did: root alone may write to its parent.
 * A directory that anybody could have made, under /tmp mostly, says nothing about its owner. */
std::optional<uid_t> directory_given_to(const std::string &directory);

/* Root, this process's own user, and the one to whom root has given the runtime directory. */
bool server_is_trusted(uid_t server, uid_t own, std::optional<uid_t> given_to);

} // namespace l2vpn::ipc

#endif
