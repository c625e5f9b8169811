#include "pcapng_reader.h"

#include "pcapng_format.h"
#include "pcapng_writer.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace l2vpn::capture {
namespace {

using namespace pcapng;

constexpr std::size_t most_interfaces = 4096;
constexpr std::size_t read_at_once = std::size_t{64} << 10;

struct interface {
    bool ours = false;
    std::uint64_t ticks = 1'000'000; /* a second */
    std::uint64_t lost = 0;
    bool has_statistics = false;
    std::shared_ptr<const std::string> name;
};

} // namespace

class pcapng_reader::state {
public:
    explicit state(std::istream &from) : from_(from) {}

    bool next(captured &record, std::uint64_t &lost)
    {
        is_found_ = false;
        while (!is_found_ && read_block()) {
        }
        if (is_found_) {
            record = std::move(found_);
            lost = found_lost_;
        }
        return is_found_;
    }

    [[nodiscard]] pcapng_summary summary() const
    {
        pcapng_summary all = summary_;
        for (const interface &one : interfaces_) {
            all.lost += one.lost;
        }
        return all;
    }

private:
    using bytes = std::span<const std::uint8_t>;

    template <typename Number>
    [[nodiscard]] Number number(const std::uint8_t *at) const
    {
        Number value{};
        std::memcpy(&value, at, sizeof value);
        if (swapped_) {
            std::reverse(reinterpret_cast<std::uint8_t *>(&value),
                         reinterpret_cast<std::uint8_t *>(&value) + sizeof value);
        }
        return value;
    }

    /* False: the file ends here, as it should or not. */
    bool fill(std::span<std::uint8_t> to, std::uint64_t block)
    {
        from_.read(reinterpret_cast<char *>(to.data()), static_cast<std::streamsize>(to.size()));
        const auto got = static_cast<std::uint64_t>(from_.gcount());
        if (got < to.size() && offset_ + got > block) {
            summary_.ends_early = "breaks off at byte " + std::to_string(offset_ + got) +
                                  ", in the block at byte " + std::to_string(block);
        }
        offset_ += got;
        return got == to.size();
    }

    [[noreturn]] void damaged(std::uint64_t block, const char *why) const
    {
        throw bad_file("damaged: the block at byte " + std::to_string(block) + " " + why);
    }

    bool read_block()
    {
        const std::uint64_t at = offset_;
        std::array<std::uint8_t, 12> head{};
        const bool is_first = at == 0;
        if (!fill(head, at)) {
            if (is_first) {
                throw bad_file(offset_ == 0 ? "empty, not a pcapng file" : "not a pcapng file");
            }
            return false;
        }
        std::uint32_t type = number<std::uint32_t>(head.data());
        if (type == section_header) {
            begin_section(head, at);
        } else if (is_first) {
            throw bad_file("not a pcapng file");
        }
        const auto length = number<std::uint32_t>(&head[4]);
        if (length < block_least || length % 4 != 0 || length > block_most) {
            damaged(at, "has an impossible length");
        }
        body_.assign(head.begin() + 8, head.end());
        while (body_.size() < length - 8) { /* by and by: a file need not hold what it tells of */
            const std::size_t there = body_.size();
            body_.resize(std::min<std::size_t>(length - 8, there + read_at_once));
            if (!fill(std::span(body_).subspan(there), at)) {
                return false;
            }
        }
        if (number<std::uint32_t>(&body_[body_.size() - 4]) != length) {
            damaged(at, "has two lengths");
        }
        take_block(type, bytes(body_).first(body_.size() - 4), at);
        return true;
    }

    void begin_section(const std::array<std::uint8_t, 12> &head, std::uint64_t at)
    {
        end_section();
        swapped_ = false;
        if (number<std::uint32_t>(&head[8]) != byte_order_magic) {
            swapped_ = true;
            if (number<std::uint32_t>(&head[8]) != byte_order_magic) {
                damaged(at, "has no byte-order mark");
            }
        }
    }

    void end_section()
    {
        for (const interface &one : interfaces_) {
            summary_.lost += one.lost;
        }
        interfaces_.clear();
    }

    void take_block(std::uint32_t type, bytes body, std::uint64_t at)
    {
        switch (type) {
        case section_header:
            if (body.size() < 16) {
                damaged(at, "is too short");
            }
            if (const auto version = number<std::uint16_t>(&body[4]); version != 1) {
                throw bad_file("a pcapng file of version " + std::to_string(version) +
                               "; this program reads version 1");
            }
            break;
        case interface_description:
            take_interface(body, at);
            break;
        case enhanced_packet:
            take_packet(body, at);
            break;
        case interface_statistics:
            take_statistics(body, at);
            break;
        default: /* not of our making, and no matter */
            break;
        }
    }

    /* The value of an option, or nothing. */
    [[nodiscard]] std::optional<bytes> option(bytes options, std::uint16_t wanted) const
    {
        while (options.size() >= 4) {
            const auto code = number<std::uint16_t>(options.data());
            const std::size_t length = number<std::uint16_t>(&options[2]);
            if (code == option_end || length > options.size() - 4) {
                break;
            }
            if (code == wanted) {
                return options.subspan(4, length);
            }
            options = options.subspan(std::min(options.size(), 4 + (length + 3) / 4 * 4));
        }
        return std::nullopt;
    }

    [[nodiscard]] std::optional<std::uint64_t> number_option(bytes options, std::uint16_t wanted) const
    {
        const auto value = option(options, wanted);
        return value && value->size() == 8 ? std::optional(number<std::uint64_t>(value->data()))
                                           : std::nullopt;
    }

    void take_interface(bytes body, std::uint64_t at)
    {
        if (body.size() < 8 || interfaces_.size() == most_interfaces) {
            damaged(at, body.size() < 8 ? "is too short" : "is one interface too many");
        }
        interface made;
        made.ours = number<std::uint16_t>(body.data()) == link_type;
        const bytes name = option(body.subspan(8), if_name).value_or(bytes());
        made.name = std::make_shared<const std::string>(name.begin(), name.end());
        if (const auto resolution = option(body.subspan(8), if_tsresol);
            resolution && resolution->size() == 1) {
            const std::uint8_t power = (*resolution)[0];
            if ((power & 0x80) != 0 || power > 9) {
                damaged(at, "counts time in units that this program does not know");
            }
            made.ticks = 1;
            for (std::uint8_t i = 0; i < power; ++i) {
                made.ticks *= 10;
            }
        }
        interfaces_.push_back(made);
    }

    interface &interface_of(bytes body, std::size_t least, std::uint64_t at)
    {
        if (body.size() < least) {
            damaged(at, "is too short");
        }
        const auto number_of = number<std::uint32_t>(body.data());
        if (number_of >= interfaces_.size()) {
            damaged(at, "names an interface that is not there");
        }
        return interfaces_[number_of];
    }

    void take_packet(bytes body, std::uint64_t at)
    {
        constexpr std::size_t fixed = 20;
        interface &from = interface_of(body, fixed, at);
        const auto length = number<std::uint32_t>(&body[12]);
        if (length > body.size() - fixed) {
            damaged(at, "is shorter than its packet");
        }
        if (!from.ours) {
            ++summary_.foreign;
            return;
        }
        const bytes options = body.subspan(std::min<std::size_t>(body.size(), fixed + (length + 3) / 4 * 4));
        const std::uint64_t lost = number_option(options, epb_dropcount).value_or(0);
        if (!from.has_statistics) {
            from.lost += lost;
        }
        found_ = {};
        if (!parse(body.subspan(fixed, length), found_)) {
            ++summary_.damaged;
            return;
        }
        const std::uint64_t ticks =
            std::uint64_t{number<std::uint32_t>(&body[4])} << 32 | number<std::uint32_t>(&body[8]);
        found_.interface = from.name;
        found_.time = ticks * (1'000'000'000 / from.ticks);
        found_lost_ = lost;
        is_found_ = true;
        ++summary_.records;
    }

    void take_statistics(bytes body, std::uint64_t at)
    {
        constexpr std::size_t fixed = 12;
        interface &of = interface_of(body, fixed, at);
        if (!of.ours) {
            return;
        }
        if (const auto lost = number_option(body.subspan(fixed), isb_ifdrop)) {
            of.lost = *lost;
            of.has_statistics = true;
        }
    }

    std::istream &from_;
    captured found_{}; /* in the block that was read last */
    std::uint64_t found_lost_ = 0;
    bool is_found_ = false;
    bool swapped_ = false;
    std::uint64_t offset_ = 0;
    std::vector<std::uint8_t> body_;
    std::vector<interface> interfaces_;
    pcapng_summary summary_;
};

pcapng_reader::pcapng_reader(std::istream &from) : state_(std::make_unique<state>(from)) {}

pcapng_reader::~pcapng_reader() = default;

bool pcapng_reader::next(captured &record, std::uint64_t &lost)
{
    return state_->next(record, lost);
}

pcapng_summary pcapng_reader::summary() const
{
    return state_->summary();
}

} // namespace l2vpn::capture
