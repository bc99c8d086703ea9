// All locks of the library, in the order in which a thread may take them, as docs/architecture.md shows it. What each
// guards is said where it is declared. Debug and sanitizer builds check the rules below at run time.
#ifndef FXM_LOCKS_H
#define FXM_LOCKS_H

#include "platform/fxm_check.h"

enum fxm_lock_kind_t : uint8_t {
    FXM_LOCK_ENTRY,     // lock of a cb_evt_tbl entry, events/fxm_event.cpp
    FXM_LOCK_WN,        // wn_lock of a card id, access/fxm_wreg.cpp
    FXM_LOCK_FX,        // fx_lock, registry/fxm_tables.h
    FXM_LOCK_BLACKLIST, // blacklist_lock, registry/fxm_blacklist.cpp
    FXM_LOCK_WREG,      // wreg_lock, access/fxm_wreg.cpp
    FXM_LOCK_QUEUE,     // lock of fxm_event_queue, events/fxm_event.cpp
    FXM_LOCK_HANDLE,    // handle_lock, events/fxm_event.cpp
    FXM_LOCK_CMP,       // cmp_lock, access/fxm_tags.cpp
    FXM_LOCK_STATS,     // g_stats_lock, diag/fxm_stats.h
    FXM_LOCK_KINDS
};

#endif
