// From a DEVINFO or NOTIFY frame to a new or changed card and its events.
#ifndef FXM_DEVINFO_H
#define FXM_DEVINFO_H

#include <cstdint>

// Takes a frame that has passed _check_frame, with the header layout found there. Receive threads. Always 0.
int _fxm_recv_devinfo(uint32_t port, const uint8_t *frame, uint8_t mode);

#endif
