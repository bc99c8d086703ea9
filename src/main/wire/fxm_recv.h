// Reception. One thread for each open port reads one frame at a time from the capture, checks it and hands it to the
// registry or the tag table. It handles each frame to the end before it reads the next.
#ifndef FXM_RECV_H
#define FXM_RECV_H

#include <cstdint>

#include "core/fxm_config.h"
#include "diag/fxm_stats.h"
#include "platform/fxm_platform.h"

// The source on which each receive thread waits beside the terminate event. While frames keep coming, the thread reads
// on without asking the kernel whether there are more; the read that finds none ends that.
extern fxm_wait_source_t fxm_recv_source[FXM_PORT_NUM];

// A kind of frame that cards send.
struct fxm_frame_kind_t {
    const char *name; // in messages
    fxm_stats_frame_t counter;
    uint8_t subtype;
    bool is_40g; // the 40G form of an announcement, with 16 down ports
};
const fxm_frame_kind_t *_fxm_frame_kind(uint8_t subtype); // null for any other subtype

void *_fxm_recv_task(void *port);  // thread entry; the port number as pointer
void _fxm_recv_win(uint32_t port); // the wait loop, in platform/fxm_recv_win.cpp

// Reads one frame and handles it. 0, or -1 if the capture failed.
[[nodiscard]] int _fxm_recv_frame(uint32_t port);

// 0: the frame is to be handled, and *mode is its layout; -1: it is to be dropped.
[[nodiscard]] int _check_frame(const uint8_t *frame, uint32_t length, uint8_t *mode);

#endif
