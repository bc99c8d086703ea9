// The counters. Called by every thread.
#include "diag/fxm_stats.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/fxm_locks.h"
#include "fxm_log4cxxif.h"

fxm_mutex_t g_stats_lock{FXM_LOCK_STATS};
fxm_stats_t g_stats;
fxm_event_t g_stats_event;

// The names of the events are indexed by kind.
static_assert([] {
    int index = 0;
    for (const int kind : {FXM_EVENT_LIST(FXM_LIST_ID)}) {
        if (kind != index++)
            return false;
    }
    return true;
}());

int _fxm_stats_init()
{
    fxm_log_info("%s: start.", __func__);
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        g_stats = {};
    }
    int err = _fxm_mutex_init_st(&g_stats_lock);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_mutex_init_st(). err=%d", __func__, err);
    } else if ((err = _fxm_event_init(&g_stats_event)) != 0) {
        fxm_log_error("%s: Failed to _fxm_event_init(). err=%d", __func__, err);
        _fxm_mutex_destroy(&g_stats_lock);
    }
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

void _fxm_stats_fini()
{
    fxm_log_info("%s: start.", __func__);
    _fxm_event_destroy(&g_stats_event);
    _fxm_mutex_destroy(&g_stats_lock);
    fxm_log_info("%s: end.", __func__);
}

int _fxm_stats_api(fxm_api_row_t row, int result)
{
    fxm_assert(row < FXM_API_ROWS && result >= 0 && result < static_cast<int>(FXM_API_CODES));
    _fxm_stats_add(&g_stats.api_total[result], &g_stats.api_detail[row][result]);
    return result;
}

void _fxm_stats_frame(uint32_t port, fxm_stats_frame_t kind, fxm_stats_frame_t total)
{
    fxm_assert(port < FXM_PORT_NUM && kind < FXM_STATS_FRAMES && total < FXM_STATS_FRAMES);
    _fxm_stats_add(&g_stats.port_frames[port][kind], &g_stats.port_frames[port][total]);
}

void *_fxm_mem_alloc(fxm_mem_t account, size_t size)
{
    void *memory = _fxm_allocate(size);
    if (memory != nullptr)
        memset(memory, 0, size);
    _fxm_stats_add(memory != nullptr ? &g_stats.mem[account].alloc : &g_stats.alloc_fail);
    return memory;
}

void _fxm_mem_free(fxm_mem_t account, void *memory)
{
    if (memory == nullptr)
        return;
    free(memory);
    _fxm_stats_add(&g_stats.mem[account].free);
}
