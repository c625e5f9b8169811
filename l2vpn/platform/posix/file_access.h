/*
 * The group and the mode of files that others are to reach: sockets, their directory, rings.
 */
#ifndef L2VPN_PLATFORM_POSIX_FILE_ACCESS_H
#define L2VPN_PLATFORM_POSIX_FILE_ACCESS_H

#include <cerrno>
#include <cstdint>
#include <grp.h>
#include <platform/qerr.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace l2vpn::platform_posix {

constexpr auto same_group = static_cast<gid_t>(-1);

/* The id of a group; for no name, `*group` stays as it is. ENOENT: there is none. */
inline qerrno find_group(const char *name, gid_t *group)
{
    if (name == nullptr) {
        return EOK;
    }
    constexpr std::size_t usual = 1024;
    std::vector<char> room(usual);
    struct group entry {};
    struct group *found = nullptr;
    int status = 0;
    while ((status = getgrnam_r(name, &entry, room.data(), room.size(), &found)) == ERANGE) {
        room.resize(room.size() * 2);
    }
    if (found == nullptr) {
        return status != 0 ? static_cast<qerrno>(status) : qerrno{ENOENT};
    }
    *group = found->gr_gid;
    return EOK;
}

inline int change_group(const std::string &path, gid_t group)
{
    return lchown(path.c_str(), static_cast<uid_t>(-1), group);
}
inline int change_group(int fd, gid_t group)
{
    return fchown(fd, static_cast<uid_t>(-1), group);
}
inline int change_mode(const std::string &path, mode_t mode)
{
    return chmod(path.c_str(), mode);
}
inline int change_mode(int fd, mode_t mode)
{
    return fchmod(fd, mode);
}

enum class access_fault : std::uint8_t { none, group, mode };

/* What could not be set, with errno. `file` is a path, or the descriptor of a file whose path may be another's by
 * now. The mode is last: whoever waits for it may come in then. */
template <typename File>
access_fault give_access(const File &file, gid_t group, mode_t mode)
{
    if (group != same_group && change_group(file, group) != 0) {
        return access_fault::group;
    }
    return change_mode(file, mode) == 0 ? access_fault::none : access_fault::mode;
}

} // namespace l2vpn::platform_posix

#endif
