#include "l2vpn_ac_class.h"

#include "../../support/ac_classes.h"

#include <gtest/gtest.h>

namespace {

TEST(ac_class, all_but_15_below_18_are_valid)
{
    for (uint32_t id = 0; id < 18; ++id)
        EXPECT_EQ(l2vpn_ac_class_find(id) != nullptr, id != 15) << id;
    for (const uint32_t id : {18u, 19u, 32u, 33u, 64u, 0x80000000u, 0xffffffffu})
        EXPECT_EQ(l2vpn_ac_class_find(id), nullptr) << id;
}

TEST(ac_class, rows_hold_their_sizes)
{
    for (uint32_t id = 0; id < 18; ++id) {
        if (const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(id)) {
            EXPECT_EQ(row->class_id, id);
            EXPECT_EQ(row->info_size, ac_classes::rows[id].info) << id;
            EXPECT_EQ(row->data_size, ac_classes::rows[id].data) << id;
        }
    }
}

TEST(ac_class, variable_sizes_leave_out_the_heads)
{
    for (uint32_t id = 0; id < 18; ++id) {
        if (id == 15)
            continue;
        uint32_t size = 0;
        EXPECT_TRUE(l2vpn_get_var_ac_info_msg_size(id, &size));
        EXPECT_EQ(size, ac_classes::rows[id].info - 16) << id;
        EXPECT_TRUE(l2vpn_get_var_ac_data_base_size(id, &size));
        EXPECT_EQ(size, ac_classes::rows[id].data - 32) << id;
    }
}

TEST(ac_class, variable_sizes_of_an_invalid_class_are_refused)
{
    for (const uint32_t id : {15u, 18u, 0xffffffffu}) {
        uint32_t size = 77;
        EXPECT_FALSE(l2vpn_get_var_ac_info_msg_size(id, &size));
        EXPECT_FALSE(l2vpn_get_var_ac_data_base_size(id, &size));
        EXPECT_EQ(size, 77u);
    }
}

TEST(ac_class, classes_without_a_layout)
{
    for (uint32_t id = 0; id < 18; ++id) {
        if (const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(id)) {
            EXPECT_EQ(row->encode_infos == nullptr, id == 9) << id;
            EXPECT_EQ(row->encode_acs == nullptr, id == 9) << id;
            EXPECT_EQ(row->decode_data == nullptr, !ac_classes::rows[id].decoded) << id;
        }
    }
}

} // namespace
