// State words, calls in progress, result mapping. Used by every thread.
#include "core/fxm_state.h"

#include <algorithm>
#include <cerrno>

#include "fxm_log4cxxif.h"

std::atomic<int> g_init_flag{FXM_OFF};
std::atomic<int> g_start_flag{FXM_OFF};
std::atomic<int> g_fini_flag{FXM_OFF};
std::atomic<int> g_init_guard{1};
std::atomic<int> internal_err{0};

fxm_event_t g_terminate_event;

static std::atomic<uint32_t> calls_in_progress{0};

// Wakes the tear-down, the only thread that waits on it. It needs no initialisation and is never destroyed, because a
// call may signal it at any time.
static fxm_event_t last_call_left;

int _fxm_terminate_event_create() { return _fxm_event_init_waitable(&g_terminate_event); }

// Nobody waits before the stop, so until then a call only counts.
static void _leave_call()
{
    if (calls_in_progress.fetch_sub(1) == 1 && _fxm_stopping())
        _fxm_event_set(&last_call_left);
}

fxm_call_t::fxm_call_t()
{
    calls_in_progress.fetch_add(1);
    // In this order. With a stop and the next start between two reads in the other order, a call could enter a library
    // that is still starting.
    running = g_fini_flag.load() == FXM_OFF && g_init_flag.load() == FXM_ON;
    if (!running)
        _leave_call();
}

fxm_call_t::~fxm_call_t()
{
    if (running)
        _leave_call();
}

void _fxm_wait_calls()
{
    while (calls_in_progress.load() != 0)
        _fxm_event_timedwait(&last_call_left, FXM_WORKER_WAIT);
}

int _fxm_sleep(uint32_t ms)
{
    while (!_fxm_stopping()) {
        if (ms == 0)
            return 0;
        const uint32_t slice = std::min(ms, FXM_STOP_SLICE);
        Sleep(slice);
        ms -= slice;
    }
    return ENOSYS;
}

#define RESULT(code, err)                                                                                              \
    fxm_result_t { code, err, #code }
// clang-format off
constexpr fxm_result_t fxm_results[] = {
    RESULT(FXM_API_SUCCESS, 0),
    RESULT(FXM_API_EINVAL, EINVAL),
    RESULT(FXM_API_ERANGE, ERANGE),
    RESULT(FXM_API_ENOENT, ENOENT),
    RESULT(FXM_API_ENOLINK, ENOLINK),
    RESULT(FXM_API_ENOMEM, ENOMEM),
    RESULT(FXM_API_EPROTO, EPROTO),
    RESULT(FXM_API_ETIMEDOUT, ETIMEDOUT),
    RESULT(FXM_API_EBUSY, EBUSY),
    RESULT(FXM_API_ENOSYS, ENOSYS),
};
// clang-format on
static_assert([] {
    int index = 0;
    for (const fxm_result_t &result : fxm_results) {
        if (result.code != index++)
            return false;
    }
    return true;
}());

int _fxm_errno_to_result(int err)
{
    for (const fxm_result_t &result : fxm_results) {
        if (result.err == err)
            return result.code;
    }
    return FXM_API_EPROTO;
}

void _fxm_fini_manager()
{
    fxm_log_fatal("%s: LFI will terminate by reason of internal error.", __func__);
    g_fini_flag.store(FXM_ON);
    internal_err.store(EPROTO);
}
