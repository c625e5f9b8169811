/*
 * What the L2VPN process sends, sound and unsound.
 */
#include "random.h"
#include "step.h"

namespace simulation {

namespace {

constexpr std::uint32_t provision = 7;
constexpr std::uint32_t unprovision = 8;
constexpr std::uint32_t bulk_notice = 13;
constexpr std::uint32_t header_notice = 15;

std::uint32_t random_flags(random_source &random)
{
    return random.pick<std::uint32_t>({0, 1, 2, 2, 0x80000000, 0x02000000, 0x02000002, 0xffffffff, 0x101});
}

void append(bytes &message, random_source &random, std::size_t size)
{
    const std::size_t at = message.size();
    message.resize(at + size);
    random.fill(std::span(message).subspan(at));
}

bytes message_of(random_source &random, std::uint32_t type, std::uint32_t bulk, std::uint32_t flags,
                 std::size_t payload)
{
    bytes message = header_of(type, bulk, flags);
    if (random.percent(10))
        message[3] = 9; /* the mark is ignored */
    append(message, random, payload);
    return message;
}

/* The payload of `bulk` records as it should be. */
std::size_t payload_of(std::uint32_t type, std::uint32_t class_id, std::uint32_t bulk)
{
    if (type == provision)
        return bulk * data_size(class_id);
    return bulk * (type == unprovision ? std::size_t{4} : notify_size);
}

} // namespace

bytes provision_message(random_source &random, std::uint32_t class_id, std::uint32_t bulk,
                        std::uint32_t flags)
{
    return message_of(random, provision, bulk, flags, payload_of(provision, class_id, bulk));
}

step random_message(random_source &random, std::uint32_t class_id)
{
    step result;
    result.what = op::inject;
    result.class_id = class_id;
    const std::uint32_t flags = random_flags(random);

    if (random.percent(30)) { /* a type that has no handling, or no payload */
        const auto type = random.pick<std::uint32_t>({0,
                                                      1,
                                                      2,
                                                      3,
                                                      4,
                                                      5,
                                                      6,
                                                      9,
                                                      10,
                                                      11,
                                                      12,
                                                      14,
                                                      16,
                                                      17,
                                                      18,
                                                      255,
                                                      0x07000000,
                                                      0x0f000000,
                                                      0xffffffff,
                                                      header_notice,
                                                      header_notice,
                                                      header_notice,
                                                      header_notice});
        const std::uint32_t bulk = random.below(5);
        result.message = message_of(random, type, bulk, flags, random.below(70));
        return result;
    }

    const auto type = random.pick<std::uint32_t>({provision, provision, unprovision, bulk_notice});
    std::uint32_t told = class_id;
    if (random.percent(15)) { /* the callback is told another class than the link's */
        told = random.percent(30) ? 15 : random.below(20);
        result.class_argument = told;
    }
    const std::uint32_t sized = told < class_count ? told : class_id;
    const bool deliverable = type != provision || (has_data_layout(sized) && sized == told);
    const std::uint32_t bulk = random.pick<std::uint32_t>({0, 1, 1, 2, 3, 7});

    if (deliverable && random.percent(75)) {
        result.message = message_of(random, type, bulk, flags, payload_of(type, sized, bulk));
        return result;
    }
    std::size_t payload = payload_of(type, sized, bulk);
    std::uint32_t claimed = bulk;
    switch (random.below(4)) {
    case 0:
        payload += 1 + random.below(8);
        break;
    case 1:
        payload -= payload == 0 ? 0 : 1 + random.below(static_cast<std::uint32_t>(payload));
        break;
    case 2: /* a record more, or so many that 32 bits would wrap into a match */
        claimed = random.pick<std::uint32_t>({bulk + 1, 0x40000000 + bulk, 0x08000000 + bulk, 0xffffffff});
        break;
    default: /* the length of another type's records; never that of these */
        payload = bulk * std::size_t{3} + 1;
        break;
    }
    /* Where there is no layout the length must be wrong. */
    if (type == provision && told < class_count && payload == payload_of(type, told, claimed))
        ++payload;
    result.message = message_of(random, type, claimed, flags, payload);
    return result;
}

} // namespace simulation
