/*
 * Reading a pcapng file that holds recorded messages, in either byte order. Nothing in it is trusted.
 */
#ifndef L2VPN_CAPTURE_PCAPNG_READER_H
#define L2VPN_CAPTURE_PCAPNG_READER_H

#include "captured.h"

#include <functional>
#include <istream>

namespace l2vpn::capture {

struct pcapng_summary {
    std::uint64_t records = 0;
    std::uint64_t damaged = 0; /* packets that are no record */
    std::uint64_t foreign = 0; /* packets of another link type */
    std::uint64_t lost = 0;    /* as the interfaces' statistics say or, without any, the packets */
    bool stopped = false;      /* by `take`: the rest was not looked at */
    std::string ends_early;    /* where and how, for people; empty: it is whole */
};

/* Calls `take` for each record, until it returns false. Throws bad_file. A file that breaks off gives what it holds. */
pcapng_summary read_pcapng(std::istream &from, const std::function<bool(captured &&record)> &take);

} // namespace l2vpn::capture

#endif
