/*
 * The parts of the platform contract that are the same on every platform, under names of their own: each
 * platform exports them under the contract's names, as they are or with something around them. Each
 * behaves exactly as the function of the contract that it stands for is documented to.
 *
 * Link l2vpn_platform_common and include "common/core.h".
 */
#ifndef PLATFORM_COMMON_CORE_H
#define PLATFORM_COMMON_CORE_H

#include <platform/ac_data.h>
#include <platform/qerr.h>
#include <platform/wavl.h>

#include <cstddef>
#include <cstdint>

namespace l2vpn::platform_core {

[[nodiscard]] const char *status_text(qerrno status) noexcept; /* qerr_strerror */

[[nodiscard]] void *allocate(std::size_t count, std::size_t size) noexcept; /* calloc_named */

[[nodiscard]] qerrno sanitize(const l2vpn_ac_data_entry_t *entries,
                              std::uint32_t count) noexcept; /* l2vpn_ac_data_sanitize */

[[nodiscard]] qerrno tree_init(wavl_tree_t *tree, std::uint32_t count, wavl_get_key_t get_key,
                               wavl_compare_t compare);                       /* wavl_init */
[[nodiscard]] wavl_node_t *tree_insert(wavl_tree_t *tree, wavl_node_t *node); /* wavl_insert */
[[nodiscard]] wavl_node_t *tree_search(wavl_tree_t *tree, const wavl_node_t *node,
                                       std::uint32_t index); /* wavl_search */
void tree_delete(wavl_tree_t *tree, wavl_node_t *node);      /* wavl_delete */

} // namespace l2vpn::platform_core

#endif
