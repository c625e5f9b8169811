/*
 * Managed timers: one-shot timers (leaves) in a tree that posts an event when one of them expires. The
 * handler of that event asks the tree for its expired leaves, one after the other.
 *
 * A leaf is a checked handle, not a bare address: a leaf that was freed may still be given to every leaf
 * function (running answers 0, get answers null, start, stop and free do nothing), even when its memory
 * serves a newer leaf. Trees and parents are not checked that way, but every function accepts null.
 *
 * Every function may be called from any thread.
 */
#ifndef PLATFORM_MGD_TIMER_H
#define PLATFORM_MGD_TIMER_H

#include <platform/compiler.h>
#include <platform/event_mgr.h>
#include <stdint.h>
#include <time.h>

PLATFORM_BEGIN_DECLS

typedef struct mgd_timer_tree mgd_timer_tree_t;
typedef struct mgd_timer_parent mgd_timer_parent_t;
typedef struct mgd_timer_leaf mgd_timer_leaf_t;
typedef void (*mgd_timer_fn_t)(mgd_timer_leaf_t *leaf);

/* Additional contexts a leaf has room for: indexes 0 to MGD_TIMER_ADDL_CONTEXTS - 1. */
#define MGD_TIMER_ADDL_CONTEXTS 4u

/*
 * Makes a tree whose expiries are posted as the event that `event` was attached to. `event` is read during
 * the call only. `count` is a hint of how many levels of parents there will be and may be ignored. Null
 * when `event` is null, was never attached, or there is no memory.
 */
mgd_timer_tree_t *mgd_timer_tree_new(const event_context_t *event, uint32_t count);

/* Stops and frees all leaves of the tree, and the tree. Its parents are the caller's to free, any time. */
void mgd_timer_tree_free(mgd_timer_tree_t *tree);

/*
 * Makes a node that groups leaves, under `parent` or, when that is null, at the top. Null when `tree` is
 * null or there is no memory. Owned by the caller.
 */
mgd_timer_parent_t *mgd_timer_parent_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent);
void mgd_timer_parent_free(mgd_timer_parent_t *parent);

/*
 * Makes a stopped leaf. `context` is its function, which the expiry handler fetches and calls; `arg` is
 * kept for the owner's use. Null when `tree` or `parent` is null or there is no memory. Owned by the
 * caller until mgd_timer_leaf_free().
 */
mgd_timer_leaf_t *mgd_timer_leaf_new(mgd_timer_tree_t *tree, mgd_timer_parent_t *parent, void *arg,
                                     mgd_timer_fn_t context);

/* Stops and frees a leaf. A leaf that mgd_timer_tree_first_expired() handed out stays readable until the
 * next call of that function, whoever frees it. */
void mgd_timer_leaf_free(mgd_timer_leaf_t *leaf);

/* The leaf's function, null for a freed leaf. */
mgd_timer_fn_t mgd_timer_leaf_get_context(const mgd_timer_leaf_t *leaf);

/*
 * Stores a pointer of the owner's at `index`. Returns 0, or a negative value with the cause in errno
 * (EINVAL: freed leaf, or `index` of MGD_TIMER_ADDL_CONTEXTS or more).
 */
int mgd_timer_leaf_set_addl_context(mgd_timer_leaf_t *leaf, uint32_t index, void *context);

/* The pointer stored at `index`; null when none was, the leaf was freed or `index` is out of range. */
void *mgd_timer_leaf_get_addl_context(const mgd_timer_leaf_t *leaf, uint32_t index);

/* Non-zero from the start of the leaf until its stop; an expired leaf runs until it is stopped. */
int mgd_timer_leaf_running(const mgd_timer_leaf_t *leaf);

/* Starts the leaf, or starts it anew when it runs: it expires once, `duration` (monotonic) from now. */
void mgd_timer_leaf_start(mgd_timer_leaf_t *leaf, const struct timespec *duration);
void mgd_timer_leaf_stop(mgd_timer_leaf_t *leaf);

/*
 * The leaf of the tree that expired first and has not been stopped or restarted since; null when there is
 * none. Equal times come in the order of their starts. The caller stops the leaf before it asks again, or
 * gets the same one.
 */
mgd_timer_leaf_t *mgd_timer_tree_first_expired(mgd_timer_tree_t *tree);

PLATFORM_END_DECLS

#endif
