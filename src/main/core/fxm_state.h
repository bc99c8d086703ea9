// Shared by all exported functions and workers: the state words, the count of calls in progress, the mapping of internal
// errors to result codes, and the internal-error stop.
#ifndef FXM_STATE_H
#define FXM_STATE_H

#include <atomic>
#include <cstdint>

#include "fxm.h"
#include "platform/fxm_platform.h"

constexpr int FXM_ON = 0;
constexpr int FXM_OFF = 1;

// Process-wide words that every thread reads and writes without a lock. They are sequentially consistent: a call counts
// itself in and then reads the flags, the stop sets a flag and then reads the count, and one of the two must see the
// other.
extern std::atomic<int> g_init_flag;  // ON from the moment all workers run until the end of the tear-down
extern std::atomic<int> g_start_flag; // ON after fxm_start_manager; while OFF every received frame is dropped
extern std::atomic<int> g_fini_flag;  // ON: stop. Every loop of the library runs only while it is OFF
extern std::atomic<int> g_init_guard; // 1 free, 0 a start-up is under way
extern std::atomic<int> internal_err; // EPROTO after an internal-error stop, else 0

// The receive threads and the link watcher wait on it beside their own source. It is auto-reset and signalled once in a
// stop, so it wakes one of them; the others end when their wait runs out, after at most 1000 ms.
extern fxm_event_t g_terminate_event;
constexpr uint32_t FXM_WORKER_WAIT = 1000;

[[nodiscard]] int _fxm_terminate_event_create(); // 0 or EPROTO

inline bool _fxm_stopping() { return g_fini_flag.load() == FXM_ON; }

// A call of an exported function, from its entry to its return. The tear-down closes ports, tables and locks only when no
// call is in progress (_fxm_wait_calls), so a call that has found the library running may use them until it returns. A
// call that has not found it running is not counted: it uses only what outlives a stop, and hosts that keep calling must
// not delay the tear-down.
struct fxm_call_t {
    fxm_call_t();
    ~fxm_call_t();
    fxm_call_t(const fxm_call_t &) = delete;
    fxm_call_t &operator=(const fxm_call_t &) = delete;
    bool running; // the test of the state at entry
};

// Waits until every call has returned. With g_fini_flag ON each wait inside a call ends within FXM_STOP_SLICE.
void _fxm_wait_calls();

// Sleeps on behalf of a call. Returns ENOSYS as soon as the library is stopping, which cuts the sleep short, else 0. No
// wait of a call outlives the stop by more than a slice.
constexpr uint32_t FXM_STOP_SLICE = 100;
[[nodiscard]] int _fxm_sleep(uint32_t ms);

// The result codes, indexed by their values: the name that the status dump prints and the internal error of each.
struct fxm_result_t {
    int code;
    int err;
    const char *name;
};
constexpr uint32_t FXM_API_CODES = FXM_API_ENOSYS + 1;
extern const fxm_result_t fxm_results[FXM_API_CODES];

[[nodiscard]] int _fxm_errno_to_result(int err); // FXM_API_EPROTO for every error that is not in the list

// The internal-error stop, for any thread of the library.
void _fxm_fini_manager();

#endif
