/*
 * The small functions of the contract: status texts, node id, memory, trees, sanitizer, lock monitor.
 * What they compute is shared with the real platform.
 */
#include "calls.h"

#include "common/core.h"

#include <algorithm>

using namespace l2vpn::sim;
namespace platform_core = l2vpn::platform_core;

namespace {

constexpr std::uint32_t recorded_entries = 1024;

/* Keeps what world.clients() answers: the nodes of the tree initialised last, counted by the tree itself. A
 * tree may lie in a library that is unloaded later, so the number is taken while a call has the tree. */
void note_size(core *world, wavl_tree_t *tree)
{
    if (world == nullptr)
        return;
    {
        const std::lock_guard guard(world->lock);
        if (world->last_tree != tree)
            return;
    }
    pthread_mutex_lock(&tree->lock);
    {
        const std::lock_guard guard(world->lock);
        if (world->last_tree == tree)
            world->last_tree_nodes = static_cast<std::size_t>(tree->size);
    }
    pthread_mutex_unlock(&tree->lock);
}

} // namespace

const char *qerr_strerror(qerrno status)
{
    return invoke_unlocked<const char *>(fn::qerr_strerror, arguments(status),
                                         [&](core *) { return platform_core::status_text(status); });
}

qerrno platform_get_my_nodeid(uint32_t *nodeid)
{
    return invoke<qerrno>(fn::platform_get_my_nodeid, arguments(nodeid), ENODEV, [&](core &world) -> qerrno {
        if (nodeid == nullptr)
            return EINVAL;
        *nodeid = world.set.nodeid;
        return EOK;
    });
}

void *calloc_named(size_t count, size_t size, const char *name)
{
    // A product that does not fit is refused here: memory checkers would end the program over it.
    size_t bytes_wanted = 0;
    const bool fits = !__builtin_mul_overflow(count, size, &bytes_wanted);
    const invocation self(fn::calloc_named);
    void *memory = self.failing() || !fits ? nullptr : platform_core::allocate(count, size);
    if (self.world() == nullptr)
        return memory;
    const std::lock_guard guard(self.world()->lock);
    call *entry = self.record(arguments(count, size, name), static_cast<std::int64_t>(as_number(memory)));
    if (entry != nullptr && name != nullptr)
        entry->text = name;
    return memory;
}

qerrno wavl_init(wavl_tree_t *tree, uint32_t count, wavl_get_key_t get_key, wavl_compare_t compare)
{
    return invoke_unlocked<qerrno>(fn::wavl_init, arguments(tree, count, get_key, compare), [&](core *world) {
        const qerrno status = platform_core::tree_init(tree, count, get_key, compare);
        if (status == EOK && world != nullptr) {
            const std::lock_guard guard(world->lock);
            world->last_tree = tree;
            world->last_tree_nodes = 0;
        }
        return status;
    });
}

wavl_node_t *wavl_insert(wavl_tree_t *tree, wavl_node_t *node)
{
    return invoke_unlocked<wavl_node_t *>(fn::wavl_insert, arguments(tree, node), [&](core *world) {
        wavl_node_t *inserted = platform_core::tree_insert(tree, node);
        if (inserted != nullptr)
            note_size(world, tree);
        return inserted;
    });
}

wavl_node_t *wavl_search(wavl_tree_t *tree, const wavl_node_t *node, uint32_t index)
{
    return invoke_unlocked<wavl_node_t *>(fn::wavl_search, arguments(tree, node, index), [&](core *) {
        return platform_core::tree_search(tree, node, index);
    });
}

void wavl_delete(wavl_tree_t *tree, wavl_node_t *node)
{
    invoke_unlocked<nothing>(fn::wavl_delete, arguments(tree, node), [&](core *world) {
        platform_core::tree_delete(tree, node);
        if (tree != nullptr)
            note_size(world, tree);
        return nothing{};
    });
}

qerrno l2vpn_ac_data_sanitize(uint32_t class_id, const l2vpn_ac_data_entry_t *entries,
                              struct l2vpn_ac_defn *defns, struct l2vpn_ac_info *infos, uint32_t count)
{
    const invocation self(fn::l2vpn_ac_data_sanitize);
    if (self.world() == nullptr)
        return platform_core::sanitize(entries, count);
    const qerrno status = self.failing() ? self.status() : platform_core::sanitize(entries, count);
    const std::lock_guard guard(self.world()->lock);
    call *entry = self.record(arguments(class_id, entries, defns, infos, count), status);
    if (entry != nullptr && entries != nullptr) {
        for (const auto &[ifh, spare] : std::span(entries, std::min(count, recorded_entries))) {
            entry->ifhs.push_back(ifh);
            entry->spares.push_back(spare);
        }
    }
    return status;
}

void ptd_set_mutex_block(pthread_mutex_t *mutex, const char *function, uint32_t line)
{
    invoke<nothing>(
        fn::ptd_set_mutex_block, arguments(mutex), {}, [](core &) { return nothing{}; },
        [&](call &entry) {
            entry.where = function == nullptr ? "" : function;
            entry.line = line;
        });
}

void ptd_unset_mutex_block(void)
{
    invoke<nothing>(fn::ptd_unset_mutex_block, {}, {}, [](core &) { return nothing{}; });
}
