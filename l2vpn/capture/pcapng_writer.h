/*
 * Writing a pcapng file: one section, an interface a ring.
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
    /* Makes the file, which must not be there unless it may be replaced. Throws bad_file, as all of these. */
    pcapng_writer(const std::string &path, bool replace, std::string_view program);

    /* The number of the new interface. */
    std::uint32_t add_interface(const std::string &name);
    /* `lost`: how many records were lost just before this one. */
    void add(std::uint32_t interface, const captured &record, std::uint64_t lost);
    void add_statistics(std::uint32_t interface, std::uint64_t received, std::uint64_t lost);
    /* Everything is in the file when this returns. */
    void flush();

    [[nodiscard]] std::uint64_t size() const noexcept { return written_ + out_.size(); }

private:
    platform_posix::unique_fd file_;
    std::string out_; /* not written yet */
    std::uint64_t written_ = 0;
    std::uint64_t latest_ = 0; /* time */
    std::uint32_t interfaces_ = 0;
};

} // namespace l2vpn::capture

#endif
