/*
 * The fixture of the contract tests: the library, loaded anew, on the simulated platform, with a client
 * whose callbacks write down what they are told.
 */
#ifndef TESTS_SUPPORT_CONTRACT_TEST_H
#define TESTS_SUPPORT_CONTRACT_TEST_H

#include "ac_library.h"
#include "golden.h"

#include <platform/sim.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using l2vpn::sim::bytes;
using l2vpn::sim::fn;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

/* One call of a client's callback. Arrays are copied while they are readable. */
struct notice {
    enum kind { status, prov, unprov, bulk_notify, hdr_notify } what;
    l2vpn_ac_client_hd_t hd;
    std::uint32_t first;  /* status; bulk; header word 2 */
    std::uint32_t second; /* argument; flags; header word 3 */
    std::vector<ifhtype> ifhs;
    std::vector<l2vpn_ac_xcid_data_t> data;
    std::vector<l2vpn_ac_bulk_notify_t> records;
};

/* The four words of a message's header, in host byte order. */
struct header {
    std::uint32_t mark, msg_type, bulk, flags;
    bool operator==(const header &) const = default;
};

inline void PrintTo(const header &h, std::ostream *os)
{
    *os << "{" << h.mark << ", " << h.msg_type << ", " << h.bulk << ", 0x" << std::hex << h.flags << std::dec
        << "}";
}

inline std::uint32_t be32(const std::uint8_t *at)
{
    return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 | at[3];
}

inline header header_of(const bytes &message)
{
    if (message.size() < 16)
        return {};
    return {be32(&message[0]), be32(&message[4]), be32(&message[8]), be32(&message[12])};
}

inline std::vector<header> headers_of(const std::vector<bytes> &messages)
{
    std::vector<header> result;
    for (const bytes &message : messages)
        result.push_back(header_of(message));
    return result;
}

inline void put32(bytes &message, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        message.push_back(static_cast<std::uint8_t>(value >> shift));
}

inline bytes message_of(std::uint32_t type, std::uint32_t bulk, std::uint32_t flags, std::size_t payload = 0)
{
    bytes message;
    for (const std::uint32_t word : {std::uint32_t{3}, type, bulk, flags})
        put32(message, word);
    message.resize(16 + payload, 0);
    return message;
}

/* Arrays of a request, filled with bytes that differ everywhere. */
struct acs {
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;

    explicit acs(std::size_t count, std::uint8_t seed = 1) : ifh(count), defns(count), infos(count)
    {
        std::uint8_t next = seed;
        const auto fill = [&next](void *at, std::size_t size) {
            auto *const p = static_cast<std::uint8_t *>(at);
            for (std::size_t i = 0; i < size; ++i)
                p[i] = next = static_cast<std::uint8_t>(next * 5 + 1);
        };
        for (std::size_t i = 0; i < count; ++i)
            ifh[i] = static_cast<ifhtype>(0x01020300 + i);
        fill(defns.data(), count * sizeof(l2vpn_ac_defn_t));
        fill(infos.data(), count * sizeof(l2vpn_ac_info_t));
    }

    std::uint32_t size() const { return static_cast<std::uint32_t>(ifh.size()); }

    bool operator==(const acs &other) const
    {
        return ifh == other.ifh && same(defns, other.defns) && same(infos, other.infos);
    }

private:
    template <typename T>
    static bool same(const std::vector<T> &a, const std::vector<T> &b)
    {
        return a.size() == b.size() &&
               (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
    }
};

class contract : public testing::Test {
protected:
    contract()
    {
        current_ = this;
        world.set.enforce_mtu = false; /* what the library sends is looked at, whatever its length */
    }
    ~contract() override { current_ = nullptr; }

    /* Whatever a test did, its clients can be disconnected, and nothing is left then. */
    void TearDown() override
    {
        during = nullptr;
        world.clear_failures();
        for (std::size_t i = 0; i < l2vpn::sim::fn_count; ++i)
            world.before(static_cast<fn>(i), {});
        for (std::uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id) {
            const l2vpn::sim::link &link = world.link_of(class_id);
            if (link.registered())
                (void)lib.disconnect(static_cast<l2vpn_ac_client_hd_t>(link.cookie()));
        }
        EXPECT_EQ(world.clients(), 0u);
        EXPECT_EQ(world.live_leaves(), 0u);
    }

    l2vpn::sim::world world;
    ac_library lib;
    std::vector<notice> notices;

    /* Called from inside a callback, after it was written down. */
    std::function<void(const notice &)> during;

    l2vpn_ac_callback_vector_t callbacks = {on_status,     on_prov, on_unprov, on_bulk_notify,
                                            on_hdr_notify, nullptr, nullptr};

    /* A client of the class, JOIN sent. */
    l2vpn_ac_client_hd_t connect(std::uint32_t class_id)
    {
        l2vpn_ac_client_hd_t hd = nullptr;
        EXPECT_EQ(lib.connect(world.evm(), 0, class_id, &callbacks, &hd), 0u);
        EXPECT_NE(hd, nullptr);
        return hd;
    }

    /* A client of the class that is up, with nothing sent or written down yet. */
    l2vpn_ac_client_hd_t connect_up(std::uint32_t class_id)
    {
        const l2vpn_ac_client_hd_t hd = connect(class_id);
        world.link_of(class_id).up();
        world.run();
        world.link_of(class_id).clear_sent();
        notices.clear();
        return hd;
    }

    /* A client that a disconnect event has made idle: the retry logic refuses failed sends. */
    l2vpn_ac_client_hd_t connect_idle(std::uint32_t class_id)
    {
        const l2vpn_ac_client_hd_t hd = connect(class_id);
        world.link_of(class_id).event(L2VPN_IPC_EVT_DISCONNECTED);
        world.run();
        world.link_of(class_id).clear_sent();
        notices.clear();
        return hd;
    }

    const std::vector<bytes> &sent(std::uint32_t class_id) { return world.link_of(class_id).sent(); }
    std::vector<header> sent_headers(std::uint32_t class_id) { return headers_of(sent(class_id)); }

    /* The same word of every message sent since it was last asked. */
    std::vector<std::uint32_t> flags_sent(std::uint32_t class_id = 4)
    {
        return take_sent(class_id, &header::flags);
    }
    std::vector<std::uint32_t> bulks_sent(std::uint32_t class_id = 4)
    {
        return take_sent(class_id, &header::bulk);
    }
    std::vector<std::uint32_t> take_sent(std::uint32_t class_id, std::uint32_t header::*word)
    {
        std::vector<std::uint32_t> result;
        for (const header &h : sent_headers(class_id))
            result.push_back(h.*word);
        world.link_of(class_id).clear_sent();
        return result;
    }

    qerrno create(l2vpn_ac_client_hd_t hd, std::uint32_t flags, acs &a)
    {
        return lib.create(hd, flags, a.size(), a.ifh.data(), a.defns.data(), a.infos.data());
    }
    qerrno update(l2vpn_ac_client_hd_t hd, std::uint32_t flags, acs &a)
    {
        return lib.update(hd, flags, a.size(), a.ifh.data(), a.infos.data());
    }
    qerrno remove(l2vpn_ac_client_hd_t hd, std::uint32_t flags, acs &a)
    {
        return lib.remove(hd, flags, a.size(), a.ifh.data());
    }

    /* The statuses that status_cb was told, in order. */
    std::vector<std::uint32_t> statuses() const
    {
        std::vector<std::uint32_t> result;
        for (const notice &n : notices) {
            if (n.what == notice::status)
                result.push_back(n.first);
        }
        return result;
    }

    /* How often this exact line was given on any channel since the records were cleared. */
    long logged(const std::string &text) const
    {
        const std::vector<std::string> log = world.log();
        return std::count(log.begin(), log.end(), text);
    }

    /* The number of calls since the records were cleared. */
    std::size_t called(fn function) const { return world.calls(function).size(); }

    /* The functions called since the records were cleared, of those named. */
    std::vector<std::string> order_of(std::initializer_list<fn> functions) const
    {
        std::vector<std::string> result;
        for (const auto &call : world.calls()) {
            if (std::find(functions.begin(), functions.end(), call.function) != functions.end())
                result.push_back(name_of(call.function));
        }
        return result;
    }

private:
    static contract *current_;

    static qerrno write_down(const notice &n)
    {
        current_->notices.push_back(n);
        const auto during = current_->during; /* which may set itself anew */
        if (during)
            during(n);
        return 77; /* ignored by the library */
    }
    static qerrno on_status(l2vpn_ac_client_hd_t hd, std::uint32_t status, std::uint32_t arg)
    {
        return write_down({notice::status, hd, status, arg, {}, {}, {}});
    }
    static qerrno on_prov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh,
                          l2vpn_ac_xcid_data_t *data, std::uint32_t flags)
    {
        return write_down({notice::prov, hd, bulk, flags, {ifh, ifh + bulk}, {data, data + bulk}, {}});
    }
    static qerrno on_unprov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh, std::uint32_t flags)
    {
        return write_down({notice::unprov, hd, bulk, flags, {ifh, ifh + bulk}, {}, {}});
    }
    static qerrno on_bulk_notify(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                                 std::uint32_t flags)
    {
        return write_down({notice::bulk_notify, hd, bulk, flags, {}, {}, {records, records + bulk}});
    }
    static qerrno on_hdr_notify(l2vpn_ac_client_hd_t hd, std::uint32_t word2, void *null, std::uint32_t word3)
    {
        EXPECT_EQ(null, nullptr);
        return write_down({notice::hdr_notify, hd, word2, word3, {}, {}, {}});
    }
};

inline contract *contract::current_ = nullptr;

#endif
