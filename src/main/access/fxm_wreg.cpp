// The map of write locks. Receive threads add to it, host threads look up and lock.
#include "access/fxm_wreg.h"

#include <cerrno>
#include <new>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"

struct fxm_wreg_node_t {
    fxm_rbnode_t wn_link;
    uint64_t wn_id;
    // The card's write lock. It is held across live check, frames, retries and sleeps. It is taken with neither fx_lock
    // nor wreg_lock held. Under it a thread takes cmp_lock and the stats lock, briefly and one at a time, and never
    // fx_lock.
    fxm_mutex_t wn_lock{FXM_LOCK_WN};
};

static struct {
    // Guards the map for one operation. A node is never removed, so a pointer to it stays good without this lock. The
    // receive threads take it under fx_lock, host threads with no lock held. Under it only the stats lock is taken.
    fxm_mutex_t wreg_lock{FXM_LOCK_WREG};
    fxm_rbtree_t map FXM_GUARDED_BY(wreg_lock);
    bool initialised; // by the first start in this process; only starts use it, one at a time
} fxm_write_reg_lock_mng;

using wreg_link_t = fxm_rbtree_of<&fxm_wreg_node_t::wn_link, &fxm_wreg_node_t::wn_id>;

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

// The write lock of a card, or null.
static fxm_mutex_t *_find_lock(uint64_t id)
{
    fxm_mutex_guard_t guard(&fxm_write_reg_lock_mng.wreg_lock);
    fxm_rbnode_t *link = _fxm_rbtree_find(&fxm_write_reg_lock_mng.map, &id);
    if (link == nullptr)
        return nullptr;
    return &wreg_link_t::record(link)->wn_lock;
}

// The analysis cannot follow a lock that is taken on a condition.
FXM_NO_ANALYSIS fxm_wreg_guard_t::fxm_wreg_guard_t(uint64_t id) : wn_lock(_find_lock(id))
{
    if (wn_lock != nullptr)
        _fxm_mutex_lock(wn_lock);
}

FXM_NO_ANALYSIS fxm_wreg_guard_t::~fxm_wreg_guard_t()
{
    if (wn_lock != nullptr)
        _fxm_mutex_unlock(wn_lock);
}

int _fxm_reg_init()
{
    fxm_log_info("%s: start.", __func__);
    int err = 0;
    if (fxm_write_reg_lock_mng.initialised) {
        fxm_log_info("%s: fxm_write_reg_lock_mng is already initialized.", __func__);
    } else {
        err = _fxm_mutex_init_st(&fxm_write_reg_lock_mng.wreg_lock);
        if (err != 0) {
            fxm_log_error("%s: Failed to _fxm_mutex_init_st()", __func__);
        } else {
            fxm_mutex_guard_t guard(&fxm_write_reg_lock_mng.wreg_lock);
            _fxm_rbtree_init(&fxm_write_reg_lock_mng.map, _fxm_rbtree_compare_u64, wreg_link_t::get_key);
            fxm_write_reg_lock_mng.initialised = true;
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
