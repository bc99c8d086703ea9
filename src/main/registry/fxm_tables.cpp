// The card tables. Runs under fx_lock on the threads of those who hold it.
#include "registry/fxm_tables.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fxm_log4cxxif.h"

// Records are compared and copied as bytes, so the host's and the library's idea of them must agree to the byte.
static_assert(sizeof(fxm_card_data_t) == 104);
static_assert(sizeof(fxm_pci_config_t) == 20);
static_assert(sizeof(fxm_down_port_t) == 28);
static_assert(sizeof(fxm_fxsv_t) == 576);
static_assert(sizeof(fxm_fxio_t) == 128);
// The key is the first word of a node in both classes.
static_assert(offsetof(fxm_fxsv_node_t, fsn_data.fsv_card.fcd_id) == 0);
static_assert(offsetof(fxm_fxio_node_t, fin_data.fio_card.fcd_id) == 0);

fxm_fx_tbl_t fxm_fx_tbl;

template <typename Class> static const void *_get_key(const fxm_rbnode_t *link)
{
    return reinterpret_cast<const uint8_t *>(link) - Class::link_offset;
}

static uint32_t *_group(uint32_t *groups, uint16_t vlan_id)
{
    return &groups[std::min<uint32_t>(vlan_id, FXM_GROUPS - 1)];
}

// ------------------------------------------------------------------------------------------------------------- nodes

template <typename Class>
static typename Class::node_t *_node_create(const typename Class::record_t *record, uint32_t ignore_state)
{
    auto *node = static_cast<typename Class::node_t *>(_fxm_mem_alloc(Class::account, sizeof(typename Class::node_t)));
    if (node == nullptr)
        return nullptr;
    memcpy(&Class::record(node), record, sizeof(*record));
    Class::ignore_state(node) = ignore_state;
    return node;
}

static fxm_fxsv_node_t *_fxsv_node_create(const fxm_fxsv_t *record, uint32_t ignore_state)
{
    return _node_create<fxsv_class>(record, ignore_state);
}

static fxm_fxio_node_t *_fxio_node_create(const fxm_fxio_t *record, uint32_t ignore_state)
{
    return _node_create<fxio_class>(record, ignore_state);
}

static void _fxsv_node_destroy(fxm_fxsv_node_t *node) { _fxm_mem_free(FXM_MEM_FXSV, node); }

static void _fxio_node_destroy(fxm_fxio_node_t *node) { _fxm_mem_free(FXM_MEM_FXIO, node); }

// --------------------------------------------------------------------------------------------------------- lifecycle

int _fxm_fx_init()
{
    fxm_log_info("%s: start.", __func__);
    _fxm_rbtree_init(&fxm_fx_tbl.fxsv_map, _fxm_rbtree_compare_u64, _get_key<fxsv_class>);
    _fxm_rbtree_init(&fxm_fx_tbl.fxio_map, _fxm_rbtree_compare_u64, _get_key<fxio_class>);
    fxm_fx_tbl.fxsv_total = fxm_fx_tbl.fxio_total = 0;
    std::fill_n(fxm_fx_tbl.fxsv_group_num, FXM_GROUPS, 0u);
    std::fill_n(fxm_fx_tbl.fxio_group_num, FXM_GROUPS, 0u);
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
    _fxm_rbtree_clear(&fxm_fx_tbl.fxsv_map,
                      [](fxm_rbnode_t *link) { _fxsv_node_destroy(_fxm_node_of<fxsv_class>(link)); });
    _fxm_rbtree_clear(&fxm_fx_tbl.fxio_map,
                      [](fxm_rbnode_t *link) { _fxio_node_destroy(_fxm_node_of<fxio_class>(link)); });
    fxm_fx_tbl.fxsv_total = fxm_fx_tbl.fxio_total = 0;
    std::fill_n(fxm_fx_tbl.fxsv_group_num, FXM_GROUPS, 0u);
    std::fill_n(fxm_fx_tbl.fxio_group_num, FXM_GROUPS, 0u);
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
static int _get(uint64_t id, typename Class::record_t *record, uint32_t *ignore_state, uint32_t flags)
{
    if (((flags & FXM_TBL_RECORD) != 0 && record == nullptr) ||
        ((flags & FXM_TBL_IGNORE_STATE) != 0 && ignore_state == nullptr) || (flags & FXM_TBL_CHECK_COUNT) != 0)
        return EINVAL;
    typename Class::node_t *node = _fxm_find_node<Class>(id);
    if (node == nullptr)
        return ENOENT;
    if ((flags & FXM_TBL_RECORD) != 0)
        memcpy(record, &Class::record(node), sizeof(*record));
    if ((flags & FXM_TBL_IGNORE_STATE) != 0)
        *ignore_state = Class::ignore_state(node);
    return 0;
}

int _fxm_get_fxsv(uint64_t id, fxm_fxsv_t *record, uint32_t *ignore_state, uint32_t flags)
{
    return _get<fxsv_class>(id, record, ignore_state, flags);
}

int _fxm_get_fxio(uint64_t id, fxm_fxio_t *record, uint32_t *ignore_state, uint32_t flags)
{
    return _get<fxio_class>(id, record, ignore_state, flags);
}

// ------------------------------------------------------------------------------------------------ add, update and set

template <typename Class, typename Create, typename Destroy>
static int _add(const char *func, uint64_t id, const typename Class::record_t *record, uint32_t ignore_state,
                uint32_t flags, Create create, Destroy destroy)
{
    if ((flags & FXM_TBL_ALL) != FXM_TBL_ALL)
        return EINVAL;
    typename Class::node_t *node = create(record, ignore_state);
    if (node == nullptr)
        return ENOMEM;
    const int err = _fxm_rbtree_put(&Class::map(), &Class::link(node));
    if (err != 0) {
        fxm_log_warn("%s: Failed to _fxm_rbtree_put(). err=%d, id=0x%.12llx", func, err, _ull(id));
        destroy(node);
        return EPROTO;
    }
    Class::total() += 1;
    *_group(Class::groups(), Class::card(*record).fcd_vlan_id) += 1;
    return 0;
}

static int _fxm_add_fxsv(uint64_t id, const fxm_fxsv_t *record, uint32_t ignore_state, uint32_t flags)
{
    return _add<fxsv_class>(__func__, id, record, ignore_state, flags, _fxsv_node_create, _fxsv_node_destroy);
}

static int _fxm_add_fxio(uint64_t id, const fxm_fxio_t *record, uint32_t ignore_state, uint32_t flags)
{
    return _add<fxio_class>(__func__, id, record, ignore_state, flags, _fxio_node_create, _fxio_node_destroy);
}

template <typename Class>
static void _update(typename Class::node_t *node, const typename Class::record_t *record, uint32_t ignore_state,
                    uint32_t flags)
{
    if ((flags & FXM_TBL_RECORD) != 0) {
        const uint16_t from = Class::card(Class::record(node)).fcd_vlan_id;
        const uint16_t to = Class::card(*record).fcd_vlan_id;
        memcpy(&Class::record(node), record, sizeof(*record));
        if (from != to) {
            *_group(Class::groups(), from) -= 1;
            *_group(Class::groups(), to) += 1;
        }
    }
    if ((flags & FXM_TBL_IGNORE_STATE) != 0)
        Class::ignore_state(node) = ignore_state;
    if ((flags & FXM_TBL_CHECK_COUNT) != 0)
        Class::check_count(node) = 0;
}

static void _fxm_update_fxsv(fxm_fxsv_node_t *node, const fxm_fxsv_t *record, uint32_t ignore_state, uint32_t flags)
{
    _update<fxsv_class>(node, record, ignore_state, flags);
}

static void _fxm_update_fxio(fxm_fxio_node_t *node, const fxm_fxio_t *record, uint32_t ignore_state, uint32_t flags)
{
    _update<fxio_class>(node, record, ignore_state, flags);
}

template <typename Class, typename Update, typename Add>
static int _set(const char *func, uint64_t id, const typename Class::record_t *record, uint32_t ignore_state,
                uint32_t flags, Update update, Add add)
{
    if ((flags & FXM_TBL_RECORD) != 0 && record == nullptr)
        return EINVAL;
    typename Class::node_t *node = _fxm_find_node<Class>(id);
    if (node != nullptr) {
        update(node, record, ignore_state, flags);
        return 0;
    }
    const int err = add(id, record, ignore_state, flags);
    if (err != 0)
        fxm_log_trace("%s: Failed to %s(). err=%d, id=0x%.12llx", func, Class::add_name, err, _ull(id));
    return err;
}

int _fxm_set_fxsv(uint64_t id, const fxm_fxsv_t *record, uint32_t ignore_state, uint32_t flags)
{
    return _set<fxsv_class>(__func__, id, record, ignore_state, flags, _fxm_update_fxsv, _fxm_add_fxsv);
}

int _fxm_set_fxio(uint64_t id, const fxm_fxio_t *record, uint32_t ignore_state, uint32_t flags)
{
    return _set<fxio_class>(__func__, id, record, ignore_state, flags, _fxm_update_fxio, _fxm_add_fxio);
}

// ------------------------------------------------------------------------------------------------------------ remove

template <typename Class, typename Destroy> static int _remove(uint64_t id, Destroy destroy)
{
    typename Class::node_t *node = _fxm_find_node<Class>(id);
    if (node == nullptr)
        return ENOENT;
    _fxm_rbtree_delete(&Class::map(), &Class::link(node));
    const uint16_t vlan_id = Class::card(Class::record(node)).fcd_vlan_id;
    destroy(node);
    Class::total() -= 1;
    *_group(Class::groups(), vlan_id) -= 1;
    return 0;
}

int _fxm_remove_fxsv(uint64_t id) { return _remove<fxsv_class>(id, _fxsv_node_destroy); }

int _fxm_remove_fxio(uint64_t id) { return _remove<fxio_class>(id, _fxio_node_destroy); }

// --------------------------------------------------------------------------------------------------- of either class

int _fxm_get_fxdev_rid(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state, uint16_t *resource_num)
{
    constexpr uint32_t flags = FXM_TBL_RECORD | FXM_TBL_IGNORE_STATE;
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    const fxm_card_data_t *found = &fxsv.fsv_card;
    uint16_t number = 0;
    int err = _fxm_get_fxsv(id, &fxsv, ignore_state, flags);
    if (err == ENOENT) {
        err = _fxm_get_fxio(id, &fxio, ignore_state, flags);
        if (err == ENOENT)
            return ENOENT;
        if (err != 0) {
            fxm_log_warn("%s: Failed to _fxm_get_fxio(). err=%d", __func__, err);
            return EPROTO;
        }
        found = &fxio.fio_card;
        number = fxio.fio_mr_resource_num;
    } else if (err != 0) {
        fxm_log_warn("%s: Failed to _fxm_get_fxsv(). err=%d", __func__, err);
        return EPROTO;
    }
    if (resource_num != nullptr)
        *resource_num = number;
    if (card != nullptr)
        memcpy(card, found, sizeof(*card));
    return 0;
}
