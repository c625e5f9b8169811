/*
 * Whole messages that wait in order, bounded in bytes and in number. Not locked: its owner does that.
 */
#ifndef PLATFORM_POSIX_IPC_MESSAGE_QUEUE_H
#define PLATFORM_POSIX_IPC_MESSAGE_QUEUE_H

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <platform/qerr.h>
#include <sys/uio.h>

namespace l2vpn::ipc {

inline constexpr size_t queue_bytes_max = size_t{16} << 20;
inline constexpr size_t queue_messages_max = size_t{64} << 10;

class message_queue {
public:
    /* EOK: a copy of the pieces was taken. ENOBUFS: it is full. ENOMEM. Otherwise nothing has changed. */
    qerrno push(const iovec *pieces, uint32_t count, uint64_t size)
    {
        if (size > queue_bytes_max - bytes_ || messages_.size() == queue_messages_max) {
            return ENOBUFS;
        }
        const auto length = static_cast<size_t>(size);
        try {
            messages_.push_back({std::make_unique_for_overwrite<char[]>(length), length});
        } catch (const std::bad_alloc &) {
            return ENOMEM;
        }
        char *to = messages_.back().bytes.get();
        for (const iovec *piece = pieces; piece != pieces + count; ++piece) {
            if (piece->iov_len > 0) {
                memcpy(to, piece->iov_base, piece->iov_len);
                to += piece->iov_len;
            }
        }
        bytes_ += length;
        return EOK;
    }

    [[nodiscard]] iovec at(size_t index) const
    {
        return {messages_[index].bytes.get(), messages_[index].length};
    }

    void pop()
    {
        bytes_ -= messages_.front().length;
        messages_.pop_front();
    }

    void clear()
    {
        messages_.clear();
        bytes_ = 0;
    }

    [[nodiscard]] bool empty() const { return messages_.empty(); }
    [[nodiscard]] size_t size() const { return messages_.size(); }
    [[nodiscard]] size_t bytes() const { return bytes_; }

private:
    struct message {
        std::unique_ptr<char[]> bytes;
        size_t length;
    };
    std::deque<message> messages_;
    size_t bytes_ = 0;
};

} // namespace l2vpn::ipc

#endif
