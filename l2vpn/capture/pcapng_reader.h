/*
 * Reading a pcapng file that holds recorded messages, in either byte order. Nothing in it is trusted.
 */
#ifndef L2VPN_CAPTURE_PCAPNG_READER_H
#define L2VPN_CAPTURE_PCAPNG_READER_H

#include "captured.h"

#include <istream>
#include <memory>

namespace l2vpn::capture {

struct pcapng_summary {
    std::uint64_t records = 0;
    std::uint64_t damaged = 0; /* packets that are no record */
    std::uint64_t foreign = 0; /* packets of another link type */
    std::uint64_t lost = 0;    /* as the interfaces' statistics say or, without any, the packets */
    std::string ends_early;    /* where and how, for people; empty: it is whole */
};

class pcapng_reader {
public:
    explicit pcapng_reader(std::istream &from);
    ~pcapng_reader();
    pcapng_reader(const pcapng_reader &) = delete;
    pcapng_reader &operator=(const pcapng_reader &) = delete;

    /* The next record, and as many as its packet says were lost just before it. False: there is none any more; a
     * file that breaks off gives what it holds. Throws bad_file. */
    bool next(captured &record, std::uint64_t &lost);
    /* Of what was read so far. */
    [[nodiscard]] pcapng_summary summary() const;

private:
    class state;
    std::unique_ptr<state> state_;
};

} // namespace l2vpn::capture

#endif
