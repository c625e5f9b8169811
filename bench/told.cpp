/*
 * What an owner is told of many ACs at once beside their data: that they are unprovisioned, and notices. The records are
 * converted where they lie and given to the callback; from memory, and received from a socket that another process fills.
 */
#include "client.h"
#include "deliveries.h"
#include "results.h"
#include "swap.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

void turn_handle(std::byte *record)
{
    swap_at<uint32_t>(record);
}

void turn_notice(std::byte *record)
{
    swap_at<uint32_t>(record + offsetof(l2vpn_ac_bulk_notify_t, word));
    swap_at<uint16_t>(record + offsetof(l2vpn_ac_bulk_notify_t, half));
    for (size_t i = 0; i < 4; ++i)
        swap_at<uint32_t>(record + offsetof(l2vpn_ac_bulk_notify_t, words) + 4 * i);
    swap_at<uint32_t>(record + offsetof(l2vpn_ac_bulk_notify_t, word2));
}

struct kind {
    const char *name;
    uint32_t msg_type;
    size_t record; /* its bytes */
    void (*turn)(std::byte *record);
};

constexpr kind kinds[] = {
    {"unprovision", L2VPN_AC_MSG_UNPROV, sizeof(ifhtype), turn_handle},
    {"notices", L2VPN_AC_MSG_BULK_NOTIFY, sizeof(l2vpn_ac_bulk_notify_t), turn_notice},
};

/* As one writes it down, once the class is known: what the compiler sees is the record. */
template <size_t record, void (*turn_record)(std::byte *)>
void plain_loop(std::span<std::byte> message)
{
    for (std::byte *at = message.data() + L2VPN_AC_HDR_LEN; at < message.data() + message.size();
         at += record)
        turn_record(at);
    asm volatile("" : : "r"(message.data()) : "memory"); /* here the owner would be told */
}

void plain_loops(const kind &of, stream &messages)
{
    for (size_t i = 0; i < messages.count(); ++i) {
        if (of.msg_type == L2VPN_AC_MSG_UNPROV)
            plain_loop<sizeof(ifhtype), turn_handle>(messages[i]);
        else
            plain_loop<sizeof(l2vpn_ac_bulk_notify_t), turn_notice>(messages[i]);
    }
}

/* The messages of so many records. */
class telling {
public:
    telling(const kind &of, uint32_t mtu, uint32_t count) : records_(count * of.record)
    {
        std::mt19937 random(count);
        for (std::byte &each : records_)
            each = static_cast<std::byte>(random() & 0xff);
        const auto each = static_cast<uint32_t>((mtu - L2VPN_AC_HDR_LEN) / of.record);
        for (uint32_t first = 0; first < count; first += each) {
            const uint32_t in_message = std::min(each, count - first);
            const size_t size = L2VPN_AC_HDR_LEN + in_message * of.record;
            std::vector<uint64_t> words((size + 7) / 8);
            auto *const at = reinterpret_cast<std::byte *>(words.data());
            const uint32_t header[] = {L2VPN_AC_HDR_MARK, of.msg_type, in_message, 0};
            memcpy(at, header, sizeof header);
            memcpy(at + sizeof header, &records_[first * of.record], in_message * of.record);
            for (size_t i = 0; i < std::size(header); ++i)
                swap_at<uint32_t>(at + 4 * i);
            for (uint32_t i = 0; i < in_message; ++i)
                of.turn(at + sizeof header + i * of.record);
            messages_.add(words, size);
        }
    }

    deliveries &messages() { return messages_; }

    /* What comes to the owner while `deliver` runs is what the messages were made of. */
    template <typename Deliver>
    void verify(const kind &of, Deliver deliver)
    {
        struct {
            size_t record;
            std::vector<std::byte> records;
        } seen = {of.record, {}};
        on_records(
            [](void *context, uint32_t count, const void *records) {
                auto &to = *static_cast<decltype(seen) *>(context);
                const auto *const from = static_cast<const std::byte *>(records);
                to.records.insert(to.records.end(), from, from + count * to.record);
            },
            &seen);
        deliver();
        on_records(nullptr, nullptr);
        if (seen.records != records_) {
            std::fprintf(stderr, "l2vpn_bench: %s comes to the owner as another\n", of.name);
            std::exit(1);
        }
    }

private:
    std::vector<std::byte> records_;
    deliveries messages_;
};

void measure_kind(results &to, const kind &of, uint32_t mtu, uint32_t count)
{
    const bench_client client(0, mtu);
    telling told(of, mtu, count);
    deliveries &messages = told.messages();
    filler received(messages.messages()); /* first: as they are now */
    const auto receive_all = [&] {
        for (size_t i = 0; i < messages.messages().count(); ++i)
            deliveries::deliver(received.take());
    };
    told.verify(of, receive_all);
    told.verify(of, [&] { messages.deliver_all(); });
    std::vector<std::byte> room(messages.messages().longest());
    to.take(of.name, 0, mtu, count,
            {
                {"library", [&] { messages.deliver_all(); }},
                {"library and recv", receive_all},
                {"recv",
                 [&] {
                     for (size_t i = 0; i < messages.messages().count(); ++i)
                         received.take();
                 }},
                {"memcpy", [&] { copy_all(messages.messages(), room); }},
                {"plain loops", [&] { plain_loops(of, messages.messages()); }},
            },
            to.seconds(count));
}

} // namespace

void measure_told(results &to)
{
    struct size {
        uint32_t mtu, count;
        bool quick;
    };
    static constexpr size sizes[] = {
        {65536, 300, true}, {65536, 10000, true}, {65536, 200000, true},
        {1516, 300, false}, {1516, 10000, false}, {1516, 200000, false},
    };
    for (const kind &of : kinds) {
        for (const size &at : sizes) {
            if (to.wants(at.count, at.quick))
                measure_kind(to, of, at.mtu, at.count);
        }
    }
}
