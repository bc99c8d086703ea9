// The ageing of channels: a card that is no longer heard, and a port that has lost its link.
#ifndef FXM_KEEPALIVE_H
#define FXM_KEEPALIVE_H

// One pass over both tables. Runs inside the interval check, fx_lock held.
void _devinfo_keepalive_check();

// Takes down every channel of a port. Runs on the link watcher, fx_lock held.
void _fxm_all_disconnect(int port);

#endif
