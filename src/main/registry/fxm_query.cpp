// The host's view of the registry: one record, lists of ids, and the removal of a card. Runs on host threads, also from
// within callbacks. Each look-up or walk holds fx_lock from its first step to its last and returns copies.
#include <cerrno>
#include <cstdint>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

// -------------------------------------------------------------------------------------------------------- one record

template <typename Class>
static int _get_api(const char *func, fxm_api_row_t row, uint64_t id, typename Class::record_t *out)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx", func, _ull(id));
    int err = 0;
    if (!call.running) {
        err = ENOSYS;
    } else if (out == nullptr) {
        err = EINVAL;
    } else {
        fxm_fx_guard_t guard;
        err = _fxm_tbl_get<Class>(id, out, nullptr, FXM_TBL_RECORD);
    }
    const int result = _fxm_errno_to_result(err);
    fxm_log_info("%s: (OUT). ret=%d id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(row, result);
}

int fxm_get_fxsv(uint64_t id, fxm_fxsv_t *out) { return _get_api<fxsv_class>(__func__, FXM_ROW_GET_FXSV, id, out); }

int fxm_get_fxio(uint64_t id, fxm_fxio_t *out) { return _get_api<fxio_class>(__func__, FXM_ROW_GET_FXIO, id, out); }

// ------------------------------------------------------------------------------------------------------------ delete

template <typename Class> static int _delete_api(const char *func, fxm_api_row_t row, uint64_t id)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx", func, _ull(id));
    int err = ENOSYS;
    if (call.running) {
        fxm_fx_guard_t guard;
        err = _fxm_tbl_remove<Class>(id);
    }
    const int result = _fxm_errno_to_result(err);
    fxm_log_info("%s: (OUT). ret=%d id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(row, result);
}

int fxm_delete_fxsv(uint64_t id) { return _delete_api<fxsv_class>(__func__, FXM_ROW_DELETE_FXSV, id); }

int fxm_delete_fxio(uint64_t id) { return _delete_api<fxio_class>(__func__, FXM_ROW_DELETE_FXIO, id); }

// ---------------------------------------------------------------------------------------------------------- id lists

// The three selections of cards. `expected` counts the matching cards before the walk that lists them.
struct all_cards_t {
    template <typename Class> uint32_t expected() const FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return Class::total(); }
};

struct updated_since_t {
    uint64_t time;
    bool matches(const fxm_card_data_t &card) const { return card.fcd_updatetime >= time; }
    template <typename Class> uint32_t expected() const FXM_REQUIRES(fxm_fx_tbl.fx_lock)
    {
        uint32_t matching = 0;
        _fxm_each_node<Class>([&](typename Class::node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
            matching += matches(Class::card(Class::record(node))) ? 1 : 0;
            return true;
        });
        return matching;
    }
};

struct group_t {
    uint16_t id;
    bool matches(const fxm_card_data_t &card) const { return card.fcd_vlan_id == id; }
    template <typename Class> uint32_t expected() const FXM_REQUIRES(fxm_fx_tbl.fx_lock) { return Class::groups()[id]; }
};

static uint64_t *_idlist_create(uint32_t entries)
{
    return static_cast<uint64_t *>(_fxm_mem_alloc(FXM_MEM_IDLIST, sizeof(uint64_t) * entries));
}

static void _idlist_destroy(uint64_t *list) { _fxm_mem_free(FXM_MEM_IDLIST, list); }

// Writes the ids of the selected cards, `entries` of them at most, and returns their number.
template <typename Class, typename Selection>
static uint32_t _write_ids(const char *func, const Selection &selection, uint64_t *ids, uint32_t entries)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    uint32_t written = 0;
    _fxm_each_node<Class>([&](typename Class::node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        const fxm_card_data_t &card = Class::card(Class::record(node));
        if (!selection.matches(card))
            return true;
        if (written == entries) {
            fxm_log_warn("%s: Get ID more than allocate size. num_tmp=%d", func, static_cast<int>(entries));
            return false;
        }
        ids[written++] = card.fcd_id;
        return true;
    });
    return written;
}

// All of them stand in the roster; no node is read.
template <typename Class>
static uint32_t _write_ids(const char *, const all_cards_t &, uint64_t *ids, uint32_t entries)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_assert(Class::roster().count == entries);
    _fxm_roster_ids(&Class::roster(), ids);
    return entries;
}

// Count and walk run under one holding of fx_lock, so that they agree.
template <typename Class, typename Selection>
static int _list_ids(const char *func, const Selection &selection, uint64_t **list, uint32_t *count)
    FXM_EXCLUDES(fxm_fx_tbl.fx_lock)
{
    const uint32_t limit = *count != 0 ? *count : g_config.id_list_upper_limit;
    fxm_fx_guard_t guard;
    const uint32_t entries = selection.template expected<Class>();
    if (entries == 0) {
        *list = nullptr;
        *count = 0;
        return 0;
    }
    if (limit < entries) {
        *count = entries;
        return ERANGE;
    }
    uint64_t *ids = _idlist_create(entries);
    if (ids == nullptr)
        return ENOMEM;
    *count = _write_ids<Class>(func, selection, ids, entries);
    *list = ids;
    return 0;
}

// The exported queries without a group.
template <typename Class, typename Selection>
static int _ids_api(const char *func, fxm_api_row_t row, const Selection &selection, uint64_t **list, uint32_t *count)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN)", func);
    int err = 0;
    if (!call.running)
        err = ENOSYS;
    else if (list == nullptr || count == nullptr)
        err = EINVAL;
    else
        err = _list_ids<Class>(func, selection, list, count);
    const int result = _fxm_errno_to_result(err);
    fxm_log_info("%s: (OUT) ret=%d", func, result);
    return _fxm_stats_api(row, result);
}

template <typename Class>
static int _group_ids_api(const char *func, fxm_api_row_t row, uint16_t groupid, uint64_t **list, uint32_t *count)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) groupid=%u", func, groupid);
    int err = 0;
    if (!call.running)
        err = ENOSYS;
    else if (list == nullptr || count == nullptr || groupid < FXM_GROUP_FIRST || groupid > FXM_GROUP_LAST)
        err = EINVAL;
    else
        err = _list_ids<Class>(func, group_t{groupid}, list, count);
    const int result = _fxm_errno_to_result(err);
    fxm_log_info("%s: (OUT) ret=%d, groupid=%u", func, result, groupid);
    return _fxm_stats_api(row, result);
}

int fxm_get_fxsvids(uint64_t **list, uint32_t *count)
{
    return _ids_api<fxsv_class>(__func__, FXM_ROW_GET_FXSVIDS, all_cards_t{}, list, count);
}

int fxm_get_fxioids(uint64_t **list, uint32_t *count)
{
    return _ids_api<fxio_class>(__func__, FXM_ROW_GET_FXIOIDS, all_cards_t{}, list, count);
}

int fxm_get_update_fxsvids(uint64_t time, uint64_t **list, uint32_t *count)
{
    return _ids_api<fxsv_class>(__func__, FXM_ROW_GET_UPDATE_FXSVIDS, updated_since_t{time}, list, count);
}

int fxm_get_update_fxioids(uint64_t time, uint64_t **list, uint32_t *count)
{
    return _ids_api<fxio_class>(__func__, FXM_ROW_GET_UPDATE_FXIOIDS, updated_since_t{time}, list, count);
}

int fxm_get_group_fxsvids(uint16_t groupid, uint64_t **list, uint32_t *count)
{
    return _group_ids_api<fxsv_class>(__func__, FXM_ROW_GET_GROUP_FXSVIDS, groupid, list, count);
}

int fxm_get_group_fxioids(uint16_t groupid, uint64_t **list, uint32_t *count)
{
    return _group_ids_api<fxio_class>(__func__, FXM_ROW_GET_GROUP_FXIOIDS, groupid, list, count);
}

int fxm_free_idlist(uint64_t *list)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN)", __func__);
    _idlist_destroy(list);
    fxm_log_info("%s: (OUT) ret=%d", __func__, FXM_API_SUCCESS);
    return _fxm_stats_api(FXM_ROW_FREE_IDLIST, FXM_API_SUCCESS);
}
