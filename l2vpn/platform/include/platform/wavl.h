/*
 * WAVL trees: rank-balanced binary search trees whose nodes are embedded in the caller's records.
 *
 * Calls on one tree are atomic with respect to each other, from any thread. Every function accepts a null
 * tree and one that was zeroed and never initialised: such a tree holds nothing and takes nothing.
 */
#ifndef PLATFORM_WAVL_H
#define PLATFORM_WAVL_H

#include <platform/compiler.h>
#include <platform/qerr.h>
#include <pthread.h>
#include <stdint.h>

PLATFORM_BEGIN_DECLS

typedef struct wavl_node wavl_node_t;
typedef struct wavl_tree wavl_tree_t;

/* The key of the record that `node` is embedded in. Must not read the record when lookups are made with
 * nodes that may not exist. */
typedef const void *(*wavl_get_key_t)(const wavl_node_t *node);

/* Compares two keys. */
typedef int (*wavl_compare_t)(const void *first, const void *second);
#define WAVL_SMALLER 0 /* first comes before second */
#define WAVL_EQUAL 1
#define WAVL_LARGER 2

/* Embedded in the caller's record; needs no initialisation. The members are the tree's. */
struct wavl_node {
    struct wavl_node *parent;
    struct wavl_node *child[2];
    uint32_t rank;
};

/* Embedded or static, zeroed before wavl_init(). The members are the tree's. */
struct wavl_tree {
    pthread_mutex_t lock;
    wavl_node_t *root;
    wavl_get_key_t get_key;
    wavl_compare_t compare;
    uint64_t size;
    uint32_t magic;
};

/*
 * Initialises a tree to be empty; a tree that held nodes forgets them. `count` is the number of indexes,
 * always 1.
 *
 * EOK     ready
 * EINVAL  a null argument, or `count` is not 1
 */
qerrno wavl_init(wavl_tree_t *tree, uint32_t count, wavl_get_key_t get_key, wavl_compare_t compare);

/* Inserts `node` and returns it; null when a node of an equal key is there, or the tree takes nothing.
 * The node belongs to the tree until wavl_delete(). */
wavl_node_t *wavl_insert(wavl_tree_t *tree, wavl_node_t *node);

/* The node in the tree whose key equals that of `node`, or null. `node` need not be in the tree, and is
 * given to the get-key function only. `index` is 0. */
wavl_node_t *wavl_search(wavl_tree_t *tree, const wavl_node_t *node, uint32_t index);

/* Takes `node` out. A node that is not in the tree is left alone. */
void wavl_delete(wavl_tree_t *tree, wavl_node_t *node);

PLATFORM_END_DECLS

#endif
