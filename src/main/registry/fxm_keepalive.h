// Channels go down when their card falls silent or when their port loses its link.
#ifndef FXM_KEEPALIVE_H
#define FXM_KEEPALIVE_H

#include <cstdint>

#include "registry/fxm_tables.h"

// One pass over both tables. Runs inside the interval check.
void _devinfo_keepalive_check() FXM_REQUIRES(fxm_fx_tbl.fx_lock);

// Marks every channel of a port as disconnected. Runs on the link watcher.
void _fxm_all_disconnect(uint32_t port) FXM_REQUIRES(fxm_fx_tbl.fx_lock);

#endif
