/*
 * The functions of the contract that need nothing of Linux: the shared code under the contract's names.
 */
#include "common/core.h"

#include <platform/memory.h>

namespace core = l2vpn::platform_core;

const char *qerr_strerror(qerrno status)
{
    return core::status_text(status);
}

void *calloc_named(size_t count, size_t size, const char *)
{
    return core::allocate(count, size);
}

qerrno l2vpn_ac_data_sanitize(uint32_t, const l2vpn_ac_data_entry_t *entries, struct l2vpn_ac_defn *,
                              struct l2vpn_ac_info *, uint32_t count)
{
    return core::sanitize(entries, count);
}

qerrno wavl_init(wavl_tree_t *tree, uint32_t count, wavl_get_key_t get_key, wavl_compare_t compare)
{
    return core::tree_init(tree, count, get_key, compare);
}

wavl_node_t *wavl_insert(wavl_tree_t *tree, wavl_node_t *node)
{
    return core::tree_insert(tree, node);
}

wavl_node_t *wavl_search(wavl_tree_t *tree, const wavl_node_t *node, uint32_t index)
{
    return core::tree_search(tree, node, index);
}

void wavl_delete(wavl_tree_t *tree, wavl_node_t *node)
{
    core::tree_delete(tree, node);
}
