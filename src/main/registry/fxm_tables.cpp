// The card tables. Runs under fx_lock, on any thread that holds it.
#include "registry/fxm_tables.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fxm_log4cxxif.h"

// Records are compared and copied as bytes, so host and library must agree on every byte of them.
static_assert(sizeof(fxm_card_data_t) == 104);
static_assert(sizeof(fxm_pci_config_t) == 20);
static_assert(sizeof(fxm_down_port_t) == 28);
static_assert(sizeof(fxm_fxsv_t) == 576);
static_assert(sizeof(fxm_fxio_t) == 128);

// A roster reads the id at the head of a node.
static_assert(offsetof(fxm_fxsv_node_t, fsn_data) == 0 && offsetof(fxm_fxsv_t, fsv_card) == 0);
static_assert(offsetof(fxm_fxio_node_t, fin_data) == 0 && offsetof(fxm_fxio_t, fio_card) == 0);
static_assert(offsetof(fxm_card_data_t, fcd_id) == 0);

fxm_fx_tbl_t fxm_fx_tbl;
std::atomic<uint32_t> fxm_card_limit{UINT32_MAX};
std::atomic<uint64_t> fxm_cards_refused{0};

template <typename Class> static uint32_t &_group(uint16_t vlan_id) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    return Class::groups()[std::min<uint32_t>(vlan_id, FXM_GROUPS - 1)];
}

static const char *_state_name(uint32_t state) { return state == 1 ? "CONNECT" : "DISCONNECT"; }

fxm_channels_text_t::fxm_channels_text_t(const fxm_card_data_t &card)
{
    snprintf(text, sizeof(text), "P0M0: %s, P0M1: %s, P1M0: %s, P1M1: %s", _state_name(card.fcd_state[0][0]),
             _state_name(card.fcd_state[0][1]), _state_name(card.fcd_state[1][0]), _state_name(card.fcd_state[1][1]));
}

// ------------------------------------------------------------------------------------------------------------- nodes

template <typename Class>
static typename Class::node_t *_node_create(const typename Class::record_t *record, uint32_t ignore_state)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    auto *node = static_cast<typename Class::node_t *>(_fxm_mem_alloc(Class::account, sizeof(typename Class::node_t)));
    if (node == nullptr)
        return nullptr;
    memcpy(&Class::record(node), record, sizeof(*record));
    Class::ignore_state(node) = ignore_state;
    return node;
}

template <typename Class> static void _node_destroy(typename Class::node_t *node)
{
    _fxm_mem_free(Class::account, node);
}

fxm_watch_t _fxm_watch_of(const fxm_card_data_t &card, uint32_t ignore_state)
{
    if (ignore_state == FXM_IGNORE)
        return {0, FXM_NEVER};
    uint64_t ports = 0;
    uint64_t oldest = FXM_NEVER;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        for (uint32_t mac = 0; mac < 2; ++mac) {
            if (card.fcd_state[port][mac] == 0)
                continue;
            ports |= uint64_t{1} << port;
            oldest = std::min(oldest, card.fcd_recvtime[port][mac]);
        }
    }
    if (ignore_state != FXM_WATCH)
        oldest = 0; // every pass counts
    return {ports & 3, oldest & FXM_NEVER};
}

// --------------------------------------------------------------------------------------------------------- lifecycle

// Not analysed: no other thread uses the table before its start.
template <typename Class> FXM_NO_ANALYSIS static void _init_table()
{
    _fxm_rbtree_init(&Class::map(), _fxm_rbtree_compare_u64, Class::link_t::get_key);
    _fxm_roster_init(&Class::roster());
    Class::total() = 0;
    std::fill_n(Class::groups(), FXM_GROUPS, 0u);
}

template <typename Class> static void _clear_table() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    _fxm_rbtree_clear(&Class::map(), [](fxm_rbnode_t *link) { _node_destroy<Class>(Class::link_t::record(link)); });
    _fxm_roster_clear(&Class::roster());
    Class::total() = 0;
    std::fill_n(Class::groups(), FXM_GROUPS, 0u);
}

int _fxm_fx_init()
{
    fxm_log_info("%s: start.", __func__);
    _init_table<fxsv_class>();
    _init_table<fxio_class>();
    const int err = _fxm_mutex_init_st(&fxm_fx_tbl.fx_lock);
    if (err != 0)
        fxm_log_error("%s: Failed to _fxm_mutex_init_st()", __func__);
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

int _fxm_fx_fini()
{
    fxm_log_info("%s: start.", __func__);
    _fxm_fx_lock();
    _clear_table<fxsv_class>();
    _clear_table<fxio_class>();
    _fxm_fx_unlock();
    _fxm_mutex_destroy(&fxm_fx_tbl.fx_lock);
    fxm_log_info("%s: end.", __func__);
    return 0;
}

int _fxm_fx_lock()
{
    fxm_log_trace("%s: fx lock", __func__);
    return _fxm_mutex_lock(&fxm_fx_tbl.fx_lock);
}

int _fxm_fx_unlock()
{
    fxm_log_trace("%s: fx unlock", __func__);
    _fxm_mutex_unlock(&fxm_fx_tbl.fx_lock);
    return 0;
}

// --------------------------------------------------------------------------------------------------------------- get

template <typename Class>
int _fxm_tbl_get(uint64_t id, typename Class::record_t *record, uint32_t *ignore_state, uint32_t flags)
{
    if (((flags & FXM_TBL_RECORD) != 0 && record == nullptr) ||
        ((flags & FXM_TBL_IGNORE_STATE) != 0 && ignore_state == nullptr) || (flags & FXM_TBL_CHECK_COUNT) != 0)
        return EINVAL;
    const fxm_seat_t *seat = _fxm_tbl_seat<Class>(id);
    if (seat == nullptr)
        return ENOENT;
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    if ((flags & FXM_TBL_RECORD) != 0)
        memcpy(record, &Class::record(node), sizeof(*record));
    if ((flags & FXM_TBL_IGNORE_STATE) != 0)
        *ignore_state = Class::ignore_state(node);
    return 0;
}
template int _fxm_tbl_get<fxsv_class>(uint64_t, fxm_fxsv_t *, uint32_t *, uint32_t);
template int _fxm_tbl_get<fxio_class>(uint64_t, fxm_fxio_t *, uint32_t *, uint32_t);

// --------------------------------------------------------------------------------------------------------------- set

template <typename Class>
static int _add(uint64_t id, const typename Class::record_t *record, uint32_t ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    if ((flags & FXM_TBL_ALL) != FXM_TBL_ALL)
        return EINVAL;
    fxm_assert(Class::card(*record).fcd_id == id);
    typename Class::node_t *node = _node_create<Class>(record, ignore_state);
    if (node == nullptr)
        return ENOMEM;
    const int err = _fxm_rbtree_put(&Class::map(), &Class::link(node));
    if (err != 0) {
        fxm_log_warn("%s: Failed to _fxm_rbtree_put(). err=%d, id=0x%.12llx", Class::add_name, err, _ull(id));
        _node_destroy<Class>(node);
        return EPROTO;
    }
    if (_fxm_roster_add(&Class::roster(), node, _fxm_watch_of(Class::card(*record), ignore_state)) == nullptr) {
        _fxm_rbtree_delete(&Class::map(), &Class::link(node));
        _node_destroy<Class>(node);
        _fxm_stats_add(&g_stats.alloc_fail);
        return ENOMEM;
    }
    Class::total() += 1;
    _group<Class>(Class::card(*record).fcd_vlan_id) += 1;
    return 0;
}

template <typename Class>
static void _update(fxm_seat_t *seat, const typename Class::record_t *record, uint32_t ignore_state, uint32_t flags)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    if ((flags & FXM_TBL_RECORD) != 0) {
        // The id is the key of the map, so it must stay.
        fxm_assert(Class::card(*record).fcd_id == Class::card(Class::record(node)).fcd_id);
        const uint16_t from = Class::card(Class::record(node)).fcd_vlan_id;
        const uint16_t to = Class::card(*record).fcd_vlan_id;
        memcpy(&Class::record(node), record, sizeof(*record));
        if (from != to) {
            fxm_assert(_group<Class>(from) > 0);
            _group<Class>(from) -= 1;
            _group<Class>(to) += 1;
        }
    }
    if ((flags & FXM_TBL_IGNORE_STATE) != 0)
        Class::ignore_state(node) = ignore_state;
    if ((flags & FXM_TBL_CHECK_COUNT) != 0)
        Class::check_count(node) = 0;
    _fxm_update_seat<Class>(seat);
}

template <typename Class>
int _fxm_tbl_set(uint64_t id, const typename Class::record_t *record, uint32_t ignore_state, uint32_t flags)
{
    if ((flags & FXM_TBL_RECORD) != 0 && record == nullptr)
        return EINVAL;
    fxm_seat_t *seat = _fxm_tbl_seat<Class>(id);
    if (seat != nullptr) {
        _update<Class>(seat, record, ignore_state, flags);
        return 0;
    }
    const int err = _add<Class>(id, record, ignore_state, flags);
    if (err != 0)
        fxm_log_trace("%s: Failed to %s(). err=%d, id=0x%.12llx", Class::set_name, Class::add_name, err, _ull(id));
    return err;
}
template int _fxm_tbl_set<fxsv_class>(uint64_t, const fxm_fxsv_t *, uint32_t, uint32_t);
template int _fxm_tbl_set<fxio_class>(uint64_t, const fxm_fxio_t *, uint32_t, uint32_t);

// ------------------------------------------------------------------------------------------------------------ remove

template <typename Class> int _fxm_tbl_remove(uint64_t id)
{
    fxm_seat_t *seat = _fxm_tbl_seat<Class>(id);
    if (seat == nullptr)
        return ENOENT;
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    _fxm_roster_remove(&Class::roster(), seat);
    _fxm_rbtree_delete(&Class::map(), &Class::link(node));
    const uint16_t vlan_id = Class::card(Class::record(node)).fcd_vlan_id;
    _node_destroy<Class>(node);
    fxm_assert(Class::total() > 0 && _group<Class>(vlan_id) > 0);
    Class::total() -= 1;
    _group<Class>(vlan_id) -= 1;
    return 0;
}
template int _fxm_tbl_remove<fxsv_class>(uint64_t);
template int _fxm_tbl_remove<fxio_class>(uint64_t);

// --------------------------------------------------------------------------------------------------- of either class

template <typename Class>
static void _copy_card(const fxm_seat_t *seat, fxm_card_data_t *card, uint32_t *ignore_state)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    *ignore_state = Class::ignore_state(node);
    if (card != nullptr)
        memcpy(card, &Class::card(Class::record(node)), sizeof(*card));
}

int _fxm_get_fxdev_rid(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state, uint16_t *resource_num)
{
    if (ignore_state == nullptr) {
        fxm_log_warn("%s: Failed to _fxm_get_fxsv(). err=%d", __func__, EINVAL);
        return EPROTO;
    }
    uint16_t number = 0;
    if (const fxm_seat_t *fxsv = _fxm_tbl_seat<fxsv_class>(id); fxsv != nullptr) {
        _copy_card<fxsv_class>(fxsv, card, ignore_state);
    } else if (const fxm_seat_t *fxio = _fxm_tbl_seat<fxio_class>(id); fxio != nullptr) {
        _copy_card<fxio_class>(fxio, card, ignore_state);
        number = _fxm_node_of<fxio_class>(fxio)->fin_data.fio_mr_resource_num;
    } else {
        return ENOENT;
    }
    if (resource_num != nullptr)
        *resource_num = number;
    return 0;
}
