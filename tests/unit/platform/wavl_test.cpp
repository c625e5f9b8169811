#include "wavl_support.h"

#include <cerrno>
#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace wavl_test;

class wavl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(wavl_init(&tree, 1, key_of, compare), EOK); }

    [[nodiscard]] std::vector<int> keys() const
    {
        std::vector<int> found;
        EXPECT_EQ(check(tree, found), "");
        return found;
    }

    wavl_tree_t tree{};
};

std::vector<item> items(int count)
{
    std::vector<item> made(static_cast<std::size_t>(count));
    for (int key = 0; key < count; ++key) {
        made[static_cast<std::size_t>(key)].key = key;
    }
    return made;
}

/* Random inserts, deletes and searches against std::set. The whole tree is checked, order and ranks, after
 * each operation. */
TEST_F(wavl, random_operations_keep_order_and_ranks)
{
    constexpr int operations = 100'000;
    constexpr int key_count = 128;
    auto pool = items(key_count);
    std::set<int> model;
    std::mt19937 random(20240229);
    std::uniform_int_distribution<int> any_key(0, key_count - 1);
    std::vector<int> found;

    for (int operation = 0; operation < operations; ++operation) {
        item &chosen = pool[static_cast<std::size_t>(any_key(random))];
        const bool there = model.contains(chosen.key);
        // The share of inserts swings, so that the tree is sometimes nearly empty and sometimes nearly full.
        const bool growing = operation / 5000 % 2 == 0;
        const auto dice = random() % 10;
        if (dice == 0) {
            ASSERT_EQ(wavl_search(&tree, &chosen.node, 0), there ? &chosen.node : nullptr);
        } else if ((dice < 7) == growing) {
            ASSERT_EQ(wavl_insert(&tree, &chosen.node), there ? nullptr : &chosen.node);
            model.insert(chosen.key);
        } else {
            wavl_delete(&tree, &chosen.node);
            model.erase(chosen.key);
        }
        ASSERT_EQ(check(tree, found), "") << "after operation " << operation;
        ASSERT_TRUE(std::ranges::equal(found, model)) << "after operation " << operation;
    }
}

/* The same on a large tree, where each check looks at the path that the operation touched, and at the whole
 * tree now and then. */
TEST_F(wavl, random_operations_on_a_large_tree)
{
    constexpr int operations = 50'000;
    constexpr int key_count = 10'000;
    auto pool = items(key_count);
    std::set<int> model;
    std::mt19937 random(7);
    std::uniform_int_distribution<int> any_key(0, key_count - 1);
    std::vector<int> found;

    const auto check_path = [&](int key) {
        const wavl_node_t *node = tree.root;
        while (node != nullptr) {
            const std::int64_t rank = node->rank;
            for (const wavl_node_t *child : node->child) {
                const std::int64_t difference = rank - (child == nullptr ? -1 : std::int64_t{child->rank});
                ASSERT_TRUE(difference == 1 || difference == 2);
                ASSERT_TRUE(child == nullptr || child->parent == node);
            }
            ASSERT_TRUE(rank == 0 || node->child[0] != nullptr || node->child[1] != nullptr);
            const int here = item_of(node)->key;
            if (here == key) {
                return;
            }
            node = node->child[key > here ? 1 : 0];
        }
        ASSERT_FALSE(model.contains(key));
    };

    for (int operation = 0; operation < operations; ++operation) {
        item &chosen = pool[static_cast<std::size_t>(any_key(random))];
        if (random() % 100 < (operation < operations / 2 ? 65U : 35U)) {
            ASSERT_EQ(wavl_insert(&tree, &chosen.node) != nullptr, model.insert(chosen.key).second);
        } else {
            wavl_delete(&tree, &chosen.node);
            model.erase(chosen.key);
        }
        ASSERT_NO_FATAL_FAILURE(check_path(chosen.key)) << "after operation " << operation;
        if (operation % 5000 == 0) {
            ASSERT_EQ(check(tree, found), "") << "after operation " << operation;
            ASSERT_TRUE(std::ranges::equal(found, model));
        }
    }
}

TEST_F(wavl, ascending_inserts_stay_low)
{
    constexpr int count = 4096;
    auto pool = items(count);
    for (item &each : pool) {
        ASSERT_EQ(wavl_insert(&tree, &each.node), &each.node);
    }
    EXPECT_EQ(keys().size(), pool.size());
    // Inserts alone keep a WAVL tree as low as an AVL tree.
    EXPECT_LE(height(tree.root), 1.45 * std::log2(count + 2));
}

TEST_F(wavl, descending_inserts_stay_low)
{
    constexpr int count = 4096;
    auto pool = items(count);
    for (auto each = pool.rbegin(); each != pool.rend(); ++each) {
        ASSERT_EQ(wavl_insert(&tree, &each->node), &each->node);
    }
    EXPECT_EQ(keys().size(), pool.size());
    EXPECT_LE(height(tree.root), 1.45 * std::log2(count + 2));
}

TEST_F(wavl, deletes_from_one_end_stay_low)
{
    constexpr int count = 4096;
    auto pool = items(count);
    for (item &each : pool) {
        ASSERT_NE(wavl_insert(&tree, &each.node), nullptr);
    }
    for (int key = 0; key < count; ++key) {
        wavl_delete(&tree, &pool[static_cast<std::size_t>(key)].node);
        const int left = count - key - 1;
        if (left % 64 == 0) {
            ASSERT_EQ(keys().size(), static_cast<std::size_t>(left));
            ASSERT_LE(height(tree.root), 2 * std::log2(left + 2));
        }
    }
    EXPECT_EQ(tree.root, nullptr);
}

TEST_F(wavl, a_second_node_of_a_key_is_refused)
{
    item first{.key = 5};
    item second{.key = 5};
    ASSERT_EQ(wavl_insert(&tree, &first.node), &first.node);
    EXPECT_EQ(wavl_insert(&tree, &second.node), nullptr);
    EXPECT_EQ(wavl_insert(&tree, &first.node), nullptr);
    EXPECT_EQ(wavl_search(&tree, &second.node, 0), &first.node);
    EXPECT_EQ(keys(), std::vector<int>{5});
}

TEST_F(wavl, deleting_a_node_that_is_not_in_the_tree_changes_nothing)
{
    item inside{.key = 5};
    item same_key{.key = 5};
    item other{.key = 6};
    ASSERT_NE(wavl_insert(&tree, &inside.node), nullptr);
    wavl_delete(&tree, &same_key.node);
    wavl_delete(&tree, &other.node);
    wavl_delete(&tree, nullptr);
    EXPECT_EQ(keys(), std::vector<int>{5});
    wavl_delete(&tree, &inside.node);
    wavl_delete(&tree, &inside.node);
    EXPECT_TRUE(keys().empty());
}

TEST_F(wavl, a_deleted_node_can_be_inserted_again)
{
    item only{.key = 1};
    for (int time = 0; time < 3; ++time) {
        ASSERT_EQ(wavl_insert(&tree, &only.node), &only.node);
        wavl_delete(&tree, &only.node);
    }
    EXPECT_EQ(wavl_search(&tree, &only.node, 0), nullptr);
}

TEST_F(wavl, a_root_that_loses_its_last_child_is_a_leaf_again)
{
    for (const int other : {0, 2}) {
        item root{.key = 1};
        item child{.key = other};
        item next{.key = 2 - other};
        ASSERT_EQ(wavl_insert(&tree, &root.node), &root.node);
        ASSERT_EQ(wavl_insert(&tree, &child.node), &child.node);
        wavl_delete(&tree, &child.node);
        EXPECT_EQ(keys(), std::vector<int>{1});
        ASSERT_EQ(wavl_insert(&tree, &next.node), &next.node);
        EXPECT_EQ(keys().size(), 2U);
        wavl_delete(&tree, &next.node);
        wavl_delete(&tree, &root.node);
        EXPECT_TRUE(keys().empty());
    }
}

/* Handles are looked up by their address: nothing may be read there, so the page is not even mapped. */
TEST(wavl_by_address, a_node_that_does_not_exist_is_searched_for_and_deleted_without_reading_it)
{
    const auto by_address = [](const wavl_node_t *node) -> const void * { return node; };
    const auto order = [](const void *first, const void *second) {
        return first < second ? WAVL_SMALLER : first > second ? WAVL_LARGER : WAVL_EQUAL;
    };
    wavl_tree_t tree{};
    ASSERT_EQ(wavl_init(&tree, 1, by_address, order), EOK);
    std::vector<wavl_node_t> nodes(100);
    for (wavl_node_t &node : nodes) {
        ASSERT_EQ(wavl_insert(&tree, &node), &node);
    }
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void *nothing = ::mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(nothing, MAP_FAILED);
    auto *absent = static_cast<wavl_node_t *>(nothing);
    EXPECT_EQ(wavl_search(&tree, absent, 0), nullptr);
    wavl_delete(&tree, absent);
    EXPECT_EQ(tree.size, nodes.size());
    EXPECT_EQ(wavl_search(&tree, &nodes[50], 0), &nodes[50]);
    ::munmap(nothing, page);
}

TEST_F(wavl, null_arguments_find_nothing)
{
    item any{.key = 1};
    EXPECT_EQ(wavl_insert(&tree, nullptr), nullptr);
    EXPECT_EQ(wavl_search(&tree, nullptr, 0), nullptr);
    EXPECT_EQ(wavl_insert(nullptr, &any.node), nullptr);
    EXPECT_EQ(wavl_search(nullptr, &any.node, 0), nullptr);
    wavl_delete(nullptr, &any.node);
    EXPECT_TRUE(keys().empty());
}

TEST_F(wavl, there_is_only_index_0)
{
    item any{.key = 1};
    ASSERT_NE(wavl_insert(&tree, &any.node), nullptr);
    EXPECT_EQ(wavl_search(&tree, &any.node, 1), nullptr);
}

TEST(wavl_zeroed, a_tree_that_was_never_initialised_holds_and_takes_nothing)
{
    wavl_tree_t tree{};
    item any{.key = 1};
    EXPECT_EQ(wavl_insert(&tree, &any.node), nullptr);
    EXPECT_EQ(wavl_search(&tree, &any.node, 0), nullptr);
    wavl_delete(&tree, &any.node);
    EXPECT_EQ(tree.root, nullptr);
    EXPECT_EQ(tree.size, 0U);
}

TEST(wavl_zeroed, initialising_checks_its_arguments)
{
    wavl_tree_t tree{};
    EXPECT_EQ(wavl_init(nullptr, 1, key_of, compare), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_init(&tree, 0, key_of, compare), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_init(&tree, 2, key_of, compare), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_init(&tree, 1, nullptr, compare), static_cast<qerrno>(EINVAL));
    EXPECT_EQ(wavl_init(&tree, 1, key_of, nullptr), static_cast<qerrno>(EINVAL));
    item any{.key = 1};
    EXPECT_EQ(wavl_insert(&tree, &any.node), nullptr) << "a refused initialisation must leave no tree";
}

TEST_F(wavl, initialising_again_forgets_the_nodes)
{
    item any{.key = 1};
    ASSERT_NE(wavl_insert(&tree, &any.node), nullptr);
    ASSERT_EQ(wavl_init(&tree, 1, key_of, compare), EOK);
    EXPECT_EQ(wavl_search(&tree, &any.node, 0), nullptr);
    EXPECT_EQ(wavl_insert(&tree, &any.node), &any.node);
    EXPECT_EQ(keys(), std::vector<int>{1});
}

} // namespace
