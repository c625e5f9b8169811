/*
 * A file in memory, for readers that want a path.
 */
#ifndef TESTS_FUZZ_MEMORY_FILE_H
#define TESTS_FUZZ_MEMORY_FILE_H

#include "fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

class memory_file {
public:
    memory_file() : fd_(memfd_create("input", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_))
    {
        FUZZ_CHECK(fd_ >= 0);
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    const std::string &path() const { return path_; }
    void hold(bytes content) const
    {
        FUZZ_CHECK(ftruncate(fd_, static_cast<off_t>(content.size())) == 0);
        FUZZ_CHECK(pwrite(fd_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
    }

private:
    int fd_;
    std::string path_;
};

} // namespace fuzz

#endif
