// The rules of the locks, for the check at run time.
#include "core/fxm_locks.h"

#include <cstddef>
#include <iterator>

// A set of kinds.
template <typename... Kinds> static constexpr uint32_t _set(Kinds... kinds) { return (0u | ... | (1u << kinds)); }

constexpr uint32_t ANY = (1u << FXM_LOCK_KINDS) - 1;

// A callback runs under its entry's lock and may call every exported function, so whatever an exported function takes is
// taken under FXM_LOCK_ENTRY. FXM_LOCK_WN is taken before the frames of a conversation, never together with fx_lock.
const fxm_lock_rule_t fxm_lock_rules[] = {
    // name, taken under, re-entrant, held across waits and frames, held across callbacks
    {"a callback entry's lock", _set(FXM_LOCK_ENTRY), true, true, true},
    {"wn_lock", _set(FXM_LOCK_ENTRY), false, true, false},
    {"fx_lock", _set(FXM_LOCK_ENTRY), false, false, false},
    {"blacklist_lock", _set(FXM_LOCK_ENTRY, FXM_LOCK_FX), false, false, false},
    {"wreg_lock", _set(FXM_LOCK_ENTRY, FXM_LOCK_FX), false, false, false},
    {"the event queue's lock", _set(FXM_LOCK_ENTRY, FXM_LOCK_FX), false, false, false},
    {"handle_lock", _set(FXM_LOCK_ENTRY), false, false, false},
    {"cmp_lock", _set(FXM_LOCK_ENTRY, FXM_LOCK_WN), false, false, false},
    {"g_stats_lock", ANY & ~_set(FXM_LOCK_STATS), false, false, false},
};
static_assert(std::size(fxm_lock_rules) == FXM_LOCK_KINDS);
