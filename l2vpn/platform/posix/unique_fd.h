/*
 * A descriptor that is closed with its owner. Closing keeps errno.
 */
#ifndef PLATFORM_POSIX_UNIQUE_FD_H
#define PLATFORM_POSIX_UNIQUE_FD_H

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace l2vpn::platform_posix {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0) {
            const int cause = errno;
            ::close(fd_);
            errno = cause;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace l2vpn::platform_posix

#endif
