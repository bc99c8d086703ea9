// The map of write locks. Receive threads put, host threads lock.
#include "access/fxm_wreg.h"

#include <cerrno>
#include <cstddef>
#include <new>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"

struct fxm_wreg_node_t {
    fxm_rbnode_t wn_link;
    uint64_t wn_id;
    // The card's write lock. Serialises the write-type conversations with a card, across live check, frames, retries
    // and sleeps. Taken with neither fx_lock nor wreg_lock held; under it cmp_lock, a port's send lock, the stats lock
    // and, to look itself up for the release, wreg_lock, briefly and one at a time, never fx_lock.
    fxm_mutex_t wn_lock{FXM_LOCK_WN};
};

static struct {
    fxm_rbtree_t map;
    // Guards the map's shape, for one map operation; nodes stay for good once they are in. Taken under fx_lock by the
    // receive threads, alone by the host's; nothing but the stats lock is taken under it.
    fxm_mutex_t wreg_lock{FXM_LOCK_WREG};
    uint32_t initialised;
} fxm_write_reg_lock_mng;

static const void *_get_key(const fxm_rbnode_t *link) { return link + 1; } // directly behind the link

static_assert(offsetof(fxm_wreg_node_t, wn_id) == sizeof(fxm_rbnode_t));

static void _write_reg_destroy(fxm_wreg_node_t *node)
{
    if (node == nullptr)
        return;
    _fxm_mutex_destroy(&node->wn_lock);
    _fxm_mem_free(FXM_MEM_WREG_NODE, node);
}

static fxm_wreg_node_t *_write_reg_create(uint64_t id)
{
    void *memory = _fxm_mem_alloc(FXM_MEM_WREG_NODE, sizeof(fxm_wreg_node_t));
    if (memory == nullptr) {
        fxm_log_warn("%s: Failed to _write_reg_node_alloc()", __func__);
        return nullptr;
    }
    auto *node = new (memory) fxm_wreg_node_t{};
    node->wn_id = id;
    if (_fxm_mutex_init(&node->wn_lock) != 0) {
        fxm_log_warn("%s: Failed to _fxm_mutex_init()", __func__);
        _write_reg_destroy(node);
        return nullptr;
    }
    return node;
}

int _fxm_create_reg_lock_node(uint64_t id)
{
    fxm_wreg_node_t *node = _write_reg_create(id);
    if (node == nullptr) {
        fxm_log_warn("%s: Failed to _write_reg_create(). id=0x%.12llx", __func__, _ull(id));
        return ENOMEM;
    }
    fxm_mutex_guard_t guard(&fxm_write_reg_lock_mng.wreg_lock);
    const int err = _fxm_rbtree_put(&fxm_write_reg_lock_mng.map, &node->wn_link);
    if (err == 0)
        return 0;
    if (err == EEXIST)
        fxm_log_trace("%s: Failed to _fxm_rbtree_put(). err=EEXIST, id=0x%.12llx", __func__, _ull(id));
    else
        fxm_log_warn("%s: Failed to _fxm_rbtree_put(). err=%d, id=0x%.12llx", __func__, err, _ull(id));
    _write_reg_destroy(node);
    return err == EEXIST ? EEXIST : EPROTO;
}

static fxm_mutex_t *_find_lock(uint64_t id)
{
    fxm_mutex_guard_t guard(&fxm_write_reg_lock_mng.wreg_lock);
    fxm_rbnode_t *link = _fxm_rbtree_find(&fxm_write_reg_lock_mng.map, &id);
    if (link == nullptr)
        return nullptr;
    return &_fxm_rbtree_record<fxm_wreg_node_t>(link, offsetof(fxm_wreg_node_t, wn_link))->wn_lock;
}

int FXM_WREG_LOCK(uint64_t id)
{
    fxm_mutex_t *lock = _find_lock(id);
    if (lock == nullptr)
        return ENOENT;
    _fxm_mutex_lock(lock);
    return 0;
}

int FXM_WREG_UNLOCK(uint64_t id)
{
    fxm_mutex_t *lock = _find_lock(id);
    if (lock == nullptr)
        return ENOENT;
    _fxm_mutex_unlock(lock);
    return 0;
}

int _fxm_reg_init()
{
    fxm_log_info("%s: start.", __func__);
    int err = 0;
    if (fxm_write_reg_lock_mng.initialised != 0) {
        fxm_log_info("%s: fxm_write_reg_lock_mng is already initialized.", __func__);
    } else {
        err = _fxm_mutex_init_st(&fxm_write_reg_lock_mng.wreg_lock);
        if (err != 0) {
            fxm_log_error("%s: Failed to _fxm_mutex_init_st()", __func__);
        } else {
            _fxm_rbtree_init(&fxm_write_reg_lock_mng.map, _fxm_rbtree_compare_u64, _get_key);
            fxm_write_reg_lock_mng.initialised = 1;
        }
    }
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

void _fxm_reg_fini()
{
    fxm_log_info("%s: start.", __func__);
    fxm_log_info("%s: end.", __func__);
}
