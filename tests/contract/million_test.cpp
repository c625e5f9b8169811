/*
 * Requests of a million records, of which every one arrives.
 *
 * Information records are only read, and two gigabytes of them: they are zero, and never written here either, so
 * that they are addresses without memory.
 */
#include "contract_test.h"

#include <cstdlib>

namespace {

struct zero_infos {
    explicit zero_infos(std::size_t count)
        : data(static_cast<l2vpn_ac_info_t *>(std::calloc(count, sizeof(l2vpn_ac_info_t))))
    {
    }
    ~zero_infos() { std::free(data); }
    zero_infos(const zero_infos &) = delete;
    zero_infos &operator=(const zero_infos &) = delete;

    l2vpn_ac_info_t *const data;
};

class million : public contract {
protected:
    static constexpr std::uint32_t count = 1'000'000;

    million() : ifh(count)
    {
        for (std::uint32_t i = 0; i < count; ++i)
            ifh[i] = i + 1;
        world.set.record = false;
    }

    /* Runs a request of class 4 and counts its handles as they are sent, `element` bytes an AC. */
    template <typename F>
    void expect_all(F request, std::uint32_t element)
    {
        const auto hd = connect_up(4);
        std::uint64_t messages = 0;
        ifhtype next = 1;
        bool in_order = true;
        world.link_of(4).on_send([&](std::span<const std::uint8_t> message) {
            ++messages;
            const std::uint32_t n = be32(&message[8]);
            in_order = in_order && message.size() == 16 + std::size_t{n} * element;
            for (std::uint32_t i = 0; i < n && in_order; ++i)
                in_order = be32(&message[16 + 4 * i]) == next++;
        });
        EXPECT_EQ(request(hd), 0u);
        const std::uint32_t limit = (65536 - 16) / element;
        EXPECT_EQ(messages, (count + limit - 1) / limit);
        EXPECT_EQ(next, count + 1);
        EXPECT_TRUE(in_order);
        for (std::uint32_t i = 0; i < count; ++i)
            ASSERT_EQ(ifh[i], i + 1) << "restored";
    }

    std::vector<ifhtype> ifh;
};

TEST_F(million, created)
{
    std::vector<l2vpn_ac_defn_t> defns(count);
    const zero_infos infos(count);
    ASSERT_NE(infos.data, nullptr);
    expect_all([&](auto hd) { return lib.create(hd, 0, count, ifh.data(), defns.data(), infos.data); }, 636);
}

TEST_F(million, updated)
{
    const zero_infos infos(count);
    ASSERT_NE(infos.data, nullptr);
    expect_all([&](auto hd) { return lib.update(hd, 0, count, ifh.data(), infos.data); }, 20);
}

TEST_F(million, deleted)
{
    expect_all([&](auto hd) { return lib.remove(hd, 0, count, ifh.data()); }, 4);
}

} // namespace
