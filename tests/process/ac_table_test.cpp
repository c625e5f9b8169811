/*
 * The table of ACs against a simple model.
 */
#include "ac_table.h"
#include "support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>

using namespace l2vpnd;
using namespace process_test;

namespace {

uint32_t add(ac_store &store, uint32_t node, uint32_t handle, uint32_t owner = 0)
{
    store.reserve(1);
    const uint32_t slot = store.insert(node, handle, owner);
    store.set_definition(slot, pattern(616, static_cast<uint8_t>(handle)));
    store.set_info(slot, pattern(20, static_cast<uint8_t>(handle + 1)));
    return slot;
}

std::vector<uint32_t> walk(const ac_store &store, const ac_list &list)
{
    std::vector<uint32_t> handles;
    for (uint32_t slot = list.first; slot != no_slot; slot = store.head(slot).next) {
        handles.push_back(store.head(slot).handle);
    }
    return handles;
}

} // namespace

TEST(ac_store, finds_what_was_put_in)
{
    ac_store store(20);
    EXPECT_EQ(store.find(1, 1), no_slot);
    const uint32_t slot = add(store, 1, 0x01020304);
    EXPECT_EQ(store.find(1, 0x01020304), slot);
    EXPECT_EQ(store.find(2, 0x01020304), no_slot);
    EXPECT_EQ(store.find(1, 0x01020305), no_slot);
    EXPECT_EQ(octets(store.definition(slot).begin(), store.definition(slot).end()), pattern(616, 4));
    EXPECT_EQ(octets(store.info(slot).begin(), store.info(slot).end()), pattern(20, 5));
    EXPECT_TRUE(store.used(slot));
    EXPECT_FALSE(store.used(slot + 1));
}

TEST(ac_store, agrees_with_a_model_after_100000_random_steps)
{
    ac_store store(20);
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> model;
    std::minstd_rand engine(20261121);
    const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
    for (int i = 0; i < 100000; i++) {
        const uint32_t node = random() % 3;
        const uint32_t handle = 1 + random() % 5000;
        const auto known = model.find({node, handle});
        const uint32_t slot = store.find(node, handle);
        ASSERT_EQ(slot, known == model.end() ? no_slot : known->second);
        if (slot == no_slot) {
            model[{node, handle}] = add(store, node, handle);
        } else if (random() % 2 == 0) {
            store.erase(slot);
            model.erase(known);
        }
        ASSERT_EQ(store.size(), model.size());
    }
    ASSERT_GT(model.size(), 1000U);
    uint32_t used = 0;
    for (uint32_t slot = 0; slot < store.slots(); slot++) {
        used += store.used(slot) ? 1 : 0;
    }
    EXPECT_EQ(used, model.size()) << "a walk over the slots meets every AC once";
    for (const auto &[key, slot] : model) {
        ASSERT_EQ(store.find(key.first, key.second), slot) << "slots do not move";
        ASSERT_EQ(store.info(slot)[0], pattern(20, static_cast<uint8_t>(key.second + 1))[0]);
    }
    for (const auto &[key, slot] : model) {
        store.erase(slot);
    }
    EXPECT_EQ(store.size(), 0U);
    EXPECT_EQ(store.memory(), 0U) << "an empty store holds no memory";
}

TEST(ac_store, keeps_its_promise_of_memory)
{
    constexpr uint32_t count = 100000;
    for (const uint32_t info_bytes : {16U, 2356U}) {
        ac_store store(info_bytes);
        store.reserve(count);
        for (uint32_t handle = 1; handle <= count; handle++) {
            store.insert(1, handle, 0);
        }
        const uint64_t each = store.memory() / count;
        EXPECT_GE(each, 36U + 616 + info_bytes);
        EXPECT_LE(each, 36U + 616 + info_bytes + 3 + 22 + 3);
    }
}

TEST(ac_store, room_that_was_made_is_there)
{
    ac_store store(20);
    store.reserve(1000);
    const uint64_t before = store.memory();
    for (uint32_t handle = 1; handle <= 1000; handle++) {
        store.insert(1, handle, 0);
    }
    EXPECT_EQ(store.memory(), before);
}

TEST(ac_store, lists_keep_order_and_lose_any_member)
{
    ac_store store(20);
    ac_list list;
    std::vector<uint32_t> slots;
    for (uint32_t handle = 1; handle <= 5; handle++) {
        slots.push_back(add(store, 1, handle));
        store.append(list, slots.back());
    }
    EXPECT_EQ(walk(store, list), (std::vector<uint32_t>{1, 2, 3, 4, 5}));
    store.remove(list, slots[2]);
    store.remove(list, slots[0]);
    store.remove(list, slots[4]);
    EXPECT_EQ(walk(store, list), (std::vector<uint32_t>{2, 4}));
    EXPECT_EQ(list.count, 2U);
    store.append(list, slots[0]);
    EXPECT_EQ(walk(store, list), (std::vector<uint32_t>{2, 4, 1}));
    for (const uint32_t slot : {slots[1], slots[3], slots[0]}) {
        store.remove(list, slot);
    }
    EXPECT_EQ(list.first, no_slot);
    EXPECT_EQ(list.last, no_slot);
    EXPECT_EQ(list.count, 0U);
}

TEST(ac_store, a_list_goes_to_the_end_of_another_whole)
{
    ac_store store(20);
    ac_list settled;
    ac_list batched;
    const auto fill = [&](ac_list &list, uint32_t first, uint32_t last) {
        for (uint32_t handle = first; handle <= last; handle++) {
            store.append(list, add(store, 1, handle));
        }
    };
    fill(batched, 1, 3);
    store.splice(settled, batched);
    EXPECT_EQ(walk(store, settled), (std::vector<uint32_t>{1, 2, 3})) << "to one that was empty";
    EXPECT_EQ(batched.count, 0U);
    EXPECT_EQ(walk(store, batched), std::vector<uint32_t>{});

    fill(batched, 4, 5);
    store.splice(settled, batched);
    store.splice(settled, batched);
    EXPECT_EQ(walk(store, settled), (std::vector<uint32_t>{1, 2, 3, 4, 5})) << "an empty one changes nothing";
    EXPECT_EQ(settled.count, 5U);

    fill(batched, 6, 6);
    store.remove(settled, store.find(1, 4));
    store.remove(settled, store.find(1, 3));
    store.remove(settled, store.find(1, 5));
    store.splice(settled, batched);
    EXPECT_EQ(walk(store, settled), (std::vector<uint32_t>{1, 2, 6})) << "and both ways it is one list";
    store.remove(settled, store.find(1, 6));
    store.append(settled, store.find(1, 5));
    EXPECT_EQ(walk(store, settled), (std::vector<uint32_t>{1, 2, 5}));
}

TEST(slot_array, keeps_every_slot_where_it_is_and_apart_from_others)
{
    constexpr uint32_t slots = 150'000; /* with 636 bytes, beyond where arenas grow no more */
    for (const uint32_t size : {8U, 636U}) {
        slot_array array(size);
        std::vector<const uint8_t *> places;
        for (uint32_t slot = 0; slot < slots; slot++) {
            array.reserve(slot + 1);
            places.push_back(array.at(slot));
            memcpy(array.at(slot), &slot, sizeof slot);
            memcpy(array.at(slot) + size - sizeof slot, &slot, sizeof slot);
        }
        EXPECT_EQ(array.memory(), uint64_t{slots} * size);
        for (uint32_t slot = 0; slot < slots; slot++) {
            uint32_t first = 0;
            uint32_t last = 0;
            memcpy(&first, array.at(slot), sizeof first);
            memcpy(&last, array.at(slot) + size - sizeof last, sizeof last);
            ASSERT_EQ(array.at(slot), places[slot]);
            ASSERT_EQ(first, slot);
            ASSERT_EQ(last, slot);
        }
        array.release();
        EXPECT_EQ(array.memory(), 0U);
        array.reserve(1);
        array.at(0)[size - 1] = 1;
        EXPECT_EQ(array.memory(), size) << "it can be used again";
    }
}

TEST(ac_table, has_a_store_of_the_right_size_for_every_class)
{
    ac_table table(10);
    for (uint32_t class_id = 0; class_id < 18; class_id++) {
        if (class_id != 9 && class_id != 15) {
            table.store(class_id).reserve(1);
            const uint32_t slot = table.store(class_id).insert(1, 1, 0);
            EXPECT_EQ(table.store(class_id).info(slot).size(), info_size(class_id));
        }
    }
    EXPECT_EQ(table.size(), 16U);
    EXPECT_GT(table.memory(), 16U * 632);
}
