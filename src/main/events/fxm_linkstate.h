// The link watcher: a port whose link falls loses all its channels at once, not at expiry.
#ifndef FXM_LINKSTATE_H
#define FXM_LINKSTATE_H

#include <cstdint>

void *_fxm_watch_linkstate(void *);                             // thread entry
void _fxm_watch_linkstate_win();                                // the loop, in platform/fxm_linkstate_win.cpp
void _fxm_link_state_update(uint32_t port, uint32_t new_state); // applies one reading: 1 up, else down

#endif
