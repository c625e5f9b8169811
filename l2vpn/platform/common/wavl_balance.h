/*
 * The shape of a WAVL tree: linking a node in and taking one out, with the rebalancing that follows. Knows
 * nothing of keys and locks.
 */
#ifndef PLATFORM_COMMON_WAVL_BALANCE_H
#define PLATFORM_COMMON_WAVL_BALANCE_H

#include <platform/wavl.h>

namespace l2vpn::platform_core {

/* Makes `node` the child of `parent` (null: the root) on `side`, where there is none yet. */
void link_leaf(wavl_node_t *&root, wavl_node_t *node, wavl_node_t *parent, int side) noexcept;

/* Takes `node`, which must be in the tree, out of it. */
void unlink_node(wavl_node_t *&root, wavl_node_t *node) noexcept;

} // namespace l2vpn::platform_core

#endif
