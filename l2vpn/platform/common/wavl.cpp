/*
 * Keys and the lock of a WAVL tree; its shape is wavl_balance's.
 *
 * A tree has a mutex of its own, held for every call, also while the key and compare functions run: these
 * must not call back. Whether a tree was initialised is told by its magic word, read atomically before the
 * mutex is touched, because a zeroed tree has no mutex yet. Initialising happens under one lock of the
 * process, so that two first initialisations of one tree cannot both make its mutex.
 *
 * A node is never read before the tree has been found to hold it: a search is made with the address alone.
 */
#include "common/core.h"
#include "common/wavl_balance.h"

#include <atomic>
#include <cerrno>
#include <mutex>

namespace l2vpn::platform_core {
namespace {

constexpr std::uint32_t tree_magic = 0x5741564C;

class tree_guard {
public:
    /* Locks an initialised tree; false when there is none. */
    explicit tree_guard(wavl_tree_t *tree) noexcept
    {
        if (tree != nullptr && std::atomic_ref(tree->magic).load(std::memory_order_acquire) == tree_magic) {
            pthread_mutex_lock(&tree->lock);
            tree_ = tree;
        }
    }
    ~tree_guard()
    {
        if (tree_ != nullptr) {
            pthread_mutex_unlock(&tree_->lock);
        }
    }
    tree_guard(const tree_guard &) = delete;
    tree_guard &operator=(const tree_guard &) = delete;

    explicit operator bool() const noexcept { return tree_ != nullptr; }

private:
    wavl_tree_t *tree_ = nullptr;
};

/* Where a key is, or where it would be linked in. */
struct place {
    wavl_node_t *found = nullptr;
    wavl_node_t *parent = nullptr;
    int side = 0;
};

place find(const wavl_tree_t *tree, const void *key)
{
    place at;
    wavl_node_t *node = tree->root;
    while (node != nullptr) {
        const int order = tree->compare(key, tree->get_key(node));
        if (order == WAVL_EQUAL) {
            at.found = node;
            break;
        }
        at.parent = node;
        at.side = order == WAVL_LARGER ? 1 : 0;
        node = node->child[at.side];
    }
    return at;
}

} // namespace

qerrno tree_init(wavl_tree_t *tree, std::uint32_t count, wavl_get_key_t get_key, wavl_compare_t compare)
{
    if (tree == nullptr || count != 1 || get_key == nullptr || compare == nullptr) {
        return EINVAL;
    }
    static std::mutex initialising;
    const std::lock_guard one_at_a_time(initialising);

    const tree_guard again(tree);
    if (!again) {
        if (const int rc = pthread_mutex_init(&tree->lock, nullptr); rc != 0) {
            return static_cast<qerrno>(rc);
        }
    }
    tree->root = nullptr;
    tree->get_key = get_key;
    tree->compare = compare;
    tree->size = 0;
    std::atomic_ref(tree->magic).store(tree_magic, std::memory_order_release);
    return EOK;
}

wavl_node_t *tree_insert(wavl_tree_t *tree, wavl_node_t *node)
{
    const tree_guard guard(tree);
    if (!guard || node == nullptr) {
        return nullptr;
    }
    const place at = find(tree, tree->get_key(node));
    if (at.found != nullptr) {
        return nullptr;
    }
    link_leaf(tree->root, node, at.parent, at.side);
    ++tree->size;
    return node;
}

wavl_node_t *tree_search(wavl_tree_t *tree, const wavl_node_t *node, std::uint32_t index)
{
    const tree_guard guard(tree);
    if (!guard || node == nullptr || index != 0) {
        return nullptr;
    }
    return find(tree, tree->get_key(node)).found;
}

void tree_delete(wavl_tree_t *tree, wavl_node_t *node)
{
    const tree_guard guard(tree);
    if (!guard || node == nullptr || find(tree, tree->get_key(node)).found != node) {
        return;
    }
    unlink_node(tree->root, node);
    --tree->size;
}

} // namespace l2vpn::platform_core
