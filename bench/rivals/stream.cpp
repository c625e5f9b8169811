/*
 * Each field put into a stream buffer of the standard library's, and got from one over the message. The buffer is
 * rewound for the next message and keeps its room; no stream with its formats is above it.
 */
#include "fields.h"

#include <sstream>
#include <streambuf>
#include <string>

namespace {

class stream_buffer {
public:
    void clear() { buffer_.pubseekpos(0, std::ios::out); }
    void reserve(size_t size)
    {
        if (size <= reserved_)
            return;
        buffer_.str(std::string(size, '\0'));
        reserved_ = size;
    }
    void octets(const void *from, size_t size)
    {
        buffer_.sputn(static_cast<const char *>(from), static_cast<std::streamsize>(size));
    }
    iovec piece()
    {
        const std::streamoff size = buffer_.pubseekoff(0, std::ios::cur, std::ios::out);
        return {const_cast<char *>(buffer_.view().data()), static_cast<size_t>(size)};
    }

private:
    std::stringbuf buffer_{std::ios::out};
    size_t reserved_ = 0;
};

class message_buffer : public std::streambuf {
public:
    explicit message_buffer(std::span<const std::byte> message)
    {
        char *const begin = const_cast<char *>(reinterpret_cast<const char *>(message.data()));
        setg(begin, begin, begin + message.size());
    }
    void octets(void *to, size_t size)
    {
        const auto wanted = static_cast<std::streamsize>(size);
        good_ = sgetn(static_cast<char *>(to), wanted) == wanted && good_;
    }
    bool good() const { return good_; }

private:
    bool good_ = true;
};

} // namespace

std::unique_ptr<rival> stream_rival()
{
    return std::make_unique<fields_rival<stream_buffer, message_buffer>>("stream buffer");
}
