// What a reading of a port's link means for the port and its cards. Runs on the link watcher.
#include "events/fxm_linkstate.h"

#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_keepalive.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"

void _fxm_link_state_update(uint32_t port, uint32_t new_state)
{
    fxm_port_t &record = fxm_ports[port];
    const uint32_t old_state = record.pt_link.load();
    if (new_state == old_state)
        return;
    const char *from = _fxm_link_name(old_state);
    const char *to = _fxm_link_name(new_state);
    fxm_log_info("%s: State of FXM port%u changed. mac=%.12llx, if_index=%u (%s->%s)", __func__, port,
                 _ull(record.pt_mac), record.pt_if_index, from, to);
    fxm_log_sys("State of FXM port%u changed. mac=%.12llx, if_index=%u (%s->%s)", port, _ull(record.pt_mac),
                record.pt_if_index, from, to);
    record.pt_link.store(new_state);
    if (new_state == 1)
        return; // the channels come back frame by frame
    _fxm_stats_add(&g_stats.port_total_down[port]);
    fxm_fx_guard_t guard;
    _fxm_all_disconnect(port);
}

void *_fxm_watch_linkstate(void *)
{
    fxm_log_info("%s: start.", __func__);
    _fxm_watch_linkstate_win();
    fxm_log_info("%s: end.", __func__);
    return nullptr;
}
