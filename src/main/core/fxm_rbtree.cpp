// The ordered map. Runs on any thread that holds the map's lock.
#include "core/fxm_rbtree.h"

#include <cerrno>
#include <utility>

constexpr uint8_t BLACK = 0;
constexpr uint8_t RED = 1;

typedef fxm_rbnode_t *fxm_rbnode_t::*slot_t;

static bool _is_red(const fxm_rbnode_t *node) { return node != nullptr && node->color == RED; }

// Links `child`, which may be null, to the parent of `node` in place of `node`.
static void _replace(fxm_rbtree_t *tree, fxm_rbnode_t *node, fxm_rbnode_t *child)
{
    fxm_rbnode_t *parent = node->parent;
    if (parent == nullptr)
        tree->root = child;
    else if (parent->left == node)
        parent->left = child;
    else
        parent->right = child;
    if (child != nullptr)
        child->parent = parent;
}

// The child in slot `up` takes the place of `node`, and `node` becomes its child in slot `down`.
static void _rotate(fxm_rbtree_t *tree, fxm_rbnode_t *node, slot_t up, slot_t down)
{
    fxm_rbnode_t *riser = node->*up;
    node->*up = riser->*down;
    if (node->*up != nullptr)
        (node->*up)->parent = node;
    _replace(tree, node, riser);
    riser->*down = node;
    node->parent = riser;
}

static void _rotate_right(fxm_rbtree_t *tree, fxm_rbnode_t *node)
{
    _rotate(tree, node, &fxm_rbnode_t::left, &fxm_rbnode_t::right);
}

static void _rotate_left(fxm_rbtree_t *tree, fxm_rbnode_t *node)
{
    _rotate(tree, node, &fxm_rbnode_t::right, &fxm_rbnode_t::left);
}

// Left and right cases share one code path. A row names the slots and the rotations of one side.
struct row_t {
    slot_t sibling;
    slot_t other;
    void (*first)(fxm_rbtree_t *tree, fxm_rbnode_t *node);  // away from this side
    void (*second)(fxm_rbtree_t *tree, fxm_rbnode_t *node); // towards this side
};

static const row_t rows[2] = {
    {&fxm_rbnode_t::right, &fxm_rbnode_t::left, _rotate_right, _rotate_left}, // for a left child
    {&fxm_rbnode_t::left, &fxm_rbnode_t::right, _rotate_left, _rotate_right}, // for a right child
};

static const row_t &_row_of(const fxm_rbnode_t *node) { return rows[node->parent->left == node ? 0 : 1]; }

int _fxm_rbtree_compare_u64(const void *key1, const void *key2)
{
    const uint64_t a = *static_cast<const uint64_t *>(key1);
    const uint64_t b = *static_cast<const uint64_t *>(key2);
    return a < b ? -1 : (a > b ? 1 : 0);
}

void _fxm_rbtree_init(fxm_rbtree_t *tree, fxm_rbtree_compare_t compare, fxm_rbtree_get_key_t get_key)
{
    *tree = {nullptr, compare, get_key};
}

static void _repair_put(fxm_rbtree_t *tree, fxm_rbnode_t *node)
{
    while (node->parent != nullptr && _is_red(node->parent)) {
        fxm_rbnode_t *parent = node->parent;
        fxm_rbnode_t *grand = parent->parent; // a red node is not the root
        const row_t &row = _row_of(parent);
        fxm_rbnode_t *uncle = grand->*row.sibling;
        if (_is_red(uncle)) {
            parent->color = BLACK;
            uncle->color = BLACK;
            grand->color = RED;
            node = grand;
            continue;
        }
        if (parent->*row.sibling == node) {
            row.second(tree, parent);
            node = parent;
        }
        node->parent->color = BLACK;
        grand->color = RED;
        row.first(tree, grand);
    }
    tree->root->color = BLACK;
}

int _fxm_rbtree_put(fxm_rbtree_t *tree, fxm_rbnode_t *node)
{
    const void *key = tree->get_key(node);
    fxm_rbnode_t *parent = nullptr;
    fxm_rbnode_t **slot = &tree->root;
    while (*slot != nullptr) {
        const int order = tree->compare(key, tree->get_key(*slot));
        if (order == 0)
            return EEXIST;
        parent = *slot;
        slot = order < 0 ? &parent->left : &parent->right;
    }
    *node = {parent, nullptr, nullptr, RED};
    *slot = node;
    _repair_put(tree, node);
    return 0;
}

// The paths through `x` have one black node too few. `x` may be the node that is being removed.
static void _repair_delete(fxm_rbtree_t *tree, fxm_rbnode_t *x)
{
    while (x != tree->root && !_is_red(x)) {
        fxm_rbnode_t *p = x->parent;
        const row_t &row = _row_of(x);
        fxm_rbnode_t *w = p->*row.sibling;
        if (_is_red(w)) {
            w->color = BLACK;
            p->color = RED;
            row.second(tree, p);
            w = p->*row.sibling;
        }
        if (w != nullptr) {
            fxm_rbnode_t *far_child = w->*row.sibling;
            fxm_rbnode_t *near_child = w->*row.other;
            if (!_is_red(far_child) && _is_red(near_child)) {
                near_child->color = BLACK;
                w->color = RED;
                row.first(tree, w);
                far_child = w;
                w = near_child;
            }
            if (_is_red(far_child)) {
                w->color = p->color;
                p->color = BLACK;
                far_child->color = BLACK;
                row.second(tree, p);
                break;
            }
            w->color = RED;
        }
        x = p;
    }
    if (x == tree->root || _is_red(x))
        x->color = BLACK;
    tree->root->color = BLACK;
}

// Exchanges a node that has two children with its in-order predecessor. Only links change: no record moves in memory.
static void _exchange(fxm_rbtree_t *tree, fxm_rbnode_t *node, fxm_rbnode_t *pred)
{
    const fxm_rbnode_t was = *pred;
    _replace(tree, node, pred);
    pred->right = node->right;
    pred->right->parent = pred;
    if (was.parent == node) {
        pred->left = node;
        node->parent = pred;
    } else {
        pred->left = node->left;
        pred->left->parent = pred;
        node->parent = was.parent;
        node->parent->right = node; // the predecessor was the rightmost node of the subtree
    }
    node->left = was.left;
    if (node->left != nullptr)
        node->left->parent = node;
    node->right = nullptr;
    std::swap(node->color, pred->color);
}

void _fxm_rbtree_delete(fxm_rbtree_t *tree, fxm_rbnode_t *node)
{
    if (node->left != nullptr && node->right != nullptr) {
        fxm_rbnode_t *pred = node->left;
        while (pred->right != nullptr)
            pred = pred->right;
        _exchange(tree, node, pred);
    }
    fxm_rbnode_t *child = node->left != nullptr ? node->left : node->right;
    if (child != nullptr) {
        _replace(tree, node, child);
        if (!_is_red(node))
            _repair_delete(tree, child);
        return;
    }
    if (node->parent != nullptr && !_is_red(node))
        _repair_delete(tree, node);
    _replace(tree, node, nullptr);
}

fxm_rbnode_t *_fxm_rbtree_find(const fxm_rbtree_t *tree, const void *key)
{
    fxm_rbnode_t *node = tree->root;
    while (node != nullptr) {
        const int order = tree->compare(key, tree->get_key(node));
        if (order == 0)
            break;
        node = order < 0 ? node->left : node->right;
    }
    return node;
}

fxm_rbnode_t *_fxm_rbtree_first(const fxm_rbtree_t *tree)
{
    fxm_rbnode_t *node = tree->root;
    while (node != nullptr && node->left != nullptr)
        node = node->left;
    return node;
}

fxm_rbnode_t *_fxm_rbtree_next(fxm_rbnode_t *node)
{
    if (node->right != nullptr) {
        node = node->right;
        while (node->left != nullptr)
            node = node->left;
        return node;
    }
    while (node->parent != nullptr && node->parent->right == node)
        node = node->parent;
    return node->parent;
}

void _fxm_rbtree_clear(fxm_rbtree_t *tree, void (*destroy)(fxm_rbnode_t *node))
{
    // Post-order: each leaf is unlinked from its parent before it is destroyed.
    fxm_rbnode_t *node = tree->root;
    while (node != nullptr) {
        if (node->left != nullptr) {
            node = node->left;
        } else if (node->right != nullptr) {
            node = node->right;
        } else {
            fxm_rbnode_t *parent = node->parent;
            if (parent != nullptr)
                (parent->left == node ? parent->left : parent->right) = nullptr;
            destroy(node);
            node = parent;
        }
    }
    _fxm_rbtree_init(tree, tree->compare, tree->get_key);
}
