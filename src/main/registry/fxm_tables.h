// The registry: one ordered table of FXSV cards and one of FXIO cards, with totals and group counts, under one lock.
// Frame processing fills it, the interval check and the link watcher age it, host threads read copies of it.
//
// The two classes are twins: the logic is a template over fxsv_class and fxio_class below, and each named function of a
// class is a thin instance that lends its name to the messages.
#ifndef FXM_TABLES_H
#define FXM_TABLES_H

#include <cstddef>
#include <cstdint>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "diag/fxm_stats.h"
#include "fxm.h"
#include "platform/fxm_platform.h"

// Ignore state of a node.
constexpr uint32_t FXM_WATCH = 0;         // normal monitoring
constexpr uint32_t FXM_IGNORE = 1;        // out of monitoring
constexpr uint32_t FXM_WATCH_RESTART = 2; // to be taken up again by the next frame or by the end of the check count

// Flags of get and set.
constexpr uint32_t FXM_TBL_RECORD = 1;
constexpr uint32_t FXM_TBL_IGNORE_STATE = 2;
constexpr uint32_t FXM_TBL_CHECK_COUNT = 4; // set only: zero it
constexpr uint32_t FXM_TBL_ALL = 7;         // what frame processing sets

struct fxm_fxsv_node_t {
    fxm_fxsv_t fsn_data;
    fxm_rbnode_t fsn_link;
    uint32_t fsn_ignore_state;
    uint32_t fsn_check_count; // keepalive passes seen in WATCH_RESTART
};

struct fxm_fxio_node_t {
    fxm_fxio_t fin_data;
    fxm_rbnode_t fin_link;
    uint32_t fin_ignore_state;
    uint32_t fin_check_count;
};

constexpr uint32_t FXM_GROUPS = 4097; // one for each VLAN id, the last for every value of 4096 or more

struct fxm_fx_tbl_t {
    fxm_rbtree_t fxsv_map;
    fxm_rbtree_t fxio_map;
    // The card lock. Guards everything in this object and in every node; no pointer into a node leaves it.
    // Taken while the thread holds no other lock of the library, except an entry lock when a callback takes it. Under
    // it, one at a time: blacklist_lock, wreg_lock or the queue lock, and the stats lock last. Held for one frame, one
    // keepalive pass, one query, the card section of a dump; never across a frame to a card, a wait or a callback.
    fxm_mutex_t fx_lock{FXM_LOCK_FX};
    uint32_t fxsv_total;
    uint32_t fxio_total;
    uint32_t fxsv_group_num[FXM_GROUPS];
    uint32_t fxio_group_num[FXM_GROUPS];
};
extern fxm_fx_tbl_t fxm_fx_tbl;

// What tells one class from the other.
struct fxsv_class {
    using record_t = fxm_fxsv_t;
    using node_t = fxm_fxsv_node_t;
    static constexpr const char *word = "FXSV";
    static constexpr const char *get_name = "_fxm_get_fxsv";
    static constexpr const char *set_name = "_fxm_set_fxsv";
    static constexpr const char *add_name = "_fxm_add_fxsv";
    static constexpr fxm_mem_t account = FXM_MEM_FXSV;
    static constexpr size_t link_offset = offsetof(fxm_fxsv_node_t, fsn_link);
    static fxm_rbtree_t &map() { return fxm_fx_tbl.fxsv_map; }
    static uint32_t &total() { return fxm_fx_tbl.fxsv_total; }
    static uint32_t *groups() { return fxm_fx_tbl.fxsv_group_num; }
    static record_t &record(node_t *node) { return node->fsn_data; }
    static fxm_rbnode_t &link(node_t *node) { return node->fsn_link; }
    static uint32_t &ignore_state(node_t *node) { return node->fsn_ignore_state; }
    static uint32_t &check_count(node_t *node) { return node->fsn_check_count; }
    static fxm_card_data_t &card(record_t &record) { return record.fsv_card; }
    static const fxm_card_data_t &card(const record_t &record) { return record.fsv_card; }
};

struct fxio_class {
    using record_t = fxm_fxio_t;
    using node_t = fxm_fxio_node_t;
    static constexpr const char *word = "FXIO";
    static constexpr const char *get_name = "_fxm_get_fxio";
    static constexpr const char *set_name = "_fxm_set_fxio";
    static constexpr const char *add_name = "_fxm_add_fxio";
    static constexpr fxm_mem_t account = FXM_MEM_FXIO;
    static constexpr size_t link_offset = offsetof(fxm_fxio_node_t, fin_link);
    static fxm_rbtree_t &map() { return fxm_fx_tbl.fxio_map; }
    static uint32_t &total() { return fxm_fx_tbl.fxio_total; }
    static uint32_t *groups() { return fxm_fx_tbl.fxio_group_num; }
    static record_t &record(node_t *node) { return node->fin_data; }
    static fxm_rbnode_t &link(node_t *node) { return node->fin_link; }
    static uint32_t &ignore_state(node_t *node) { return node->fin_ignore_state; }
    static uint32_t &check_count(node_t *node) { return node->fin_check_count; }
    static fxm_card_data_t &card(record_t &record) { return record.fio_card; }
    static const fxm_card_data_t &card(const record_t &record) { return record.fio_card; }
};

int _fxm_fx_init(); // 0 or EPROTO
int _fxm_fx_fini(); // 0; no other thread is left
int _fxm_fx_lock() FXM_ACQUIRE(fxm_fx_tbl.fx_lock);
int _fxm_fx_unlock() FXM_RELEASE(fxm_fx_tbl.fx_lock);

struct FXM_SCOPED_CAPABILITY fxm_fx_guard_t {
    fxm_fx_guard_t() FXM_ACQUIRE(fxm_fx_tbl.fx_lock) { _fxm_fx_lock(); }
    ~fxm_fx_guard_t() FXM_RELEASE() { _fxm_fx_unlock(); }
    fxm_fx_guard_t(const fxm_fx_guard_t &) = delete;
    fxm_fx_guard_t &operator=(const fxm_fx_guard_t &) = delete;
};

// All below run with fx_lock held by the caller.

// Copies out of the node of `id`: 0, ENOENT, EINVAL (a null output that a flag asks for, or a flag that is not
// allowed).
int _fxm_get_fxsv(uint64_t id, fxm_fxsv_t *record, uint32_t *ignore_state, uint32_t flags);
int _fxm_get_fxio(uint64_t id, fxm_fxio_t *record, uint32_t *ignore_state, uint32_t flags);

// Updates the node of `id`, or with all flags creates it: 0, EINVAL, ENOMEM, EPROTO.
int _fxm_set_fxsv(uint64_t id, const fxm_fxsv_t *record, uint32_t ignore_state, uint32_t flags);
int _fxm_set_fxio(uint64_t id, const fxm_fxio_t *record, uint32_t ignore_state, uint32_t flags);

// Takes the node of `id` out and frees it: 0 or ENOENT.
int _fxm_remove_fxsv(uint64_t id);
int _fxm_remove_fxio(uint64_t id);

// The road of all card operations from an id to what they need, whatever the class; an id in both tables is answered
// from the FXSV table. card and resource_num may be null. 0, ENOENT, EPROTO.
int _fxm_get_fxdev_rid(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state, uint16_t *resource_num);

template <typename Class> typename Class::node_t *_fxm_node_of(fxm_rbnode_t *link)
{
    return link == nullptr ? nullptr : _fxm_rbtree_record<typename Class::node_t>(link, Class::link_offset);
}

template <typename Class> typename Class::node_t *_fxm_find_node(uint64_t id)
{
    return _fxm_node_of<Class>(_fxm_rbtree_find(&Class::map(), &id));
}

// Visits every node of the class in ascending id order; `visit` returns false to end the walk.
template <typename Class, typename Visit> void _fxm_each_node(Visit visit)
{
    for (fxm_rbnode_t *link = _fxm_rbtree_first(&Class::map()); link != nullptr; link = _fxm_rbtree_next(link)) {
        if (!visit(_fxm_node_of<Class>(link)))
            return;
    }
}

// "P0M0: %s, P0M1: %s, P1M0: %s, P1M1: %s" of a card's channels.
#define FXM_CHANNELS_FORMAT "P0M0: %s, P0M1: %s, P1M0: %s, P1M1: %s"
inline const char *_fxm_state_name(uint32_t state) { return state == 1 ? "CONNECT" : "DISCONNECT"; }
#define FXM_CHANNELS_ARGS(card)                                                                                        \
    _fxm_state_name((card).fcd_state[0][0]), _fxm_state_name((card).fcd_state[0][1]),                                  \
        _fxm_state_name((card).fcd_state[1][0]), _fxm_state_name((card).fcd_state[1][1])

#endif
