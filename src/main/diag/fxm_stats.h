// All counters of the library, in one record under one lock. Every thread counts, host threads included.
#ifndef FXM_STATS_H
#define FXM_STATS_H

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "fxm.h"
#include "platform/fxm_platform.h"

// Each list below is the one place of its enumeration and of the names that the dump prints, in the order of the dump.
#define FXM_LIST_ID(id, ...)    id,
#define FXM_LIST_NAME(id, name) name,
#define FXM_LIST_ID_NAME(id)    #id,

// Frame counters of a port, received frames first.
#define FXM_STATS_FRAME_LIST(X)                                                                                        \
    X(FXM_STATS_R_TOTAL)                                                                                               \
    X(FXM_STATS_R_DEV)                                                                                                 \
    X(FXM_STATS_R_DEV40)                                                                                               \
    X(FXM_STATS_R_NOTI)                                                                                                \
    X(FXM_STATS_R_NOTI40)                                                                                              \
    X(FXM_STATS_R_COMP)                                                                                                \
    X(FXM_STATS_T_TOTAL)                                                                                               \
    X(FXM_STATS_T_VLANSET)                                                                                             \
    X(FXM_STATS_T_REGR)                                                                                                \
    X(FXM_STATS_T_REGW)                                                                                                \
    X(FXM_STATS_T_RESET)                                                                                               \
    X(FXM_STATS_T_MMS)
enum fxm_stats_frame_t { FXM_STATS_FRAME_LIST(FXM_LIST_ID) FXM_STATS_FRAMES };
inline constexpr const char *fxm_frame_names[] = {FXM_STATS_FRAME_LIST(FXM_LIST_ID_NAME)};

// Rows of the results by exported function.
#define FXM_API_ROW_LIST(X)                                                                                            \
    X(FXM_ROW_GET_FXSVIDS, "fxm_get_fxsvids()")                                                                        \
    X(FXM_ROW_GET_UPDATE_FXSVIDS, "fxm_get_update_fxsvids()")                                                          \
    X(FXM_ROW_GET_GROUP_FXSVIDS, "fxm_get_group_fxsvids()")                                                            \
    X(FXM_ROW_GET_FXIOIDS, "fxm_get_fxioids()")                                                                        \
    X(FXM_ROW_GET_UPDATE_FXIOIDS, "fxm_get_update_fxioids()")                                                          \
    X(FXM_ROW_GET_GROUP_FXIOIDS, "fxm_get_group_fxioids()")                                                            \
    X(FXM_ROW_GET_FXSV, "fxm_get_fxsv()")                                                                              \
    X(FXM_ROW_GET_FXIO, "fxm_get_fxio()")                                                                              \
    X(FXM_ROW_DELETE_FXSV, "fxm_delete_fxsv()")                                                                        \
    X(FXM_ROW_DELETE_FXIO, "fxm_delete_fxio()")                                                                        \
    X(FXM_ROW_SET_VLANID, "fxm_set_vlanid()")                                                                          \
    X(FXM_ROW_SEND_RESETFRAME, "fxm_send_resetframe()")                                                                \
    X(FXM_ROW_WRITE_MMSPAGE, "fxm_write_mmspage()")                                                                    \
    X(FXM_ROW_READ_REGISTER, "fxm_read_register()")                                                                    \
    X(FXM_ROW_WRITE_REGISTER, "fxm_write_register()")                                                                  \
    X(FXM_ROW_MODIFY_REGISTER, "fxm_modify_register()")                                                                \
    X(FXM_ROW_DUMP_REGISTER, "fxm_dump_register()")                                                                    \
    X(FXM_ROW_READ_EEPROM, "fxm_read_eeprom()")                                                                        \
    X(FXM_ROW_WRITE_EEPROM, "fxm_write_eeprom()")                                                                      \
    X(FXM_ROW_DUMP_EEPROM, "fxm_dump_eeprom()")                                                                        \
    X(FXM_ROW_UNLOCK_EEPROM, "fxm_unlock_eeprom()")                                                                    \
    X(FXM_ROW_STOP_MONITOR, "fxm_stop_monitor()")                                                                      \
    X(FXM_ROW_RESTART_MONITOR, "fxm_restart_monitor()")                                                                \
    X(FXM_ROW_REGISTER_CALLBACK, "fxm_register_callback()")                                                            \
    X(FXM_ROW_UNREGISTER_CALLBACK, "fxm_unregister_callback()")                                                        \
    X(FXM_ROW_FREE_IDLIST, "fxm_free_idlist()")                                                                        \
    X(FXM_ROW_SET_LOGLEVEL, "fxm_set_loglevel()")                                                                      \
    X(FXM_ROW_INIT_MANAGER, "fxm_init_manager()")                                                                      \
    X(FXM_ROW_START_MANAGER, "fxm_start_manager()")                                                                    \
    X(FXM_ROW_FINI_MANAGER, "fxm_fini_manager()")                                                                      \
    X(FXM_ROW_STDUMP, "fxm_stdump()")
enum fxm_api_row_t { FXM_API_ROW_LIST(FXM_LIST_ID) FXM_API_ROWS };
inline constexpr const char *fxm_row_names[] = {FXM_API_ROW_LIST(FXM_LIST_NAME)};

// Memory accounts.
#define FXM_MEM_LIST(X)                                                                                                \
    X(FXM_MEM_FXSV, "fxsv")                                                                                            \
    X(FXM_MEM_FXIO, "fxio")                                                                                            \
    X(FXM_MEM_BL_NODE, "bl_node")                                                                                      \
    X(FXM_MEM_EVT_NODE, "evt_node")                                                                                    \
    X(FXM_MEM_WREG_NODE, "wreg_node")                                                                                  \
    X(FXM_MEM_IDLIST, "idlist")                                                                                        \
    X(FXM_MEM_CBINFO, "cbinfo")                                                                                        \
    X(FXM_MEM_ADDRS, "addrs")
enum fxm_mem_t { FXM_MEM_LIST(FXM_LIST_ID) FXM_MEMS };
inline constexpr const char *fxm_mem_names[] = {FXM_MEM_LIST(FXM_LIST_NAME)};

// Event kinds. Their enumeration is in the public header.
#define FXM_EVENT_LIST(X)                                                                                              \
    X(FXM_EVT_NEWDEVINFO)                                                                                              \
    X(FXM_EVT_UPDATEDEVINFO)                                                                                           \
    X(FXM_EVT_CONNECTIONCHANGE)                                                                                        \
    X(FXM_EVT_MAJORMINORERROR)                                                                                         \
    X(FXM_EVT_PATHSTATECHANGE)                                                                                         \
    X(FXM_EVT_CHANNELSTATECHANGE)
inline constexpr const char *fxm_event_names[] = {FXM_EVENT_LIST(FXM_LIST_ID_NAME)};
constexpr uint32_t FXM_EVT_KINDS = std::size(fxm_event_names);

struct fxm_stats_t {
    uint64_t port_frames[FXM_PORT_NUM][FXM_STATS_FRAMES];
    uint64_t api_total[FXM_API_CODES];
    uint64_t api_detail[FXM_API_ROWS][FXM_API_CODES];
    uint64_t evt_count[FXM_EVT_KINDS]; // queued, not delivered
    uint32_t alloc_fail;               // of all accounts together; not printed
    struct {
        uint32_t alloc;
        uint32_t free;
    } mem[FXM_MEMS];
    uint32_t cb_called;
    uint32_t cb_returned;
    uint32_t port_total_down[FXM_PORT_NUM];
};

// Guards g_stats. Every thread that counts takes it briefly, under any other lock, and takes no lock under it. The status
// dump holds it for one section at a time. The lock outlives a stop: a call before the first start or after a stop is
// counted under it like any other, and the next start clears that count.
extern fxm_mutex_t g_stats_lock;
extern fxm_stats_t g_stats FXM_GUARDED_BY(g_stats_lock);

// Wakes the stats task before its interval is over. The stop signals it for the last dump.
extern fxm_event_t g_stats_event;

[[nodiscard]] int _fxm_stats_init(); // 0 or EPROTO
void _fxm_stats_fini();

// Adds 1 to each counter, in the order given, under one holding of the lock.
template <typename... Counter> void _fxm_stats_add(Counter *...counter) FXM_EXCLUDES(g_stats_lock)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    ((*counter += 1), ...);
}

// The two counts that end every exported function. Returns `result`.
int _fxm_stats_api(fxm_api_row_t row, int result);

// Counts a frame that was received or sent: the counter of its kind first, then the total.
void _fxm_stats_frame(uint32_t port, fxm_stats_frame_t kind, fxm_stats_frame_t total);

// Zeroed heap memory of an account, or null when memory is out. Each kind of heap object has one create and one destroy
// function, which alone call these two.
[[nodiscard]] void *_fxm_mem_alloc(fxm_mem_t account, size_t size);
void _fxm_mem_free(fxm_mem_t account, void *memory); // null is ignored and not counted

#endif
