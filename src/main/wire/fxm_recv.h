// Reception. One thread for each open port takes the frames from the capture, checks each one and hands it to the registry
// or the tag table. It handles a frame to the end before it takes the next.
#ifndef FXM_RECV_H
#define FXM_RECV_H

#include <cstdint>

#include "core/fxm_config.h"
#include "diag/fxm_stats.h"
#include "platform/fxm_platform.h"

// The source on which each receive thread waits beside the terminate event.
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

// Handles the frames that the capture holds, FXM_RECV_MOST of them at most: one system call wakes the thread for all of
// them. Each of them has the log lines of a wake of its own. 0, or -1 if the capture failed.
constexpr int FXM_RECV_MOST = 64; // between two looks at the stop
[[nodiscard]] int _fxm_recv_frame(uint32_t port);

// 0: the frame is to be handled, and *mode is its layout; -1: it is to be dropped.
[[nodiscard]] int _check_frame(const uint8_t *frame, uint32_t length, uint8_t *mode);

#endif
