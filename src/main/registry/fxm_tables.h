// The registry: one ordered table of FXSV cards and one of FXIO cards, with totals and group counts, under one lock.
// Frame processing fills it, the interval check and the link watcher age it, and host threads read copies of it.
//
// The two classes are twins. All logic is written once, as templates over the class descriptions fxsv_class and
// fxio_class. A function that is named for one class exists only where another module or the host calls it.
#ifndef FXM_TABLES_H
#define FXM_TABLES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "diag/fxm_stats.h"
#include "fxm.h"
#include "platform/fxm_platform.h"
#include "registry/fxm_roster.h"

// Ignore state of a node.
constexpr uint32_t FXM_WATCH = 0;         // normal monitoring
constexpr uint32_t FXM_IGNORE = 1;        // excluded from monitoring
constexpr uint32_t FXM_WATCH_RESTART = 2; // restarted; the next frame or the end of the check count leads to FXM_WATCH

// Flags of get and set.
constexpr uint32_t FXM_TBL_RECORD = 1;
constexpr uint32_t FXM_TBL_IGNORE_STATE = 2;
constexpr uint32_t FXM_TBL_CHECK_COUNT = 4; // set only: zeroes it
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

constexpr uint32_t FXM_GROUPS = 4097; // one for each VLAN id; the last one counts every value of 4096 or more

struct fxm_fx_tbl_t {
    fxm_rbtree_t fxsv_map FXM_GUARDED_BY(fx_lock);
    fxm_rbtree_t fxio_map FXM_GUARDED_BY(fx_lock);
    // The card lock. Guards everything in this object and in every node; no pointer into a node leaves it.
    // It is taken while the thread holds no other lock of the library, except the lock of a callback entry when a callback
    // takes it. Under it a thread takes blacklist_lock, wreg_lock or the lock of the event queue, one at a time, and the
    // stats lock last. It is held for one frame, one keepalive pass, one query or the card section of a dump, and never
    // across a frame to a card, a wait or a callback.
    fxm_mutex_t fx_lock{FXM_LOCK_FX};
    uint32_t fxsv_total FXM_GUARDED_BY(fx_lock);
    uint32_t fxio_total FXM_GUARDED_BY(fx_lock);
    uint32_t fxsv_group_num[FXM_GROUPS] FXM_GUARDED_BY(fx_lock);
    uint32_t fxio_group_num[FXM_GROUPS] FXM_GUARDED_BY(fx_lock);
    // Beside the maps, for whatever is done often; each has a seat for every node of its map.
    fxm_roster_t fxsv_roster FXM_GUARDED_BY(fx_lock);
    fxm_roster_t fxio_roster FXM_GUARDED_BY(fx_lock);
};
extern fxm_fx_tbl_t fxm_fx_tbl;

// A cap on the cards of both tables together, which the daemon of this project sets, and the announcements that it has
// refused. Read for each new card under fx_lock and written by any thread; nothing else depends on them, so their order
// is relaxed.
extern std::atomic<uint32_t> fxm_card_limit;
extern std::atomic<uint64_t> fxm_cards_refused;

// Everything in which the classes differ, but for the meaning of their fields: types, the names that messages print, the
// table, and the members of a node.
struct fxsv_class {
    using record_t = fxm_fxsv_t;
    using node_t = fxm_fxsv_node_t;
    using link_t = fxm_rbtree_of<&node_t::fsn_link, &node_t::fsn_data, &record_t::fsv_card, &fxm_card_data_t::fcd_id>;

    static constexpr const char *word = "FXSV";
    static constexpr const char *set_name = "_fxm_set_fxsv";
    static constexpr const char *add_name = "_fxm_add_fxsv";
    static constexpr const char *add_devinfo_name = "_add_fxsv_devinfo";
    static constexpr const char *update_devinfo_name = "_update_fxsv_devinfo";
    static constexpr const char *update_state_name = "_update_fxsv_state";

    static constexpr fxm_mem_t account = FXM_MEM_FXSV;
    static fxm_rbtree_t &map() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxsv_map; }
    static uint32_t &total() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxsv_total; }
    static uint32_t *groups() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxsv_group_num; }
    static fxm_roster_t &roster() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxsv_roster; }

    static record_t &record(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fsn_data; }
    static fxm_rbnode_t &link(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fsn_link; }
    static uint32_t &ignore_state(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fsn_ignore_state; }
    static uint32_t &check_count(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fsn_check_count; }
    static fxm_card_data_t &card(record_t &record) { return record.fsv_card; }
    static const fxm_card_data_t &card(const record_t &record) { return record.fsv_card; }
};

struct fxio_class {
    using record_t = fxm_fxio_t;
    using node_t = fxm_fxio_node_t;
    using link_t = fxm_rbtree_of<&node_t::fin_link, &node_t::fin_data, &record_t::fio_card, &fxm_card_data_t::fcd_id>;

    static constexpr const char *word = "FXIO";
    static constexpr const char *set_name = "_fxm_set_fxio";
    static constexpr const char *add_name = "_fxm_add_fxio";
    static constexpr const char *add_devinfo_name = "_add_fxio_devinfo";
    static constexpr const char *update_devinfo_name = "_update_fxio_devinfo";
    static constexpr const char *update_state_name = "_update_fxio_state";

    static constexpr fxm_mem_t account = FXM_MEM_FXIO;
    static fxm_rbtree_t &map() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxio_map; }
    static uint32_t &total() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxio_total; }
    static uint32_t *groups() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxio_group_num; }
    static fxm_roster_t &roster() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return fxm_fx_tbl.fxio_roster; }

    static record_t &record(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fin_data; }
    static fxm_rbnode_t &link(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fin_link; }
    static uint32_t &ignore_state(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fin_ignore_state; }
    static uint32_t &check_count(node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return node->fin_check_count; }
    static fxm_card_data_t &card(record_t &record) { return record.fio_card; }
    static const fxm_card_data_t &card(const record_t &record) { return record.fio_card; }
};

[[nodiscard]] int _fxm_fx_init(); // 0 or EPROTO
int _fxm_fx_fini();               // always 0; runs when no other thread of the library is left
int _fxm_fx_lock() FXM_ACQUIRE(fxm_fx_tbl.fx_lock);
int _fxm_fx_unlock() FXM_RELEASE(fxm_fx_tbl.fx_lock); // always 0

struct FXM_SCOPED_CAPABILITY fxm_fx_guard_t {
    fxm_fx_guard_t() FXM_ACQUIRE(fxm_fx_tbl.fx_lock) { _fxm_fx_lock(); }
    ~fxm_fx_guard_t() FXM_RELEASE() { _fxm_fx_unlock(); }
    fxm_fx_guard_t(const fxm_fx_guard_t &) = delete;
    fxm_fx_guard_t &operator=(const fxm_fx_guard_t &) = delete;
};

// Each of the templates has two instances, one for each class.

// The seat of `id` in the roster of its class, or null.
template <typename Class> fxm_seat_t *_fxm_tbl_seat(uint64_t id) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_assert(_fxm_check_holds(&fxm_fx_tbl.fx_lock));
    return _fxm_roster_find(&Class::roster(), id);
}

template <typename Class> typename Class::node_t *_fxm_node_of(const fxm_seat_t *seat)
{
    return static_cast<typename Class::node_t *>(seat->node);
}

// Which passes must look at a card.
fxm_watch_t _fxm_watch_of(const fxm_card_data_t &card, uint32_t ignore_state);

// Follows a change of the card's channels or of its ignore state.
template <typename Class> void _fxm_update_seat(fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    seat->watch = _fxm_watch_of(Class::card(Class::record(node)), Class::ignore_state(node));
}

// Copies out of the node of `id` what the flags select: 0, ENOENT, or EINVAL for a null output that a flag asks for or a
// flag that is not allowed.
template <typename Class>
[[nodiscard]] int _fxm_tbl_get(uint64_t id, typename Class::record_t *record, uint32_t *ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock);

// Updates the node of `id`; with all flags, creates it when it is absent: 0, EINVAL, ENOMEM, EPROTO.
template <typename Class>
[[nodiscard]] int _fxm_tbl_set(uint64_t id, const typename Class::record_t *record, uint32_t ignore_state,
                               uint32_t flags) FXM_REQUIRES(fxm_fx_tbl.fx_lock);

// Removes the node of `id` and frees it: 0 or ENOENT.
template <typename Class> [[nodiscard]] int _fxm_tbl_remove(uint64_t id) FXM_REQUIRES(fxm_fx_tbl.fx_lock);

[[nodiscard]] inline int _fxm_get_fxsv(uint64_t id, fxm_fxsv_t *record, uint32_t *ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    return _fxm_tbl_get<fxsv_class>(id, record, ignore_state, flags);
}

[[nodiscard]] inline int _fxm_get_fxio(uint64_t id, fxm_fxio_t *record, uint32_t *ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    return _fxm_tbl_get<fxio_class>(id, record, ignore_state, flags);
}

[[nodiscard]] inline int _fxm_set_fxsv(uint64_t id, const fxm_fxsv_t *record, uint32_t ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    return _fxm_tbl_set<fxsv_class>(id, record, ignore_state, flags);
}

[[nodiscard]] inline int _fxm_set_fxio(uint64_t id, const fxm_fxio_t *record, uint32_t ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    return _fxm_tbl_set<fxio_class>(id, record, ignore_state, flags);
}

// What a card operation needs of the card `id`, whatever its class: 0, ENOENT, EPROTO. An id in both tables is answered
// from the FXSV table. `card` and `resource_num` may be null.
[[nodiscard]] int _fxm_get_fxdev_rid(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state, uint16_t *resource_num)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock);

// Visits in ascending id order every card of the class for whose seat `wanted` holds. `visit(node, seat)` returns false
// to end the walk.
template <typename Class, typename Wanted, typename Visit>
void _fxm_each_card(Wanted wanted, Visit visit) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_assert(_fxm_check_holds(&fxm_fx_tbl.fx_lock) && Class::roster().count == Class::total());
    // The analysis does not follow the lock through the roster, which knows of none.
    _fxm_roster_walk(&Class::roster(), sizeof(typename Class::node_t), wanted,
                     [&](fxm_seat_t *seat) FXM_NO_ANALYSIS { return visit(_fxm_node_of<Class>(seat), seat); });
}

// The same for every card, without its seat.
template <typename Class, typename Visit> void _fxm_each_node(Visit visit) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    _fxm_each_card<Class>([](const fxm_seat_t &) { return true; },
                          [&](typename Class::node_t *node, fxm_seat_t *)
                              FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return visit(node); });
}

// The states of a card's four channels, as messages print them.
struct fxm_channels_text_t {
    explicit fxm_channels_text_t(const fxm_card_data_t &card);
    char text[72];
};

#endif
