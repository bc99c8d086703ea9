// The cards that the host excludes from monitoring. They are stored by id alone: an id need not belong to a known card.
#ifndef FXM_BLACKLIST_H
#define FXM_BLACKLIST_H

#include <cstdint>
#include <vector>

#include "platform/fxm_platform.h"

[[nodiscard]] int _fxm_blacklist_init(); // 0 or EPROTO
int _fxm_blacklist_fini();               // always 0

// Guards the set of ids. Stop, restart and the adding of a card take it under fx_lock, so that a frame of a card that is
// being stopped is handled either wholly before the stop or wholly after it. Dump and fini take it alone. Under it a
// thread takes only the stats lock.
extern fxm_mutex_t blacklist_lock;

void _fxm_lock_blacklist() FXM_ACQUIRE(blacklist_lock);
void _fxm_unlock_blacklist() FXM_RELEASE(blacklist_lock);
[[nodiscard]] bool _fxm_blacklist_lookup(uint64_t id) FXM_REQUIRES(blacklist_lock); // whether the id is in the set
std::vector<uint64_t> _fxm_blacklist_copy() FXM_EXCLUDES(blacklist_lock);
void _fxm_blacklist_dump() FXM_EXCLUDES(blacklist_lock); // writes its section of the status dump

struct FXM_SCOPED_CAPABILITY fxm_blacklist_guard_t {
    fxm_blacklist_guard_t() FXM_ACQUIRE(blacklist_lock) { _fxm_lock_blacklist(); }
    ~fxm_blacklist_guard_t() FXM_RELEASE() { _fxm_unlock_blacklist(); }
    fxm_blacklist_guard_t(const fxm_blacklist_guard_t &) = delete;
    fxm_blacklist_guard_t &operator=(const fxm_blacklist_guard_t &) = delete;
};

#endif
