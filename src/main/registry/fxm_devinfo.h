// Processing of DEVINFO and NOTIFY frames: each adds or updates a card and raises its events.
#ifndef FXM_DEVINFO_H
#define FXM_DEVINFO_H

#include <cstdint>

// Processes a frame that passed _check_frame, which also found the header layout `mode`. Receive threads. Always 0.
int _fxm_recv_devinfo(uint32_t port, const uint8_t *frame, uint8_t mode);

#endif
