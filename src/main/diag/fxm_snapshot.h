// What the daemon of this project reads and sets besides the public functions: a copy of the counters and the ports, and a
// limit on the number of cards. Nothing here is exported from libfxm.so.
#ifndef FXM_SNAPSHOT_H
#define FXM_SNAPSHOT_H

#include <cstdint>
#include <vector>

#include "diag/fxm_stats.h"

struct fxm_port_snapshot_t {
    uint64_t mac;        // packed as a card id
    uint64_t dropped;    // frames that the kernel dropped because the capture ring was full, since the port was opened
    uint32_t if_index;   // 0 while the port is closed
    uint32_t link;       // 1 up, else down
    uint32_t total_down; // falls of the link
};

struct fxm_snapshot_t {
    fxm_port_snapshot_t port[FXM_PORT_NUM];
    fxm_stats_t stats;
    uint64_t refused; // see _fxm_set_card_limit
    bool running;     // if not, `port` is all zero
};

// Copies each section under its lock, one after the other. Any thread, at any time.
void _fxm_snapshot(fxm_snapshot_t *out);

// The ids of the cards that are out of monitoring, ascending. Empty while the library is not running.
std::vector<uint64_t> _fxm_blacklist_ids();

// The announcements of new cards are ignored while both tables together hold `cards` cards or more; `refused` counts the
// ignored frames. Without this call there is no limit. Any thread, at any time.
void _fxm_set_card_limit(uint32_t cards);

#endif
