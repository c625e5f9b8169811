/*
 * Messages for the library, which converts them where they lie. One that was delivered before is delivered again with
 * the header that it came with; its payload is what differs then, and the work is the same.
 */
#ifndef BENCH_DELIVERIES_H
#define BENCH_DELIVERIES_H

#include "counting_platform.h"
#include "filler.h"

#include <l2vpn/l2vpn_ac_api.h>

#include <cstring>

class deliveries {
public:
    void add(std::span<const uint64_t> message, size_t size)
    {
        messages_.add(message, size);
        l2vpn_ac_msg_hdr_t header;
        memcpy(&header, message.data(), sizeof header);
        headers_.push_back(header);
    }

    stream &messages() { return messages_; }

    /* As they are to be received. */
    void restore()
    {
        for (size_t i = 0; i < headers_.size(); ++i)
            memcpy(messages_[i].data(), &headers_[i], sizeof headers_[i]);
    }

    void deliver_all()
    {
        for (size_t i = 0; i < headers_.size(); ++i) {
            const std::span<std::byte> message = messages_[i];
            memcpy(message.data(), &headers_[i], sizeof headers_[i]);
            deliver(message);
        }
    }

    static void deliver(std::span<std::byte> message)
    {
        counting::deliver(message.data(), static_cast<uint32_t>(message.size()));
    }

private:
    stream messages_;
    std::vector<l2vpn_ac_msg_hdr_t> headers_;
};

#endif
