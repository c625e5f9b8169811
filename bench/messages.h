/*
 * Outlets of messages: nowhere, or kept back to back, to be compared, copied or sent as they are.
 */
#ifndef BENCH_MESSAGES_H
#define BENCH_MESSAGES_H

#include "counting_platform.h"

#include <cstddef>
#include <span>
#include <vector>

class nowhere final : public counting::outlet {
public:
    void put(const iovec *pieces, size_t) override { last_ = pieces->iov_base; }

private:
    const void *volatile last_ = nullptr; /* so that what is encoded is needed */
};

class messages final : public counting::outlet {
public:
    void put(const iovec *pieces, size_t count) override
    {
        for (const iovec *piece = pieces; piece != pieces + count; ++piece) {
            const auto *const from = static_cast<const std::byte *>(piece->iov_base);
            bytes_.insert(bytes_.end(), from, from + piece->iov_len);
        }
        ends_.push_back(bytes_.size());
    }

    size_t count() const { return ends_.size(); }
    size_t size() const { return bytes_.size(); }
    std::span<const std::byte> operator[](size_t i) const
    {
        const size_t begin = i == 0 ? 0 : ends_[i - 1];
        return {bytes_.data() + begin, ends_[i] - begin};
    }

    /* Each as one piece. */
    void put_all(counting::outlet &to) const
    {
        for (size_t i = 0; i < count(); ++i) {
            const iovec piece = {const_cast<std::byte *>((*this)[i].data()), (*this)[i].size()};
            to.put(&piece, 1);
        }
    }

private:
    std::vector<std::byte> bytes_;
    std::vector<size_t> ends_;
};

#endif
