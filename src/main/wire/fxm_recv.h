// Reception: one thread for each open port takes a frame at a time from the capture, checks it and carries it to the
// registry or the tag table, on its own stack and to the end, before it looks for the next.
#ifndef FXM_RECV_H
#define FXM_RECV_H

#include <cstdint>

#include "core/fxm_config.h"
#include "platform/fxm_platform.h"

// What each receive thread waits on beside the terminate event. As long as frames keep coming the thread reads on
// without asking the kernel, and the read that finds none ends that.
extern fxm_wait_source_t fxm_recv_source[FXM_PORT_NUM];

void *_fxm_recv_task(void *port);   // thread entry; the port number as pointer
void _fxm_recv_win(uint32_t port);  // the wait loop, in platform/fxm_recv_win.cpp
int _fxm_recv_frame(uint32_t port); // takes one frame and carries it through: 0, or -1 if the capture failed
int _check_frame(const uint8_t *frame, uint32_t length, uint8_t *mode); // 0 to be processed, -1 to be dropped

#endif
