/*
 * Where addresses have 32 bits, the platform's entries of half a billion ACs have no room in them.
 */
#include "contract_test.h"

namespace {

static_assert(sizeof(std::size_t) == 4);

/* One AC more than a size of 32 bits can tell: 8 bytes would be left of it. */
constexpr std::uint32_t too_many = 0x20000001;

TEST_F(contract, a_request_whose_entries_have_no_room_reads_and_sends_nothing)
{
    const auto hd = connect_up(4);
    ifhtype ifh = 0x01020304;
    l2vpn_ac_defn_t defn = {};
    l2vpn_ac_info_t info = {};
    EXPECT_EQ(lib.create(hd, 0, too_many, &ifh, &defn, &info), 12u);
    EXPECT_EQ(lib.update(hd, 0, too_many, &ifh, &info), 12u);
    EXPECT_EQ(lib.remove(hd, 0, too_many, &ifh), 12u);
    EXPECT_EQ(called(fn::l2vpn_ac_data_sanitize), 0u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_EQ(ifh, 0x01020304u);
}

} // namespace
