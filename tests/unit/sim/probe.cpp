/*
 * A library that is linked against the real platform and calls it, with state that lasts as long as it is
 * loaded and a last call when it is unloaded.
 */
#include <platform/event_loop.h>
#include <platform/platform.h>

#include <cstdint>

namespace {

wavl_tree_t tree;
wavl_node_t node;
event_context_t context;
int expiries;

const void *key_of(const wavl_node_t *of)
{
    return of;
}

int compare(const void *first, const void *second)
{
    return first < second ? WAVL_SMALLER : first == second ? WAVL_EQUAL : WAVL_LARGER;
}

void on_expiry(event_context_t *, void *)
{
    ++expiries;
}

struct last_call {
    ~last_call()
    {
        wavl_delete(&tree, &node);
        gen_format_debug_fmt(1, "last_call", 1, "unloaded");
    }
} at_unload;

} // namespace

extern "C" {

std::uint32_t probe_nodeid();
int probe_start(event_mgr_p evm);
int probe_expiries();

std::uint32_t probe_nodeid()
{
    std::uint32_t nodeid = NODEID_INVALID;
    platform_get_my_nodeid(&nodeid);
    return nodeid;
}

/* Leaves a node in a tree, an attached event and a running timer of a second behind. */
int probe_start(event_mgr_p evm)
{
    if (wavl_init(&tree, 1, key_of, compare) != EOK || wavl_insert(&tree, &node) == nullptr ||
        event_async_attach_event(evm, 1, on_expiry, nullptr, &context) != 0)
        return -1;
    mgd_timer_tree_t *timers = mgd_timer_tree_new(&context, 1);
    mgd_timer_leaf_t *leaf =
        mgd_timer_leaf_new(timers, mgd_timer_parent_new(timers, nullptr), nullptr, [](mgd_timer_leaf_t *) {});
    const timespec second{1, 0};
    mgd_timer_leaf_start(leaf, &second);
    return mgd_timer_leaf_running(leaf) != 0 ? 0 : -1;
}

int probe_expiries()
{
    return expiries;
}
}
