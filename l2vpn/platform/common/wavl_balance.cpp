/*
 * Rank-balanced trees. Every node has a rank; a missing child counts as rank -1. Three rules hold between
 * operations, and give a height of at most 2 log2(n):
 *
 *   - the rank difference of a node to its parent is 1 or 2,
 *   - a leaf has rank 0,
 *   - therefore a node with one child has rank 1.
 *
 * An insertion can leave one node with a difference of 0, a deletion one with a difference of 3 or a leaf
 * of rank 1. Both are repaired bottom-up: ranks change along the path until the fault is gone or one
 * single or double rotation ends it. Children are indexed by side, so that every case is written once and
 * its mirror image is the other side.
 */
#include "common/wavl_balance.h"

#include <cstdint>

namespace l2vpn::platform_core {
namespace {

std::int64_t rank_of(const wavl_node_t *node) noexcept
{
    return node == nullptr ? -1 : std::int64_t{node->rank};
}

std::int64_t difference(const wavl_node_t *parent, const wavl_node_t *child) noexcept
{
    return rank_of(parent) - rank_of(child);
}

int side_of(const wavl_node_t *parent, const wavl_node_t *child) noexcept
{
    return parent->child[1] == child ? 1 : 0;
}

bool is_leaf(const wavl_node_t *node) noexcept
{
    return node->child[0] == nullptr && node->child[1] == nullptr;
}

/* Puts `successor` (may be null) in the place that `node` has under its parent. */
void replace(wavl_node_t *&root, const wavl_node_t *node, wavl_node_t *successor) noexcept
{
    wavl_node_t *parent = node->parent;
    if (parent == nullptr) {
        root = successor;
    } else {
        parent->child[side_of(parent, node)] = successor;
    }
    if (successor != nullptr) {
        successor->parent = parent;
    }
}

void adopt(wavl_node_t *parent, int side, wavl_node_t *child) noexcept
{
    parent->child[side] = child;
    if (child != nullptr) {
        child->parent = parent;
    }
}

/* Moves `node` down to `side`; its child on the other side takes its place. */
void rotate(wavl_node_t *&root, wavl_node_t *node, int side) noexcept
{
    wavl_node_t *riser = node->child[1 - side];
    replace(root, node, riser);
    adopt(node, 1 - side, riser->child[side]);
    adopt(riser, side, node);
}

/* Moves `node` down to `side`; its inner grandchild of the other side takes its place. */
void rotate_twice(wavl_node_t *&root, wavl_node_t *node, int side) noexcept
{
    rotate(root, node->child[1 - side], 1 - side);
    rotate(root, node, side);
}

/* `node` has risen to the rank of its parent. */
void repair_insertion(wavl_node_t *&root, wavl_node_t *node) noexcept
{
    wavl_node_t *parent = node->parent;
    while (parent != nullptr && difference(parent, node) == 0) {
        const int side = side_of(parent, node);
        if (difference(parent, parent->child[1 - side]) == 1) {
            ++parent->rank;
            node = parent;
            parent = node->parent;
            continue;
        }
        wavl_node_t *inner = node->child[1 - side];
        if (difference(node, inner) == 2) {
            rotate(root, parent, 1 - side);
            --parent->rank;
        } else {
            rotate_twice(root, parent, 1 - side);
            ++inner->rank;
            --node->rank;
            --parent->rank;
        }
        return;
    }
}

/* `node` (may be null) is 3 ranks below `parent`, and its sibling only 1: one rotation ends it. */
void repair_by_rotation(wavl_node_t *&root, wavl_node_t *parent, int side) noexcept
{
    wavl_node_t *sibling = parent->child[1 - side];
    wavl_node_t *inner = sibling->child[side];
    if (difference(sibling, sibling->child[1 - side]) == 1) {
        rotate(root, parent, side);
        ++sibling->rank;
        --parent->rank;
        if (is_leaf(parent)) {
            --parent->rank;
        }
    } else {
        rotate_twice(root, parent, side);
        inner->rank += 2;
        --sibling->rank;
        parent->rank -= 2;
    }
}

/* A child of `parent` on `side` (may be null) has sunk. */
void repair_deletion(wavl_node_t *&root, wavl_node_t *parent, int side) noexcept
{
    // A leaf of rank 1 can only be the parent itself; its own sinking is then the fault to look at.
    if (is_leaf(parent) && parent->rank == 1) {
        --parent->rank;
        if (parent->parent == nullptr) {
            return;
        }
        side = side_of(parent->parent, parent);
        parent = parent->parent;
    }
    while (difference(parent, parent->child[side]) == 3) {
        wavl_node_t *sibling = parent->child[1 - side];
        if (difference(parent, sibling) == 1) {
            if (difference(sibling, sibling->child[0]) == 1 || difference(sibling, sibling->child[1]) == 1) {
                repair_by_rotation(root, parent, side);
                return;
            }
            --sibling->rank;
        }
        --parent->rank;
        if (parent->parent == nullptr) {
            return;
        }
        side = side_of(parent->parent, parent);
        parent = parent->parent;
    }
}

} // namespace

void link_leaf(wavl_node_t *&root, wavl_node_t *node, wavl_node_t *parent, int side) noexcept
{
    *node = wavl_node_t{.parent = parent, .child = {nullptr, nullptr}, .rank = 0};
    if (parent == nullptr) {
        root = node;
        return;
    }
    parent->child[side] = node;
    repair_insertion(root, node);
}

void unlink_node(wavl_node_t *&root, wavl_node_t *node) noexcept
{
    // The node that leaves its place has one child at most: `node` itself, or the next one in order, which
    // then moves, rank and all, to where `node` is.
    wavl_node_t *leaving = node;
    if (node->child[0] != nullptr && node->child[1] != nullptr) {
        leaving = node->child[1];
        while (leaving->child[0] != nullptr) {
            leaving = leaving->child[0];
        }
    }
    wavl_node_t *parent = leaving->parent;
    const int side = parent == nullptr ? 0 : side_of(parent, leaving);
    replace(root, leaving, leaving->child[0] != nullptr ? leaving->child[0] : leaving->child[1]);

    if (leaving != node) {
        if (parent == node) {
            parent = leaving;
        }
        replace(root, node, leaving);
        adopt(leaving, 0, node->child[0]);
        adopt(leaving, 1, node->child[1]);
        leaving->rank = node->rank;
    }
    *node = wavl_node_t{};
    if (parent != nullptr) {
        repair_deletion(root, parent, side);
    }
}

} // namespace l2vpn::platform_core
