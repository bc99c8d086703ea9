// Channels go down when their card falls silent or when their port loses its link.
#ifndef FXM_KEEPALIVE_H
#define FXM_KEEPALIVE_H

// One pass over both tables. Runs inside the interval check, fx_lock held.
void _devinfo_keepalive_check();

// Marks every channel of a port as disconnected. Runs on the link watcher, fx_lock held.
void _fxm_all_disconnect(int port);

#endif
