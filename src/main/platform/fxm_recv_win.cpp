// The wait loop of a receive thread.
#include <cstdint>

#include "core/fxm_state.h"
#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"
#include "wire/fxm_port.h"
#include "wire/fxm_recv.h"

void _fxm_recv_win(uint32_t port)
{
    pcap_t *handle = fxm_ports[port].pt_pcap;
    if (_fxm_capture_mintocopy(handle) != 0)
        fxm_log_error("%s: failed to pcap_setmintocopy(). port_num=%u", __func__, port);
    fxm_recv_source[port] = {_fxm_capture_event(handle), false, nullptr, 0};

    while (!_fxm_stopping()) {
        const uint32_t answer = _fxm_wait_two(&g_terminate_event, &fxm_recv_source[port], FXM_WORKER_WAIT);
        switch (answer) {
        case FXM_WAIT_FIRST:
            fxm_log_info("%s: WaitForMultipleObjects() catch terminate-event. port_num=%u", __func__, port);
            return;
        case FXM_WAIT_SECOND:
            if (_fxm_recv_frame(port) != 0) {
                fxm_log_fatal("%s: Failed to _fxm_recv_frame(). port_num=%u", __func__, port);
                _fxm_fini_manager();
                return;
            }
            break;
        case FXM_WAIT_TIMEOUT:
            fxm_log_trace("%s: WaitForMultipleObjects() returned WAIT_TIMEOUT. port_num=%u", __func__, port);
            break;
        case FXM_WAIT_FAILED:
            fxm_log_fatal("%s: WaitForMultipleObjects() returned WAIT_FAILED. lasterr=%d, port_num=%u", __func__,
                          static_cast<int>(_fxm_last_error()), port);
            _fxm_fini_manager();
            return;
        default:
            fxm_log_trace("%s: WaitForMultipleObjects() returned %d. port_num=%u", __func__, static_cast<int>(answer),
                          port);
            break;
        }
    }
}
