#include "pcapng_writer.h"

#include "pcapng_format.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vpn::capture {
namespace {

using namespace pcapng;

constexpr std::size_t flushed_at = 256 * 1024;

/* One block, in this machine's byte order, as the section header tells. */
class block {
public:
    explicit block(std::uint32_t type) { put(type).put(std::uint32_t{0}); }

    template <typename Number>
    block &put(Number value)
    {
        bytes_.append(reinterpret_cast<const char *>(&value), sizeof value);
        return *this;
    }
    block &put_bytes(std::string_view bytes)
    {
        bytes_.append(bytes);
        bytes_.resize((bytes_.size() + 3) / 4 * 4);
        return *this;
    }
    block &option(std::uint16_t code, std::string_view value)
    {
        return put(code).put(static_cast<std::uint16_t>(value.size())).put_bytes(value);
    }
    block &option(std::uint16_t code, std::uint64_t value)
    {
        return option(code, {reinterpret_cast<const char *>(&value), sizeof value});
    }
    [[nodiscard]] const std::string &finish()
    {
        const auto length = static_cast<std::uint32_t>(bytes_.size() + sizeof(std::uint32_t));
        std::memcpy(&bytes_[4], &length, sizeof length);
        put(length);
        return bytes_;
    }

private:
    std::string bytes_;
};

std::uint32_t upper(std::uint64_t value)
{
    return static_cast<std::uint32_t>(value >> 32);
}

[[noreturn]] void refuse()
{
    throw bad_file(errno == EEXIST ? "there already (--force replaces it)" : ::strerrordesc_np(errno));
}

} // namespace

bool give_name(const std::string &from, const std::string &to, bool replace)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), replace ? 0 : RENAME_NOREPLACE) == 0) {
        return true;
    }
    /* Some file systems cannot tell. */
    return errno == EINVAL && ::link(from.c_str(), to.c_str()) == 0 && ::unlink(from.c_str()) == 0;
}

pcapng_writer::pcapng_writer(const std::string &path, bool replace, std::string_view program,
                             asked is_stopped)
    : path_(path), replace_(replace), is_stopped_(is_stopped)
{
    struct stat there {};
    if (!replace && ::lstat(path.c_str(), &there) == 0) {
        errno = EEXIST;
        refuse();
    }
    if (::stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) {
        open_stream();
    } else {
        std::string name = path + ".XXXXXX";
        file_.reset(::mkostemp(name.data(), O_CLOEXEC));
        if (file_) {
            temporary_ = name;
        }
    }
    if (!file_ && !given_up_) {
        refuse();
    }
    block head(section_header);
    head.put(byte_order_magic).put(std::uint16_t{1}).put(std::uint16_t{0}).put(UINT64_MAX);
    out_ += head.option(shb_userappl, program).option(option_end, std::string_view()).finish();
}

pcapng_writer::~pcapng_writer()
{
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
    }
}

/* Of a pipe, that takes as long as nobody reads. */
void pcapng_writer::open_stream()
{
    do {
        file_.reset(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
        given_up_ = !file_ && errno == EINTR && is_stopped_();
    } while (!file_ && errno == EINTR && !given_up_);
}

void pcapng_writer::place()
{
    flush();
    if (temporary_.empty()) {
        return;
    }
    if (!give_name(temporary_, path_, replace_)) {
        refuse();
    }
    temporary_.clear();
}

std::uint32_t pcapng_writer::add_interface(const std::string &name)
{
    block about(interface_description);
    about.put(link_type).put(std::uint16_t{0}).put(std::uint32_t{0});
    about.option(if_name, name).option(if_tsresol, std::string_view("\x09", 1));
    out_ += about.option(option_end, std::string_view()).finish();
    return interfaces_++;
}

void pcapng_writer::add(std::uint32_t interface, const captured &record, std::uint64_t lost)
{
    std::array<std::uint8_t, head_length> head{};
    put_head(record.head, head.data());
    block packet(enhanced_packet);
    packet.put(interface).put(upper(record.time)).put(static_cast<std::uint32_t>(record.time));
    const std::span message =
        std::span(record.message)
            .first(std::min<std::size_t>(record.message.size(), packet_most - head.size()));
    packet.put(static_cast<std::uint32_t>(head.size() + message.size()));
    packet.put(static_cast<std::uint32_t>(head.size() + record.head.length));
    std::string bytes(head.begin(), head.end());
    packet.put_bytes(bytes.append(message.begin(), message.end()));
    if (lost > 0) {
        packet.option(epb_dropcount, lost).option(option_end, std::string_view());
    }
    out_ += packet.finish();
    latest_ = std::max(latest_, record.time);
    if (out_.size() >= flushed_at) {
        flush();
    }
}

void pcapng_writer::add_statistics(std::uint32_t interface, std::uint64_t received, std::uint64_t lost)
{
    block numbers(interface_statistics);
    numbers.put(interface).put(upper(latest_)).put(static_cast<std::uint32_t>(latest_));
    numbers.option(isb_ifrecv, received).option(isb_ifdrop, lost);
    out_ += numbers.option(option_end, std::string_view()).finish();
}

void pcapng_writer::flush()
{
    for (std::string_view left = out_; !left.empty() && !given_up_;) {
        const bool was_stopped = is_stopped_(); /* a while ago: whoever reads has had the time since */
        const ssize_t length = ::write(file_.get(), left.data(), left.size());
        if (length < 0 && errno != EINTR) {
            throw bad_file(std::string("cannot write: ") + ::strerrordesc_np(errno));
        }
        given_up_ = length < 0 && was_stopped;
        left.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }
    written_ += out_.size();
    out_.clear();
}

} // namespace l2vpn::capture
