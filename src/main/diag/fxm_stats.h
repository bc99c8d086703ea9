// All counters of the library, in one record under one lock. Every thread counts, host threads included.
#ifndef FXM_STATS_H
#define FXM_STATS_H

#include <cstddef>
#include <cstdint>

#include "core/fxm_config.h"
#include "platform/fxm_platform.h"

// Frame counters of a port, received then sent. The dump prints these names.
enum fxm_stats_frame_t {
    FXM_STATS_R_TOTAL,
    FXM_STATS_R_DEV,
    FXM_STATS_R_DEV40,
    FXM_STATS_R_NOTI,
    FXM_STATS_R_NOTI40,
    FXM_STATS_R_COMP,
    FXM_STATS_T_TOTAL,
    FXM_STATS_T_VLANSET,
    FXM_STATS_T_REGR,
    FXM_STATS_T_REGW,
    FXM_STATS_T_RESET,
    FXM_STATS_T_MMS,
    FXM_STATS_FRAMES
};

// Rows of the results by exported function, in the order of the dump.
enum fxm_api_row_t {
    FXM_ROW_GET_FXSVIDS,
    FXM_ROW_GET_UPDATE_FXSVIDS,
    FXM_ROW_GET_GROUP_FXSVIDS,
    FXM_ROW_GET_FXIOIDS,
    FXM_ROW_GET_UPDATE_FXIOIDS,
    FXM_ROW_GET_GROUP_FXIOIDS,
    FXM_ROW_GET_FXSV,
    FXM_ROW_GET_FXIO,
    FXM_ROW_DELETE_FXSV,
    FXM_ROW_DELETE_FXIO,
    FXM_ROW_SET_VLANID,
    FXM_ROW_SEND_RESETFRAME,
    FXM_ROW_WRITE_MMSPAGE,
    FXM_ROW_READ_REGISTER,
    FXM_ROW_WRITE_REGISTER,
    FXM_ROW_MODIFY_REGISTER,
    FXM_ROW_DUMP_REGISTER,
    FXM_ROW_READ_EEPROM,
    FXM_ROW_WRITE_EEPROM,
    FXM_ROW_DUMP_EEPROM,
    FXM_ROW_UNLOCK_EEPROM,
    FXM_ROW_STOP_MONITOR,
    FXM_ROW_RESTART_MONITOR,
    FXM_ROW_REGISTER_CALLBACK,
    FXM_ROW_UNREGISTER_CALLBACK,
    FXM_ROW_FREE_IDLIST,
    FXM_ROW_SET_LOGLEVEL,
    FXM_ROW_INIT_MANAGER,
    FXM_ROW_START_MANAGER,
    FXM_ROW_FINI_MANAGER,
    FXM_ROW_STDUMP,
    FXM_API_ROWS
};

// Memory accounts, in the order of the dump.
enum fxm_mem_t {
    FXM_MEM_FXSV,
    FXM_MEM_FXIO,
    FXM_MEM_BL_NODE,
    FXM_MEM_EVT_NODE,
    FXM_MEM_WREG_NODE,
    FXM_MEM_IDLIST,
    FXM_MEM_CBINFO,
    FXM_MEM_ADDRS,
    FXM_MEMS
};

constexpr uint32_t FXM_API_CODES = 10;
constexpr uint32_t FXM_EVT_KINDS = 6;

struct fxm_stats_t {
    uint64_t port_frames[FXM_PORT_NUM][FXM_STATS_FRAMES];
    uint64_t api_total[FXM_API_CODES];
    uint64_t api_detail[FXM_API_ROWS][FXM_API_CODES];
    uint64_t evt_count[FXM_EVT_KINDS]; // queued, not delivered
    uint32_t alloc_fail;               // of all accounts together; printed nowhere
    struct {
        uint32_t alloc;
        uint32_t free;
    } mem[FXM_MEMS];
    uint32_t cb_called;
    uint32_t cb_returned;
    uint32_t port_total_down[FXM_PORT_NUM];
};

// Guards g_stats. Taken last in every order and briefly, by whoever counts, under any other lock; nothing is taken
// under it. The status dump holds it for one section at a time. It outlives a stop, so a call that is counted before
// the first start or after a stop counts under it like any other, and the next start wipes the figure.
extern fxm_mutex_t g_stats_lock;
extern fxm_stats_t g_stats;

// Wakes the stats task out of turn: the stop's last dump.
extern fxm_event_t g_stats_event;

int _fxm_stats_init(); // 0 or EPROTO
void _fxm_stats_fini();

template <typename Counter> void _fxm_stats_add(Counter *counter)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    *counter += 1;
}

// The two counts that end every exported function; gives back `result`.
int _fxm_stats_api(fxm_api_row_t row, int result);

// A frame received or sent: its kind's counter, then the total.
void _fxm_stats_frame(uint32_t port, fxm_stats_frame_t kind, fxm_stats_frame_t total);

// Heap memory of an account, zeroed; null when there is none. Each kind of heap object has one create and one destroy
// function, and these two stand in them.
void *_fxm_mem_alloc(fxm_mem_t account, size_t size);
void _fxm_mem_free(fxm_mem_t account, void *memory); // null is ignored and not counted

#endif
