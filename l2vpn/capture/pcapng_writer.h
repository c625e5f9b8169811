/*
 * Writing a pcapng file: one section, an interface a ring.
 *
 * The file is made under a name of its own and gets its real one by place(): what was there before is whole until
 * then, and whoever finds the file finds a beginning that can be read. What is no regular file (a pipe, a device)
 * is written as it is, for as long as somebody reads.
 */
#ifndef L2VPN_CAPTURE_PCAPNG_WRITER_H
#define L2VPN_CAPTURE_PCAPNG_WRITER_H

#include "captured.h"
#include "unique_fd.h"

#include <string_view>

namespace l2vpn::capture {

constexpr std::uint16_t link_type = 147; /* LINKTYPE_USER0 */

class pcapng_writer {
public:
    /* Asked when a signal comes while a reader is waited for: whether that is not worth while any more. */
    using asked = bool (*)();

    /* A file that is there is left alone unless it may be replaced. Throws bad_file, as all of these. */
    pcapng_writer(
        const std::string &path, bool replace, std::string_view program,
        asked is_stopped = [] { return false; });
    ~pcapng_writer();
    pcapng_writer(const pcapng_writer &) = delete;
    pcapng_writer &operator=(const pcapng_writer &) = delete;

    /* The number of the new interface. */
    std::uint32_t add_interface(const std::string &name);
    /* `lost`: how many records were lost just before this one. */
    void add(std::uint32_t interface, const captured &record, std::uint64_t lost);
    void add_statistics(std::uint32_t interface, std::uint64_t received, std::uint64_t lost);
    /* Everything is in the file when this returns, unless it was stopped: then no more comes there. */
    void flush();
    /* And the file is at its path. */
    void place();

    [[nodiscard]] std::uint64_t size() const noexcept { return written_ + out_.size(); }

private:
    void open_stream();

    std::string path_;
    std::string temporary_; /* empty: the file is at its path */
    bool replace_;
    asked is_stopped_;
    bool given_up_ = false;
    platform_posix::unique_fd file_;
    std::string out_; /* not written yet */
    std::uint64_t written_ = 0;
    std::uint64_t latest_ = 0; /* time */
    std::uint32_t interfaces_ = 0;
};

/* The file is called `to` from now on, or errno says why not. */
bool give_name(const std::string &from, const std::string &to, bool replace);

} // namespace l2vpn::capture

#endif
