// The loop of the link watcher: wait for the notice of a change, read the ports, arm again.
#include <cerrno>
#include <cstdint>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "events/fxm_linkstate.h"
#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"
#include "wire/fxm_port.h"

// A port whose reading fails keeps its state. Returns false when the state of a port is not known; the caller must then
// keep the notice. A missing adapter is a known state.
static bool _read_ports()
{
    bool all_known = true;
    for (uint32_t port = 0; port == 0 || port < _fxm_config_port_num(); ++port) {
        uint32_t state = 0;
        const int err = _fxm_get_linkstate_win(port, &state);
        if (err == 0)
            _fxm_link_state_update(port, state);
        all_known = all_known && (err == 0 || err == ENOENT);
    }
    return all_known;
}

static bool _arm(const char *func, fxm_notice_t *notice)
{
    if (_fxm_notice_arm(notice))
        return true;
    const uint32_t err = _fxm_last_error();
    if (err == FXM_ERROR_IO_PENDING)
        return true;
    fxm_log_fatal("%s: Failed to NotifyAddrChange(). err = %d", func, static_cast<int>(err));
    return false;
}

// Returns false when the library must stop.
static bool _watch(const char *func, fxm_notice_t *notice)
{
    if (!_arm(func, notice))
        return false;
    if (!_read_ports())
        _fxm_notice_keep(notice);
    while (!_fxm_stopping()) {
        const uint32_t answer = _fxm_wait_two(&g_terminate_event, &notice->source, FXM_WORKER_WAIT);
        switch (answer) {
        case FXM_WAIT_FIRST:
            fxm_log_info("%s: WaitForMultipleObjects() catch terminate-event.", func);
            return true;
        case FXM_WAIT_SECOND: {
            fxm_log_debug("%s: WaitForMultipleObjects() catch event of address table changed", func);
            const bool all_known = _read_ports();
            _fxm_notice_reset(notice);
            if (!_arm(func, notice))
                return false;
            if (!all_known)
                _fxm_notice_keep(notice);
            break;
        }
        case FXM_WAIT_TIMEOUT:
            fxm_log_trace("%s: WaitForMultipleObjects() returned WAIT_TIMEOUT.", func);
            break;
        case FXM_WAIT_FAILED:
            fxm_log_fatal("%s: WaitForMultipleObjects() returned WAIT_FAILED. lasterr=%d", func,
                          static_cast<int>(_fxm_last_error()));
            return false;
        default:
            fxm_log_trace("%s: WaitForMultipleObjects() returned %d.", func, static_cast<int>(answer));
            break;
        }
    }
    return true;
}

void _fxm_watch_linkstate_win()
{
    fxm_notice_t notice;
    bool good = _fxm_notice_create(&notice);
    if (!good)
        fxm_log_fatal("%s: Failed to WSACreateEvent().", __func__);
    else
        good = _watch(__func__, &notice);
    if (!good)
        _fxm_fini_manager();
    _fxm_notice_close(&notice);
}
