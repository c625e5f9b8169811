#ifndef TESTS_PLATFORM_WAVL_SUPPORT_H
#define TESTS_PLATFORM_WAVL_SUPPORT_H

#include <platform/wavl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace wavl_test {

/* A record with its key before the node, so that a node's address is not its record's. */
struct item {
    int key = 0;
    wavl_node_t node{};
};

inline const item *item_of(const wavl_node_t *node)
{
    return reinterpret_cast<const item *>(reinterpret_cast<const char *>(node) - offsetof(item, node));
}

inline const void *key_of(const wavl_node_t *node)
{
    return &item_of(node)->key;
}

inline int compare(const void *first, const void *second)
{
    const int a = *static_cast<const int *>(first);
    const int b = *static_cast<const int *>(second);
    return a < b ? WAVL_SMALLER : a > b ? WAVL_LARGER : WAVL_EQUAL;
}

/* What is wrong with the ranks and links below `node`; empty when nothing is. Fills `keys` in order. */
inline std::string check_below(const wavl_node_t *node, const wavl_node_t *parent, std::vector<int> &keys)
{
    if (node == nullptr) {
        return "";
    }
    const auto complain = [&](const char *what) { return std::to_string(item_of(node)->key) + ": " + what; };
    if (node->parent != parent) {
        return complain("wrong parent");
    }
    if (node->child[0] == nullptr && node->child[1] == nullptr && node->rank != 0) {
        return complain("a leaf of a rank above 0");
    }
    for (const wavl_node_t *child : node->child) {
        const std::int64_t rank = child == nullptr ? -1 : std::int64_t{child->rank};
        const std::int64_t difference = std::int64_t{node->rank} - rank;
        if (difference != 1 && difference != 2) {
            return complain("a rank difference that is not 1 or 2");
        }
    }
    std::string wrong = check_below(node->child[0], node, keys);
    if (wrong.empty()) {
        keys.push_back(item_of(node)->key);
        wrong = check_below(node->child[1], node, keys);
    }
    return wrong;
}

inline std::string check(const wavl_tree_t &tree, std::vector<int> &keys)
{
    keys.clear();
    std::string wrong = check_below(tree.root, nullptr, keys);
    if (wrong.empty() && tree.size != keys.size()) {
        wrong = "the size is " + std::to_string(tree.size) + ", the nodes are " + std::to_string(keys.size());
    }
    return wrong;
}

inline unsigned height(const wavl_node_t *node)
{
    return node == nullptr ? 0 : 1 + std::max(height(node->child[0]), height(node->child[1]));
}

} // namespace wavl_test

#endif
