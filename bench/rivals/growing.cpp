/*
 * Each field put into a buffer that grows, a call that is inlined; and got from a message with its end in mind.
 */
#include "fields.h"

namespace {

class growing_buffer {
public:
    void clear() { size_ = 0; }
    void reserve(size_t size)
    {
        if (size > bytes_.size())
            bytes_.resize(size);
    }
    void octets(const void *from, size_t size)
    {
        if (bytes_.size() - size_ < size)
            bytes_.resize(2 * (bytes_.size() + size));
        memcpy(bytes_.data() + size_, from, size);
        size_ += size;
    }
    iovec piece() { return {bytes_.data(), size_}; }

private:
    std::vector<std::byte> bytes_;
    size_t size_ = 0;
};

class bounded_bytes {
public:
    explicit bounded_bytes(std::span<const std::byte> bytes) : bytes_(bytes) {}
    void octets(void *to, size_t size)
    {
        if (bytes_.size() < size) {
            good_ = false;
            return;
        }
        memcpy(to, bytes_.data(), size);
        bytes_ = bytes_.subspan(size);
    }
    bool good() const { return good_; }

private:
    std::span<const std::byte> bytes_;
    bool good_ = true;
};

} // namespace

std::unique_ptr<rival> growing_rival()
{
    return std::make_unique<fields_rival<growing_buffer, bounded_bytes>>("field by field");
}
