// The ordered map: a red-black tree whose links lie inside the records. It allocates and owns nothing: the owner of the
// records creates and frees them, and the owner's lock guards every call.
#ifndef FXM_RBTREE_H
#define FXM_RBTREE_H

#include <bit>
#include <cstddef>
#include <cstdint>

struct fxm_rbnode_t {
    fxm_rbnode_t *parent; // null at the root
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

// Steps from a link to its record and to its key. Link is the record's member that is the link. Key is the member that is
// the key, or the members that lead to it when it lies in a nested structure.
template <auto Link, auto... Key> struct fxm_rbtree_of;

template <typename Record, fxm_rbnode_t Record::*Link, auto... Key> struct fxm_rbtree_of<Link, Key...> {
    static Record *record(fxm_rbnode_t *link)
    {
        // The C++ ABI of the platform represents a pointer to a data member as the member's offset.
        const auto offset = std::bit_cast<ptrdiff_t>(Link);
        return reinterpret_cast<Record *>(reinterpret_cast<char *>(link) - offset);
    }
    static const void *get_key(const fxm_rbnode_t *link)
    {
        return &(*record(const_cast<fxm_rbnode_t *>(link)).*....*Key);
    }
};

// Compares two uint64_t as unsigned numbers: -1, 0 or 1.
int _fxm_rbtree_compare_u64(const void *key1, const void *key2);

void _fxm_rbtree_init(fxm_rbtree_t *tree, fxm_rbtree_compare_t compare, fxm_rbtree_get_key_t get_key);
// Inserts a record by its link: 0, or EEXIST when its key is there already; nothing has changed then.
[[nodiscard]] int _fxm_rbtree_put(fxm_rbtree_t *tree, fxm_rbnode_t *node);
void _fxm_rbtree_delete(fxm_rbtree_t *tree, fxm_rbnode_t *node);                         // the node must be in the map
[[nodiscard]] fxm_rbnode_t *_fxm_rbtree_find(const fxm_rbtree_t *tree, const void *key); // null when it is absent
[[nodiscard]] fxm_rbnode_t *_fxm_rbtree_first(const fxm_rbtree_t *tree);                 // null when the map is empty
[[nodiscard]] fxm_rbnode_t *_fxm_rbtree_next(fxm_rbnode_t *node);                        // null after the last one
void _fxm_rbtree_clear(fxm_rbtree_t *tree, void (*destroy)(fxm_rbnode_t *node));

#endif
