// The ordered map: a red-black tree with intrusive links, keyed by what get_key finds. It allocates and owns nothing;
// the owner of the records frees them and the owner's lock guards every call.
#ifndef FXM_RBTREE_H
#define FXM_RBTREE_H

#include <cstddef>
#include <cstdint>

struct fxm_rbnode_t {
    fxm_rbnode_t *parent;
    fxm_rbnode_t *left;
    fxm_rbnode_t *right;
    uint8_t color; // 1 red, 0 black
};

typedef int (*fxm_rbtree_compare_t)(const void *key1, const void *key2);
typedef const void *(*fxm_rbtree_get_key_t)(const fxm_rbnode_t *node);

struct fxm_rbtree_t {
    fxm_rbnode_t *root;
    fxm_rbtree_compare_t compare;
    fxm_rbtree_get_key_t get_key;
};

// The record that a link lies in.
template <typename Record> Record *_fxm_rbtree_record(fxm_rbnode_t *node, size_t link_offset)
{
    return reinterpret_cast<Record *>(reinterpret_cast<uint8_t *>(node) - link_offset);
}

int _fxm_rbtree_compare_u64(const void *key1, const void *key2); // unsigned; -1, 0, 1

void _fxm_rbtree_init(fxm_rbtree_t *tree, fxm_rbtree_compare_t compare, fxm_rbtree_get_key_t get_key);
int _fxm_rbtree_put(fxm_rbtree_t *tree, fxm_rbnode_t *node);     // 0, or EEXIST with nothing changed
void _fxm_rbtree_delete(fxm_rbtree_t *tree, fxm_rbnode_t *node); // a node that is in the map
fxm_rbnode_t *_fxm_rbtree_find(const fxm_rbtree_t *tree, const void *key);
fxm_rbnode_t *_fxm_rbtree_first(const fxm_rbtree_t *tree);
fxm_rbnode_t *_fxm_rbtree_next(fxm_rbnode_t *node);
void _fxm_rbtree_clear(fxm_rbtree_t *tree, void (*destroy)(fxm_rbnode_t *node));

#endif
