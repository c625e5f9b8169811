/*
 * Where tests have their files: a folder in TMPDIR, or in /tmp where a socket in TMPDIR would have too long a path.
 */
#ifndef TESTS_SUPPORT_TEMP_FOLDER_H
#define TESTS_SUPPORT_TEMP_FOLDER_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/un.h>
#include <system_error>

/* Makes a new one; it is the caller's to remove. */
inline std::string new_temp_folder()
{
    constexpr std::size_t longest_name = 76; /* of a socket in it, with the slash */
    const std::string name = "/l2vpn-XXXXXX";
    std::string path = std::filesystem::temp_directory_path().string() + name;
    if (path.size() + longest_name >= sizeof(sockaddr_un::sun_path))
        path = "/tmp" + name;
    if (mkdtemp(path.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), path);
    return path;
}

#endif
