// Stop and restart of the monitoring of a card. Host threads call these; receive threads look ids up here.
#include "registry/fxm_blacklist.h"

#include <cerrno>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

struct fxm_bl_node_t {
    fxm_rbnode_t link;
    uint64_t id;
};

fxm_mutex_t blacklist_lock{FXM_LOCK_BLACKLIST};
static fxm_rbtree_t blacklist_map FXM_GUARDED_BY(blacklist_lock);

using bl_link_t = fxm_rbtree_of<&fxm_bl_node_t::link, &fxm_bl_node_t::id>;

static fxm_bl_node_t *_bl_node_create(uint64_t id)
{
    auto *node = static_cast<fxm_bl_node_t *>(_fxm_mem_alloc(FXM_MEM_BL_NODE, sizeof(fxm_bl_node_t)));
    if (node != nullptr)
        node->id = id;
    return node;
}

static void _bl_node_destroy(fxm_bl_node_t *node) { _fxm_mem_free(FXM_MEM_BL_NODE, node); }

void _fxm_lock_blacklist()
{
    fxm_log_trace("%s: blacklist lock", __func__);
    _fxm_mutex_lock(&blacklist_lock);
}

void _fxm_unlock_blacklist()
{
    fxm_log_trace("%s: blacklist unlock", __func__);
    _fxm_mutex_unlock(&blacklist_lock);
}

int _fxm_blacklist_init()
{
    fxm_log_info("%s: start.", __func__);
    _fxm_rbtree_init(&blacklist_map, _fxm_rbtree_compare_u64, bl_link_t::get_key);
    const int err = _fxm_mutex_init_st(&blacklist_lock);
    if (err != 0)
        fxm_log_error("%s: Failed to _fxm_mutex_init_st()", __func__);
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

int _fxm_blacklist_fini()
{
    fxm_log_info("%s: start.", __func__);
    _fxm_lock_blacklist();
    _fxm_rbtree_clear(&blacklist_map, [](fxm_rbnode_t *link) { _bl_node_destroy(bl_link_t::record(link)); });
    _fxm_unlock_blacklist();
    _fxm_mutex_destroy(&blacklist_lock);
    fxm_log_info("%s: end.", __func__);
    return 0;
}

bool _fxm_blacklist_lookup(uint64_t id)
{
    fxm_assert(_fxm_check_holds(&blacklist_lock));
    return _fxm_rbtree_find(&blacklist_map, &id) != nullptr;
}

std::vector<uint64_t> _fxm_blacklist_copy()
{
    std::vector<uint64_t> ids;
    fxm_blacklist_guard_t guard;
    for (fxm_rbnode_t *link = _fxm_rbtree_first(&blacklist_map); link != nullptr; link = _fxm_rbtree_next(link))
        ids.push_back(bl_link_t::record(link)->id);
    return ids;
}

void _fxm_blacklist_dump()
{
    fxm_log_stats("  - Black list ids");
    {
        fxm_blacklist_guard_t guard;
        fxm_rbnode_t *link = _fxm_rbtree_first(&blacklist_map);
        if (link == nullptr)
            fxm_log_stats("    no entry.");
        for (; link != nullptr; link = _fxm_rbtree_next(link))
            fxm_log_stats("    0x%.12llx", _ull(bl_link_t::record(link)->id));
    }
    fxm_log_stats(" ");
}

// The caller does not name the class, so both tables are tried. A table without the id answers EINVAL, as expected.
static void _set_ignore_state(uint64_t id, uint32_t ignore_state, uint32_t flags) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    (void)_fxm_set_fxsv(id, nullptr, ignore_state, flags);
    (void)_fxm_set_fxio(id, nullptr, ignore_state, flags);
}

// Puts the entry into the map, or frees it when its id is there already: 0 or EPROTO.
static int _put_entry(const char *func, fxm_bl_node_t *node) FXM_REQUIRES(blacklist_lock)
{
    const uint64_t id = node->id;
    const int err = _fxm_rbtree_put(&blacklist_map, &node->link);
    if (err == 0)
        return 0;
    if (err == EEXIST)
        fxm_log_trace("%s: The ID already exist in black list. id=0x%.12llx", func, _ull(id));
    else
        fxm_log_error("%s: Failed to _fxm_rbtree_put(). err=%d, id=0x%.12llx", func, err, _ull(id));
    _bl_node_destroy(node);
    return err == EEXIST ? 0 : EPROTO;
}

static int _stop_monitor(const char *func, uint64_t id) FXM_EXCLUDES(fxm_fx_tbl.fx_lock, blacklist_lock)
{
    fxm_bl_node_t *node = _bl_node_create(id);
    if (node == nullptr) {
        fxm_log_error("%s: can't alloc memory for fxm_bl_node_t.", func);
        return ENOMEM;
    }
    fxm_fx_guard_t fx_guard;
    fxm_blacklist_guard_t blacklist_guard;
    const int err = _put_entry(func, node);
    if (err == 0)
        _set_ignore_state(id, FXM_IGNORE, FXM_TBL_IGNORE_STATE);
    return err;
}

int fxm_stop_monitor(uint64_t id)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) id=0x%.12llx", __func__, _ull(id));
    const int result = _fxm_errno_to_result(call.running ? _stop_monitor(__func__, id) : ENOSYS);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_STOP_MONITOR, result);
}

static int _restart_monitor(const char *func, uint64_t id) FXM_EXCLUDES(fxm_fx_tbl.fx_lock, blacklist_lock)
{
    fxm_fx_guard_t fx_guard;
    fxm_blacklist_guard_t blacklist_guard;
    fxm_rbnode_t *link = _fxm_rbtree_find(&blacklist_map, &id);
    if (link != nullptr) {
        _fxm_rbtree_delete(&blacklist_map, link);
        _bl_node_destroy(bl_link_t::record(link));
    } else {
        fxm_log_trace("%s: The ID don't exist in black list. id=0x%.12llx", func, _ull(id));
    }
    _set_ignore_state(id, FXM_WATCH_RESTART, FXM_TBL_IGNORE_STATE | FXM_TBL_CHECK_COUNT);
    return 0;
}

int fxm_restart_monitor(uint64_t id)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) id=0x%.12llx", __func__, _ull(id));
    const int result = _fxm_errno_to_result(call.running ? _restart_monitor(__func__, id) : ENOSYS);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_RESTART_MONITOR, result);
}
