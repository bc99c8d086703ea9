// Event queue and callbacks. Producers are the receive threads, the interval check and the link watcher; the one
// consumer is the event task, on which every callback runs; host threads register and unregister.
#include "events/fxm_event.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <iterator>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "core/fxm_state.h"
#include "core/fxm_undo.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"

// The links of a circular, doubly linked list, first in what they link. A head or a new element links to itself.
struct fxm_list_t {
    fxm_list_t *next;
    fxm_list_t *prev;
};

struct fxm_evt_node_t {
    uint64_t evt_id;
    int32_t evt_type;
};

// Events are kept in chunks of 4 KiB, oldest first: one allocation for 255 of them, and memory that goes back when they
// have been delivered.
constexpr uint32_t FXM_EVT_CHUNK = 255;
struct fxm_evt_chunk_t {
    fxm_evt_chunk_t *evt_next;
    uint32_t first; // of the events that are still to be taken
    uint32_t end;
    fxm_evt_node_t events[FXM_EVT_CHUNK];
};

// One registration. cbi_func becomes null when a callback of the same list ends the registration, because the walk that
// called the callback still passes over it.
struct fxm_cbinfo_t {
    fxm_list_t cbi_link; // cbi_next, cbi_prev
    fxm_callback_t cbi_func;
    uint64_t cbi_arg;
    int32_t cbi_type;
    fxm_rbnode_t cbi_live; // link in live_handles
    uint64_t cbi_handle;   // the key there; the host holds it as a pointer
};

static struct {
    fxm_evt_chunk_t *first FXM_GUARDED_BY(lock); // null: the queue is empty
    fxm_evt_chunk_t *last FXM_GUARDED_BY(lock);
    // One that is empty, for the next event: while the event task keeps up, no event allocates.
    fxm_evt_chunk_t *spare FXM_GUARDED_BY(lock);
    // Guards the chunks. A thread holds it to add or take one event, or to add a batch; producers take it under fx_lock.
    // Under it only the stats lock is taken.
    fxm_mutex_t lock{FXM_LOCK_QUEUE};
} fxm_event_queue;

// Wakes the event task. The task's wait ends within EVENT_WAIT in any case, so a lost signal only delays delivery.
static fxm_event_t event_sig;
constexpr uint32_t EVENT_WAIT = 1000;

struct fxm_cb_entry_t {
    fxm_list_t head FXM_GUARDED_BY(lock); // in order of registration
    // Guards the list. The event task holds it across all callbacks of one event, so a function is no longer called once
    // its unregistration has returned on another thread. It is re-entrant, because a callback may register and
    // unregister for its own kind. Under it a thread takes handle_lock, the stats lock, and whatever a callback takes
    // through the exported functions; so it is never taken with another lock held. Only fxm_entry_guard_t takes it.
    fxm_mutex_t lock{FXM_LOCK_ENTRY};
    // The queue in front of the lock. Threads get the lock in the order of their tickets. The event task takes it for
    // each event of a backlog, and would otherwise keep a host thread waiting for the whole backlog.
    std::atomic<uint32_t> next_ticket;
    std::atomic<uint32_t> serving; // the ticket whose holder may take the lock
};
static fxm_cb_entry_t cb_evt_tbl[FXM_EVT_KINDS];

// The entry whose event this thread is delivering. Only the event task sets it, so only callbacks see it set.
static thread_local const fxm_cb_entry_t *delivering;

struct FXM_SCOPED_CAPABILITY fxm_entry_guard_t {
    explicit fxm_entry_guard_t(fxm_cb_entry_t *guarded) FXM_ACQUIRE(guarded->lock) : entry(guarded)
    {
        if (delivering == entry) { // a callback has the lock already, and those in the queue wait for it to end
            _fxm_mutex_lock(&entry->lock);
            return;
        }
        const uint32_t ticket = entry->next_ticket.fetch_add(1);
        // The wait ends when those in front have got the lock; each of them waits for one event at most.
        for (uint32_t now = entry->serving.load(); now != ticket; now = entry->serving.load())
            entry->serving.wait(now);
        _fxm_mutex_lock(&entry->lock);
        entry->serving.store(ticket + 1);
        entry->serving.notify_all();
    }
    ~fxm_entry_guard_t() FXM_RELEASE() { _fxm_mutex_unlock(&entry->lock); }
    fxm_entry_guard_t(const fxm_entry_guard_t &) = delete;
    fxm_entry_guard_t &operator=(const fxm_entry_guard_t &) = delete;
    fxm_cb_entry_t *entry;
};

// Guards live_handles and last_handle. A thread holds it for one map operation, under an entry's lock or alone, and
// takes nothing under it.
static fxm_mutex_t handle_lock{FXM_LOCK_HANDLE};
// The live registrations by handle. A handle that is not in the map was ended or never given. A handle is a number that
// never comes again in the process, so an ended one cannot name a later registration.
static fxm_rbtree_t live_handles FXM_GUARDED_BY(handle_lock);
// Handles count up from "FXM" in ASCII, so that neither a small number nor an address passes for one by chance.
static uint64_t last_handle FXM_GUARDED_BY(handle_lock) = 0x46584D00;

// ------------------------------------------------------------------------------------------------------------- lists

static void _list_init(fxm_list_t *head) { head->next = head->prev = head; }

static void _list_append(fxm_list_t *head, fxm_list_t *link)
{
    link->next = head;
    link->prev = head->prev;
    head->prev->next = link;
    head->prev = link;
}

static void _list_unlink(fxm_list_t *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    _list_init(link);
}

static fxm_cbinfo_t *_cbi_of(fxm_list_t *link) { return reinterpret_cast<fxm_cbinfo_t *>(link); }

static_assert(offsetof(fxm_cbinfo_t, cbi_link) == 0);

using live_link_t = fxm_rbtree_of<&fxm_cbinfo_t::cbi_live, &fxm_cbinfo_t::cbi_handle>;

// ----------------------------------------------------------------------------------------------- creation and release

// A place for one more event behind `*last`, or null when memory is out. `*spare` is used before the heap.
static fxm_evt_node_t *_evt_node_create(fxm_evt_chunk_t **first, fxm_evt_chunk_t **last, fxm_evt_chunk_t **spare)
{
    if (*last == nullptr || (*last)->end == FXM_EVT_CHUNK) {
        fxm_evt_chunk_t *chunk = *spare;
        if (chunk == nullptr)
            chunk = static_cast<fxm_evt_chunk_t *>(_fxm_allocate(sizeof(fxm_evt_chunk_t)));
        if (chunk == nullptr) {
            _fxm_stats_add(&g_stats.alloc_fail);
            return nullptr;
        }
        *spare = nullptr;
        chunk->evt_next = nullptr;
        chunk->first = chunk->end = 0;
        (*last != nullptr ? (*last)->evt_next : *first) = chunk;
        *last = chunk;
    }
    return &(*last)->events[(*last)->end++];
}

static fxm_cbinfo_t *_cbinfo_create(int32_t type, fxm_callback_t func, uint64_t arg)
{
    auto *info = static_cast<fxm_cbinfo_t *>(_fxm_mem_alloc(FXM_MEM_CBINFO, sizeof(fxm_cbinfo_t)));
    if (info == nullptr) {
        fxm_log_error("%s: can't alloc memory for fxm_cbinfo_t", __func__);
        return nullptr;
    }
    _list_init(&info->cbi_link);
    info->cbi_func = func;
    info->cbi_arg = arg;
    info->cbi_type = type;
    return info;
}

static void _cbinfo_destroy(fxm_cbinfo_t *info) { _fxm_mem_free(FXM_MEM_CBINFO, info); }

// --------------------------------------------------------------------------------------------------------- lifecycle

static void _destroy_entries(size_t number)
{
    while (number-- > 0)
        _fxm_mutex_destroy(&cb_evt_tbl[number].lock);
}

static int _make_entries(const char *func)
{
    size_t made = 0;
    fxm_undo_t undo_entries([&] { _destroy_entries(made); });
    for (; made < std::size(cb_evt_tbl); ++made) {
        fxm_cb_entry_t &entry = cb_evt_tbl[made];
        _list_init(&entry.head);
        entry.next_ticket.store(0);
        entry.serving.store(0);
        const int err = _fxm_mutex_init(&entry.lock);
        if (err != 0) {
            fxm_log_error("%s: Failed to _fxm_mutex_init() for cb_evt_tbl. err=%d, i=%d", func, err,
                          static_cast<int>(made));
            return err;
        }
    }
    undo_entries.keep();
    return 0;
}

// No other thread is there yet.
FXM_NO_ANALYSIS static int _event_cb_init(const char *func)
{
    fxm_event_queue.first = fxm_event_queue.last = fxm_event_queue.spare = nullptr;
    _fxm_rbtree_init(&live_handles, _fxm_rbtree_compare_u64, live_link_t::get_key);
    int err = _fxm_mutex_init_st(&fxm_event_queue.lock);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_mutex_init_st() for fxm_event_queue. err=%d", func, err);
        return err;
    }
    fxm_undo_t undo_queue([] { _fxm_mutex_destroy(&fxm_event_queue.lock); });
    err = _fxm_event_init(&event_sig);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_event_init() for event_sig. err=%d", func, err);
        return err;
    }
    fxm_undo_t undo_signal([] { _fxm_event_destroy(&event_sig); });
    err = _make_entries(func);
    if (err != 0)
        return err;
    undo_signal.keep();
    undo_queue.keep();
    return 0;
}

int _fxm_event_cb_init()
{
    fxm_log_info("%s: start.", __func__);
    const int err = _event_cb_init(__func__);
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

// Takes the oldest event; false when there is none.
static bool _take_event(fxm_evt_node_t *node)
{
    fxm_mutex_guard_t guard(&fxm_event_queue.lock);
    fxm_evt_chunk_t *chunk = fxm_event_queue.first;
    if (chunk == nullptr)
        return false;
    *node = chunk->events[chunk->first++];
    if (chunk->first < chunk->end)
        return true;
    // A chunk that is not full takes no more events once it is empty.
    fxm_event_queue.first = chunk->evt_next;
    if (fxm_event_queue.first == nullptr)
        fxm_event_queue.last = nullptr;
    if (fxm_event_queue.spare == nullptr)
        fxm_event_queue.spare = chunk;
    else
        free(chunk);
    return true;
}

// What _evt_node_create has begun: an event is counted as freed when it has been delivered or discarded.
static void _evt_node_destroy() { _fxm_stats_add(&g_stats.mem[FXM_MEM_EVT_NODE].free); }

static void _discard_events()
{
    for (fxm_evt_node_t node{}; _take_event(&node);)
        _evt_node_destroy();
    fxm_mutex_guard_t guard(&fxm_event_queue.lock);
    free(fxm_event_queue.spare);
    fxm_event_queue.spare = nullptr;
}

int _fxm_event_cb_fini()
{
    fxm_log_info("%s: start.", __func__);
    _discard_events();
    _fxm_mutex_destroy(&fxm_event_queue.lock);
    for (auto &entry : cb_evt_tbl) {
        {
            fxm_entry_guard_t guard(&entry);
            while (entry.head.next != &entry.head) {
                fxm_list_t *link = entry.head.next;
                _list_unlink(link);
                _cbinfo_destroy(_cbi_of(link));
            }
        }
        _fxm_mutex_destroy(&entry.lock);
    }
    _fxm_event_destroy(&event_sig);
    fxm_log_info("%s: end.", __func__);
    return 0;
}

// ------------------------------------------------------------------------------------------------------------- queue

int _fxm_add_event(int32_t type, uint64_t id)
{
    fxm_assert(type >= 0 && type < static_cast<int32_t>(FXM_EVT_KINDS));
    {
        fxm_mutex_guard_t guard(&fxm_event_queue.lock);
        fxm_evt_node_t *node = _evt_node_create(&fxm_event_queue.first, &fxm_event_queue.last, &fxm_event_queue.spare);
        if (node == nullptr) {
            fxm_log_error("%s: can't alloc memory for fxm_evt_node_t", __func__);
            return ENOMEM;
        }
        *node = {id, type};
        _fxm_stats_add(&g_stats.mem[FXM_MEM_EVT_NODE].alloc, &g_stats.evt_count[type]);
    }
    _fxm_event_set(&event_sig);
    return 0;
}

static void _log_lost_event(const char *func, int32_t type, uint64_t id)
{
    fxm_log_warn("%s: Failed to _fxm_add_event(%s) id=0x%.12llx", func, fxm_event_names[type], _ull(id));
}

void _fxm_raise_event(const char *func, int32_t type, uint64_t id)
{
    if (_fxm_add_event(type, id) != 0)
        _log_lost_event(func, type, id);
}

void _fxm_raise_batched(fxm_event_batch_t *batch, const char *func, int32_t type, uint64_t id)
{
    fxm_assert(type >= 0 && type < static_cast<int32_t>(FXM_EVT_KINDS));
    fxm_evt_chunk_t *spare = nullptr;
    fxm_evt_node_t *node = _evt_node_create(&batch->first, &batch->last, &spare);
    if (node != nullptr) {
        *node = {id, type};
        return;
    }
    fxm_log_error("%s: can't alloc memory for fxm_evt_node_t", "_fxm_add_event");
    _log_lost_event(func, type, id);
}

static void _count_batch(const fxm_evt_chunk_t *first)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    for (const fxm_evt_chunk_t *chunk = first; chunk != nullptr; chunk = chunk->evt_next) {
        g_stats.mem[FXM_MEM_EVT_NODE].alloc += chunk->end;
        for (uint32_t i = 0; i < chunk->end; ++i)
            g_stats.evt_count[chunk->events[i].evt_type] += 1;
    }
}

fxm_event_batch_t::~fxm_event_batch_t()
{
    if (first == nullptr)
        return;
    {
        fxm_mutex_guard_t guard(&fxm_event_queue.lock);
        (fxm_event_queue.last != nullptr ? fxm_event_queue.last->evt_next : fxm_event_queue.first) = first;
        fxm_event_queue.last = last;
        _count_batch(first);
    }
    _fxm_event_set(&event_sig);
}

// ---------------------------------------------------------------------------------------------------------- delivery

static void _fxm_do_callback(fxm_callback_t func, uint64_t arg, uint64_t id, int32_t type)
{
    fxm_log_debug("%s: start. id=0x%.12llx, event_type=%d, cb_func=%p", __func__, _ull(id), type,
                  reinterpret_cast<void *>(func));
    _fxm_stats_add(&g_stats.cb_called);
    _fxm_check_callback("a callback");
    func(id, type, arg);
    _fxm_stats_add(&g_stats.cb_returned);
    fxm_log_debug("%s: end.", __func__);
}

// Calls every registration of the event's kind, including those that a callback adds. A registration that a callback ends
// stays linked until the walk is over and is no longer called.
static void _deliver(const fxm_evt_node_t &node)
{
    auto &entry = cb_evt_tbl[node.evt_type];
    fxm_entry_guard_t guard(&entry);
    delivering = &entry;
    for (fxm_list_t *link = entry.head.next; link != &entry.head; link = link->next) {
        const fxm_cbinfo_t *info = _cbi_of(link);
        if (info->cbi_func != nullptr)
            _fxm_do_callback(info->cbi_func, info->cbi_arg, node.evt_id, node.evt_type);
    }
    delivering = nullptr;
    for (fxm_list_t *link = entry.head.next, *next = nullptr; link != &entry.head; link = next) {
        next = link->next;
        if (_cbi_of(link)->cbi_func == nullptr) {
            _list_unlink(link);
            _cbinfo_destroy(_cbi_of(link));
        }
    }
}

static void _fxm_event_dispatch()
{
    for (fxm_evt_node_t node{}; _take_event(&node);) {
        _deliver(node);
        _evt_node_destroy();
    }
}

static void _fxm_event_task_com()
{
    fxm_log_info("%s: start.", __func__);
    while (!_fxm_stopping()) {
        const int err = _fxm_event_timedwait(&event_sig, EVENT_WAIT);
        if (err != 0 && err != ETIMEDOUT) {
            fxm_log_fatal("%s: Failed to _fxm_event_timedwait(). err=%d", __func__, EPROTO);
            _fxm_fini_manager();
            break;
        }
        _fxm_event_dispatch();
    }
    // What was queued before the stop, but after the last look at the queue.
    if (internal_err.load() == 0)
        _fxm_event_dispatch();
    fxm_log_info("%s: end.", __func__);
}

void *_fxm_event_task(void *)
{
    _fxm_event_task_com();
    return nullptr;
}

// ------------------------------------------------------------------------------------------------------ registration

// The handle as the host holds it.
static void *_cbid_of(uint64_t handle) { return reinterpret_cast<void *>(static_cast<uintptr_t>(handle)); }

// *handle is for the log, because the first callback may already change the host's own variable.
static int _register_callback(const char *func, int32_t type, fxm_callback_t callback, uint64_t arg, void **cbid,
                              const void **handle)
{
    if (type < 0 || type >= static_cast<int32_t>(FXM_EVT_KINDS) || callback == nullptr || cbid == nullptr)
        return EINVAL;
    fxm_cbinfo_t *info = _cbinfo_create(type, callback, arg);
    if (info == nullptr) {
        fxm_log_error("%s: Failed to _cbinfo_create().", func);
        return ENOMEM;
    }
    fxm_entry_guard_t guard(&cb_evt_tbl[type]);
    {
        fxm_mutex_guard_t handle_guard(&handle_lock);
        info->cbi_handle = ++last_handle;
        (void)_fxm_rbtree_put(&live_handles, &info->cbi_live); // the handle is new, so this cannot fail
    }
    _list_append(&cb_evt_tbl[type].head, &info->cbi_link);
    *handle = *cbid = _cbid_of(info->cbi_handle);
    return 0;
}

int fxm_register_callback(int32_t type, fxm_callback_t func, uint64_t arg, void **cbid)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) type=%d", __func__, type);
    const void *handle = nullptr;
    const int result =
        _fxm_errno_to_result(call.running ? _register_callback(__func__, type, func, arg, cbid, &handle) : ENOSYS);
    if (result == FXM_API_SUCCESS)
        fxm_log_info("%s: (OUT) ret=%d, type=%d, cbid=%p", __func__, result, type, handle);
    else
        fxm_log_info("%s: (OUT) ret=%d, type=%d", __func__, result, type);
    return _fxm_stats_api(FXM_ROW_REGISTER_CALLBACK, result);
}

// The kind of a live handle, else -1.
static int32_t _kind_of(uint64_t handle)
{
    fxm_mutex_guard_t guard(&handle_lock);
    fxm_rbnode_t *link = _fxm_rbtree_find(&live_handles, &handle);
    return link != nullptr ? live_link_t::record(link)->cbi_type : -1;
}

// Ends a live handle and gives its registration, or null. The caller holds the entry's lock.
static fxm_cbinfo_t *_end_handle(uint64_t handle)
{
    fxm_mutex_guard_t guard(&handle_lock);
    fxm_rbnode_t *link = _fxm_rbtree_find(&live_handles, &handle);
    if (link == nullptr)
        return nullptr;
    _fxm_rbtree_delete(&live_handles, link);
    return live_link_t::record(link);
}

static int _unregister_callback(const void *cbid)
{
    const uint64_t handle = reinterpret_cast<uintptr_t>(cbid);
    const int32_t type = _kind_of(handle);
    if (type < 0)
        return EINVAL;
    fxm_cb_entry_t *entry = &cb_evt_tbl[type];
    fxm_entry_guard_t guard(entry);
    // Looked up again, because a callback or another thread may have ended it while this thread waited for the entry.
    fxm_cbinfo_t *info = _end_handle(handle);
    if (info == nullptr)
        return EINVAL;
    if (delivering == entry) {
        info->cbi_func = nullptr; // called from a callback of this list: the walk frees it
        return 0;
    }
    _list_unlink(&info->cbi_link);
    _cbinfo_destroy(info);
    return 0;
}

int fxm_unregister_callback(void *cbid)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) cbid=%p", __func__, cbid);
    const int result = _fxm_errno_to_result(call.running ? _unregister_callback(cbid) : ENOSYS);
    fxm_log_info("%s: (OUT) ret=%d", __func__, result);
    return _fxm_stats_api(FXM_ROW_UNREGISTER_CALLBACK, result);
}
